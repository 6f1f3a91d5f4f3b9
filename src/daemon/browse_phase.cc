// The browse job's data phase: the browser on the job connection, with the
// mounted file systems less the types of fs.cntl in the agent's home.
#include "daemon/job_phases.h"
#include "daemon/mount_table.h"
#include "daemon/state.h"
#include "transport/browser.h"

namespace tavik {

Outcome browsePhase(int connection, JobContext& ctx) {
    MountTable table;
    MountPoints mounts(table, paths().homeDir);
    // The browser ends at the caller's LOGOUT or when the connection does:
    // either ends the job.
    return Outcome::jobOverUnless(transport::Browser({.fd = connection, .timeDivisor = ctx.jobSettings.divisor()}, mounts));
}

}  // namespace tavik
