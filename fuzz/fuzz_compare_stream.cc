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
// every kind of object and nothing outside the scratch directory. Records the
// agent refuses unread (names of 1024 bytes or more) pass unchanged. The
// compare writes nothing but access times, so the tree is made once.
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <span>
#include <string>
#include <vector>

#include "compare/ws_compare.h"
#include "daemon/state.h"
#include "request/job_context.h"
#include "restore/restore_record.h"
#include "transport/packet.h"
#include "wire/bytes.h"

namespace {

using namespace tavik;

constexpr std::array<const char*, 9> kNames = {"", "a", "d", "d/b", "l", "p", "m", "missing", "d/missing"};

// Never destroyed: the exit handler that removes it runs after static
// destructors would have.
const std::string& scratch() {
    static const std::string* dir = [] {
        char tmpl[] = "/tmp/tavik-fuzz-compare-XXXXXX";
        if (!::mkdtemp(tmpl)) std::abort();
        auto* made = new std::string(tmpl);
        std::atexit([] {
            std::error_code ec;
            std::filesystem::remove_all(scratch(), ec);
        });
        std::string base = *made + "/";
        std::string pattern(5000, '\0');
        for (size_t i = 0; i < pattern.size(); ++i) pattern[i] = static_cast<char>(i * 31);
        std::ofstream(base + "a", std::ios::binary) << pattern;
        ::mkdir((base + "d").c_str(), 0755);
        std::ofstream(base + "d/b", std::ios::binary) << "small";
        if (::symlink("a", (base + "l").c_str()) != 0) std::abort();
        ::mkfifo((base + "p").c_str(), 0600);
        std::ofstream(base + "m", std::ios::binary) << "mandatory";
        ::chmod((base + "m").c_str(), 02644);
        return made;
    }();
    return *dir;
}

std::vector<uint8_t> confined(std::span<const uint8_t> payload) {
    restore::RestoreAttributes a;
    if (restore::decodeRestoreAttributes(payload, a) != restore::RecordError::None) {
        return {payload.begin(), payload.end()};
    }
    unsigned pick = 0;
    for (char c : a.name) pick = pick * 31 + static_cast<uint8_t>(c);
    a.name = kNames[pick % kNames.size()];
    return restore::encodeRestoreAttributes(a);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static bool once = [] {
        paths().logPath = "/dev/null";
        paths().oldLogPath = "/dev/null";
        settings().timeDivisor = 1000000;  // lock-test retries do not sleep
        (void)scratch();
        return true;
    }();
    (void)once;
    if (size < 2) return 0;
    JobContext ctx;
    prepareForConnection(ctx);
    ctx.jobOptions[options_layout::kFlagsAt] = data[0];
    ctx.ackInterval = data[1] % 4;
    settings().checkLocks = (data[1] & 0x10) != 0;
    ctx.serverVersion = 52;

    std::vector<uint8_t> stream;
    wire::ByteReader in(std::span<const uint8_t>(data + 2, size - 2));
    while (in.remaining() >= transport::kHeaderSize) {
        transport::HeaderBytes hb{};
        if (!in.getBytes(hb)) break;
        transport::PacketHeader h = transport::decodeHeader(hb);
        size_t length = h.length <= in.remaining() ? h.length : in.remaining();
        std::span<const uint8_t> payload;
        if (!in.view(length, payload)) break;
        std::vector<uint8_t> body(payload.begin(), payload.end());
        if (h.code == restore::command::kMkdir || h.code == restore::command::kOpenFile) body = confined(payload);
        if (body.size() > 65535) body.resize(65535);
        h.length = static_cast<uint16_t>(body.size());
        transport::HeaderBytes out = transport::encodeHeader(h);
        stream.insert(stream.end(), out.begin(), out.end());
        stream.insert(stream.end(), body.begin(), body.end());
    }

    int fds[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0) return 0;
    int big = 1 << 20;
    ::setsockopt(fds[1], SOL_SOCKET, SO_SNDBUF, &big, sizeof big);
    ::setsockopt(fds[0], SOL_SOCKET, SO_SNDBUF, &big, sizeof big);
    size_t sent = 0;
    while (sent < stream.size()) {
        ssize_t n = ::send(fds[1], stream.data() + sent, stream.size() - sent, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n <= 0) break;
        sent += static_cast<size_t>(n);
    }
    ::shutdown(fds[1], SHUT_WR);
    // The job works in its root; the fuzzer's own directory is put back after.
    int here = ::open(".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (here >= 0 && ::chdir(scratch().c_str()) == 0) {
        (void)compare::ws_compare(fds[0], scratch() + "/", ctx);
        if (::fchdir(here) != 0) std::abort();
    }
    if (here >= 0) ::close(here);
    ::close(fds[0]);
    ::close(fds[1]);
    return 0;
}
