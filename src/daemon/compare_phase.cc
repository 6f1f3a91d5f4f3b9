// The compare job's data phase: after the command exchange (the job process
// has switched to the login and changed to the root) the replayed backup
// stream is compared with the disk, with the receive buffer sized for the
// bulk data.
#include <sys/socket.h>

#include "compare/ws_compare.h"
#include "daemon/job_phases.h"
#include "daemon/state.h"
#include "log/ulog.h"
#include "transport/endpoints.h"
#include "transport/packet.h"

namespace tavik {

Outcome comparePhase(Channel& channel, JobContext& ctx) {
    int socket = channel.fd();
    transport::setBufSize(socket, SO_RCVBUF, settings().socketBufferSize);
    ulog("SO_RCVBUF = %d", transport::getBufSize(socket, SO_RCVBUF));
    if (compare::ws_compare(socket, ctx.jobRoot, ctx).isJobOver()) {
        ulog(MSG_CANNOT_RECEIVE_DISCONNECT_FROM, "", listener().caller());
        return Outcome::jobOver();
    }
    ulog(MSG_RECEIVED_DISCONNECT_FROM, "", listener().caller());
    return Outcome::done();
}

}  // namespace tavik
