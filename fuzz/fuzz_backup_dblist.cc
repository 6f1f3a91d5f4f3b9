// Arbitrary bytes as the database file list of a DB_FILE command: the
// lookup of the raw device paths the list names (and of one path taken from
// the input) and the verbose listing must stay inside the list.
#include <cstdint>
#include <cstdio>
#include <string>

#include "backup/stream.h"
#include "daemon/state.h"
#include "request/job_context.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    [[maybe_unused]] static bool quiet = [] {
        std::freopen("/dev/null", "w", stdout);
        tavik::startupSettings().verbose = true;
        tavik::publishSettings();
        return true;
    }();
    if (size == 0) return 0;
    size_t pathLength = data[0] % 32;
    if (pathLength > size - 1) pathLength = size - 1;
    std::string path(reinterpret_cast<const char*>(data + 1), pathLength);
    tavik::JobContext ctx;
    ctx.dbFileList.assign(data + 1 + pathLength, data + size);
    uint32_t listed = 0;
    tavik::backup::lookupRawSize(ctx, path.c_str(), listed);
    tavik::backup::lookupRawSize(ctx, "", listed);
    tavik::backup::dumpRawList(ctx);
    return 0;
}
