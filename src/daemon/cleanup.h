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

// For a backup process: SIGCHLD reaches cleanup as well, and childPid names
// the process whose death it reports. -1 when there is none.
void setCleanupChild(int pid);

}  // namespace tavik
