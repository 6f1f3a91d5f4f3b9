// Arbitrary bytes as the whole of a front-end's side of a job connection:
// the job request, then everything that follows it, served by the job
// process's code (serveJob) over a real socket pair, as an agent in
// single-user mode would: the preparation, the answers, the command phase
// and the data phase of a restore, a compare, a browse, or a job that is its
// command exchange alone.
//
// The harness keeps the job inside a scratch directory: the job's root is
// always the scratch directory's "job" (whatever the request says), every
// name of a restore or compare record is moved below it, links and special
// files become regular files, and a backup request is served as a job of its
// command exchange alone (its data phase forks a sender and reads nothing
// from the front-end but acknowledgements; fuzz_request covers its
// parameters). Everything the job makes is removed after each input, and
// the working directory the browse changes is put back.
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "daemon/job_session.h"
#include "daemon/state.h"
#include "request/job_context.h"
#include "request/request.h"
#include "stream_job.h"
#include "wire/bytes.h"

namespace {

using namespace tavik;

const std::string& scratch() { return fuzz::scratchDir("job"); }

const std::string& root() {
    static const std::string dir = scratch() + "/job";
    return dir;
}

// How many bytes GetRequest takes of a request whose header says `length`.
size_t requestBytes(uint16_t length) {
    if (length == 0) return protocol::kHeaderSize;
    return protocol::kHeaderSize + (length > protocol::request_layout::kSize ? length : protocol::request_layout::kSize);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static bool once = [] {
        paths().deriveFrom(scratch() + "/");
        ::mkdir(paths().logDir.c_str(), 0700);
        fuzz::discardLog();
        startupSettings().singleUser = true;
        startupSettings().timeDivisor = 1000000;  // lock-test retries do not sleep
        return true;
    }();
    (void)once;
    if (size < protocol::kHeaderSize) return 0;
    JobContext& ctx = job();
    prepareForConnection(ctx);
    size_t taken = requestBytes(wire::loadLe16(data + protocol::kHeaderLengthAt));
    if (taken > size) return 0;
    Channel request{std::span<const uint8_t>(data, taken)};
    if (GetRequest(request, ctx) != 0) return 0;
    uint8_t& opMode = ctx.request.raw[protocol::request_layout::kOpModeAt];
    if (opMode == protocol::kOpBackup) opMode = 7;
    ctx.jobRoot = root();

    std::span<const uint8_t> rest(data + taken, size - taken);
    std::vector<uint8_t> stream(rest.begin(), rest.end());
    if (opMode == protocol::kOpRestore || opMode == protocol::kOpCompare) {
        stream = fuzz::reframe(rest, [](protocol::RestoreAttributes& a) { fuzz::reroot(root(), a); });
    }
    int fds[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0) return 0;
    // The front-end's side writes the stream and then reads and drops every
    // answer, so that no answer of the job ever waits for room.
    std::thread frontEnd([fd = fds[1], &stream] {
        for (size_t sent = 0; sent < stream.size();) {
            ssize_t n = ::send(fd, stream.data() + sent, stream.size() - sent, MSG_NOSIGNAL);
            if (n <= 0) break;
            sent += static_cast<size_t>(n);
        }
        ::shutdown(fd, SHUT_WR);
        char sink[4096];
        while (::recv(fd, sink, sizeof sink, 0) > 0) {
        }
    });
    int here = ::open(".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    listener().jobSocket = fds[0];
    (void)serveJob(ctx);
    listener().jobSocket = -1;
    ::shutdown(fds[0], SHUT_RDWR);
    frontEnd.join();
    ::close(fds[0]);
    ::close(fds[1]);
    if (here >= 0) {
        (void)::fchdir(here);
        ::close(here);
    }
    fuzz::emptyDir(scratch());
    ::mkdir(paths().logDir.c_str(), 0700);
    return 0;
}
