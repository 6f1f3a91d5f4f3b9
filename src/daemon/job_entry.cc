#include "daemon/job_entry.h"

#include <unistd.h>

#include <cstdio>

#include "daemon/job_session.h"
#include "daemon/login.h"
#include "daemon/state.h"
#include "log/ulog.h"
#include "request/channel.h"
#include "request/job_context.h"
#include "request/request.h"
#include "transport/packet.h"

namespace tavik {

namespace {
// How long the listener waits for a job request (divided by the time divisor).
constexpr unsigned kRequestTimeout = 120;
}  // namespace

int handleJobConnection() {
    Listener& l = listener();
    JobContext& ctx = job();
    prepareForConnection(ctx);

    transport::transport().recvTimeout = kRequestTimeout;
    Channel channel(l.jobSocket);
    int r = GetRequest(channel, ctx);
    transport::transport().recvTimeout = 0;
    if (r != 0) {
        ulog(MSG_FAILED_GET_REQUEST_PACKET, "");
        ::close(l.jobSocket);
        l.jobSocket = -1;
        return 0;
    }
    std::fflush(stdout);

    if (admitCaller(ctx) != 0) return 0;  // refused: answered and closed
    return runJob(ctx);
}

}  // namespace tavik
