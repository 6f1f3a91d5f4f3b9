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
#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <string>
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

std::string root() { return scratch() + "/job"; }

// How many bytes GetRequest takes of a request whose header says `length`.
size_t requestBytes(uint16_t length) {
    if (length == 0) return protocol::kHeaderSize;
    return protocol::kHeaderSize + (length > protocol::request_layout::kSize ? length : protocol::request_layout::kSize);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    [[maybe_unused]] static bool once = [] {
        fuzz::scratchHome("job");
        fuzz::discardLog();
        startupSettings().singleUser = true;
        startupSettings().timeDivisor = 1000000;  // lock-test retries do not sleep
        publishSettings();
        return true;
    }();
    if (size < protocol::kHeaderSize) return 0;
    JobProcess job;
    JobContext& ctx = job.ctx;
    prepareJob(ctx);
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
    fuzz::serveStream(stream, [&job](int socket) {
        fuzz::keepingWorkingDirectory([&] {
            listener().jobSocket = socket;
            (void)serveJob(job);
            listener().jobSocket = -1;
        });
    });
    fuzz::emptyDir(scratch());
    ::mkdir(paths().logDir.c_str(), 0700);
    return 0;
}
