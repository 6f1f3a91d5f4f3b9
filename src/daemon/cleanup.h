// cleanup: the common exit path of the daemon and of every job process.
//
// It closes the job connection and the listening endpoints, releases the
// job's resources, logs "Tavik stopped" in the daemon, removes grooming's
// temporary files and exits with status 1. SIGTERM reaches it through the
// deferred-signal mechanism (the handler only records the signal, and the
// process runs cleanup(SIGTERM) the next time it dispatches pending
// signals); job code calls cleanup(0) to end normally.
#pragma once

namespace tavik {

[[noreturn]] void cleanup(int sig);

// For a backup process: SIGCHLD is deferred to cleanupOnChildSignal, which
// ends the process through cleanup when the child named here has died
// (logging its death) and returns when another child changed state.
void setCleanupChild(int pid);
void cleanupOnChildSignal(int sig);

}  // namespace tavik
