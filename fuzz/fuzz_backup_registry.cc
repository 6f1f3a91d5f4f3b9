// Arbitrary bytes as the registry file tvk.ipc: clearing and registering
// identifiers must read it line by line within its 256-byte buffer and never
// grow a line into the next one.
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "backup/queue.h"
#include "daemon/state.h"
#include "request/job_context.h"

namespace {

char scratchDir[] = "/tmp/fuzz-backup-registry-XXXXXX";

void removeScratch() {
    unlink(tavik::paths().ipcPath.c_str());
    unlink(tavik::paths().logPath.c_str());
    std::string log = tavik::paths().logDir;
    rmdir(log.c_str());
    rmdir(scratchDir);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static bool ready = [] {
        if (!mkdtemp(scratchDir)) abort();
        tavik::paths().deriveFrom(std::string(scratchDir) + "/");
        mkdir(tavik::paths().logDir.c_str(), 0700);
        tavik::prepareForConnection(tavik::job());
        atexit(removeScratch);
        return true;
    }();
    (void)ready;
    FILE* f = std::fopen(tavik::paths().ipcPath.c_str(), "w");
    if (!f) abort();
    std::fwrite(data, 1, size, f);
    std::fclose(f);
    int id = size >= 4 ? int(data[0] | data[1] << 8 | data[2] << 16 | (data[3] & 0x7F) << 24) : 42;
    tavik::backup::ClearIPC('m', id);
    tavik::backup::RegisterIPC('s', id);
    tavik::backup::ClearIPC('s', id);
    tavik::backup::RegisterIPC('m', 7);
    return 0;
}
