// The browse job's data phase: the browser on the job connection, with the
// mounted file systems less the types of fs.cntl in the agent's home.
#include "daemon/job_phases.h"
#include "daemon/mount_table.h"
#include "daemon/state.h"
#include "transport/browser.h"

namespace tavik {

int browsePhase(int connection, JobContext&) {
    MountTable table;
    MountPoints mounts(table, paths().homeDir);
    transport::Browser(connection, mounts);
    return kJobOver;
}

}  // namespace tavik
