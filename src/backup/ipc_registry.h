// The registry file tvk.ipc (in LOG/): one line per System V object that a
// job of the agent made, "m" for a shared-memory segment and "s" for a
// semaphore with its id; a removed object's line is cleared to "#m"/"#s"
// and reused. It lets a restarted agent, or the listener after a job was
// killed, remove what no job uses any more. Registry problems are logged
// and never stop a job.
#pragma once

#include <cstdint>
#include <string>

namespace tavik::backup {

// The registry a job writes, and how long it waits for the registry's lock:
// its options' retry count and interval (divided by `timeDivisor`).
struct RegistryAccess {
    std::string path;
    uint16_t retryCount = 5;
    uint16_t retryInterval = 5;
    int timeDivisor = 1;
};

int RegisterIPC(const RegistryAccess& registry, char type, int id);
int ClearIPC(const RegistryAccess& registry, char type, int id);
// Removes every object that tvk.ipc lists as live and that no job uses any
// more: a segment nobody is attached to, a semaphore whose job process (the
// last to set or operate it) is gone. Each is logged and its line cleared.
// Called by the daemon at start-up and when a job process was killed, with
// the registry's file; its lock is tried five times, a second (divided by
// `timeDivisor`) apart.
void ReclaimIPC(const std::string& registryPath, int timeDivisor);

}  // namespace tavik::backup
