// Arbitrary bytes as the registry file tvk.ipc: clearing and registering
// identifiers must read it line by line within its 256-byte buffer and never
// grow a line into the next one.
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "backup/ipc_registry.h"
#include "request/job_context.h"
#include "scratch.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static bool ready = [] {
        tavik::fuzz::scratchHome("backup-registry");
        tavik::prepareForConnection(tavik::job());
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
