#include "daemon/job_entry.h"

#include <unistd.h>

#include <cstdio>

#include "daemon/backup_hooks.h"
#include "daemon/job_session.h"
#include "daemon/login.h"
#include "daemon/state.h"
#include "log/ulog.h"
#include "request/channel.h"
#include "request/job_context.h"
#include "request/request.h"
#include "transport/packet.h"

namespace tavik {

Outcome handleJobConnection(JobProcess& job, int admittedPipe) {
    JobContext& ctx = job.ctx;
    Listener& l = listener();
    installBackupHooks(job.backup);

    Channel channel(ctx.link, l.jobSocket);
    int r = GetRequest(channel, ctx);
    transport::setReceiveDeadline(ctx.link, 0);
    if (r != 0) {
        ulog(MSG_FAILED_GET_REQUEST_PACKET, "");
        ::close(l.jobSocket);
        l.jobSocket = -1;
        return Outcome::jobOver();
    }
    std::fflush(stdout);

    if (admitCaller(ctx) != 0) return Outcome::jobOver();  // refused: answered and closed
    pid_t self = ::getpid();
    if (::write(admittedPipe, &self, sizeof self) != sizeof self) {
        // The daemon counts this process as waiting until it ends: a bound
        // that errs on the safe side.
    }
    ::close(admittedPipe);
    return serveJob(job);
}

}  // namespace tavik
