// Arbitrary bytes as a compare command stream, served by ws_compare over a
// real socket pair in a scratch directory. The first byte is the job's option
// flags (detailed verdicts, access-time reset), the second the
// acknowledgement interval and the lock-test setting; the rest is packets
// (header, payload).
//
// The scratch directory holds a small fixed tree (regular files, a directory,
// a symbolic link, a FIFO, a file marked for mandatory locking). The name of
// every MKDIR or OPENFILE record that decodes is replaced by one of the tree's
// names (or a missing one), chosen by the name's bytes, so the stream reaches
// every kind of object and nothing outside the scratch directory. The compare
// writes nothing but access times, so the tree is made once.
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <string>

#include "compare/ws_compare.h"
#include "stream_job.h"

namespace {

using namespace tavik;

constexpr std::array<const char*, 9> kNames = {"", "a", "d", "d/b", "l", "p", "m", "missing", "d/missing"};

const std::string& tree() { return fuzz::scratchDir("compare"); }

void makeTree() {
    const std::string base = tree() + "/";
    std::string pattern(5000, '\0');
    for (size_t i = 0; i < pattern.size(); ++i) pattern[i] = static_cast<char>(i * 31);
    std::ofstream(base + "a", std::ios::binary) << pattern;
    ::mkdir((base + "d").c_str(), 0755);
    std::ofstream(base + "d/b", std::ios::binary) << "small";
    if (::symlink("a", (base + "l").c_str()) != 0) std::abort();
    ::mkfifo((base + "p").c_str(), 0600);
    std::ofstream(base + "m", std::ios::binary) << "mandatory";
    ::chmod((base + "m").c_str(), 02644);
}

void confine(protocol::RestoreAttributes& a) {
    unsigned pick = 0;
    for (char c : a.name) pick = pick * 31 + static_cast<uint8_t>(c);
    a.name = kNames[pick % kNames.size()];
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    [[maybe_unused]] static bool once = [] {
        fuzz::discardLog();
        startupSettings().timeDivisor = 1000000;  // lock-test retries do not sleep
        publishSettings();
        makeTree();
        return true;
    }();
    if (size < 2) return 0;
    JobContext ctx = fuzz::streamJob(data[1]);
    ctx.jobOptions[protocol::options_layout::kFlagsAt] = data[0];
    ctx.jobSettings.checkLocks = (data[1] & 0x10) != 0;
    fuzz::serveStream(fuzz::reframe({data + 2, size - 2}, confine), [&ctx](int socket) {
        // The job works in its root; the fuzzer's own directory is put back after.
        fuzz::keepingWorkingDirectory([&] {
            if (::chdir(tree().c_str()) == 0) (void)compare::ws_compare(socket, tree() + "/", ctx);
        });
    });
    return 0;
}
