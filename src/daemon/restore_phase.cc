// The restore job's two steps in the job process: the destination is made
// (under the login's identity, in a child) before the ready answer, and after
// the command phase the restore command stream is served with the receive
// buffer sized for the bulk data.
#include <sys/socket.h>
#include <unistd.h>

#include "daemon/job_phases.h"
#include "daemon/job_session.h"
#include "daemon/login.h"
#include "daemon/state.h"
#include "log/ulog.h"
#include "restore/paths.h"
#include "restore/ws_restore.h"
#include "transport/endpoints.h"
#include "transport/packet.h"

namespace tavik {
namespace {

// Directories made for the job belong to its login; in single-user mode,
// where no login is known, to the daemon's own user.
restore::Owner jobOwner(const JobContext& ctx) {
    if (ctx.jobUser.present) return {ctx.jobUser.uid, ctx.jobUser.gid};
    return {::geteuid(), ::getegid()};
}

}  // namespace

Outcome restorePhase(Channel& channel, JobContext& ctx) {
    int socket = channel.fd();
    restore::HardLinkTable links;  // lives for the job; empty at its start
    links.reset();
    transport::setBufSize(socket, SO_RCVBUF, settings().socketBufferSize);
    ulog("SO_RCVBUF = %d", transport::getBufSize(socket, SO_RCVBUF));
    const Outcome restored = restore::ws_restore(socket, ctx.jobRoot, ctx, links, jobOwner(ctx));
    links.reset();
    if (restored.isJobOver()) {
        ulog(MSG_CANNOT_RECEIVE_DISCONNECT_FROM, "", listener().caller());
        return Outcome::jobOver();
    }
    ulog(MSG_RECEIVED_DISCONNECT_FROM, "", listener().caller());
    return Outcome::done();
}

int prepareRestoreRoot(JobContext& ctx) {
    auto becomeUser = [&ctx]() {
        // A login that is not trusted has switched the whole job already.
        if (identitySwitchExempt(ctx, false) || !ctx.trusted) return true;
        if (!ctx.jobUser.present) {
            ulog("%sNo user to switch to", "(chuid) ");
            return false;
        }
        return chuid(ctx.jobUser.name.c_str(), ctx.jobUser.uid, ctx.jobUser.gid) == 0;
    };
    return restore::make_restore_path(ctx.jobRoot, jobOwner(ctx), becomeUser);
}

}  // namespace tavik
