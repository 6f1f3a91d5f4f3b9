// Arbitrary bytes as a restore command stream, served by ws_restore over a
// real socket pair. The first byte chooses the conflict policy, the second
// the acknowledgement interval; the rest is packets (header, payload).
//
// The agent uses the names it is sent as they are, so the harness keeps the
// run inside a scratch directory: every name of a MKDIR or OPENFILE record is
// re-rooted there (".." components neutralised) and symbolic links and
// special files are turned into regular files, so nothing the stream makes
// can lead outside it. The scratch directory is emptied after every input.
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "restore/ws_restore.h"
#include "stream_job.h"

namespace {

using namespace tavik;

const std::string& scratch() { return fuzz::scratchDir("restore"); }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::discardLog();
    if (size < 2) return 0;
    JobContext ctx = fuzz::streamJob(data[1]);
    ctx.conflictPolicy = data[0] % 6;
    auto confine = [](protocol::RestoreAttributes& a) { fuzz::reroot(scratch(), a); };
    fuzz::serveStream(fuzz::reframe({data + 2, size - 2}, confine), [&ctx](int socket) {
        restore::HardLinkTable links;
        links.reset();
        (void)restore::ws_restore(socket, scratch(), ctx, links, {::geteuid(), ::getegid()});
    });
    fuzz::emptyDir(scratch());
    return 0;
}
