// Arbitrary bytes as the registry file tvk.ipc: clearing and registering
// identifiers must read it line by line within its 256-byte buffer and never
// grow a line into the next one.
#include <cstdint>

#include "backup/ipc_registry.h"
#include "request/job_context.h"
#include "scratch.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    [[maybe_unused]] static bool ready = [] {
        tavik::fuzz::scratchHome("backup-registry");
        return true;
    }();
    const tavik::backup::RegistryAccess registry{.path = tavik::paths().ipcPath};
    tavik::fuzz::writeInput(tavik::paths().ipcPath, data, size);
    int id = size >= 4 ? int(data[0] | data[1] << 8 | data[2] << 16 | (data[3] & 0x7F) << 24) : 42;
    tavik::backup::ClearIPC(registry, 'm', id);
    tavik::backup::RegisterIPC(registry, 's', id);
    tavik::backup::ClearIPC(registry, 's', id);
    tavik::backup::RegisterIPC(registry, 'm', 7);
    return 0;
}
