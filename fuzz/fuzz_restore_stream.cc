// Arbitrary bytes as a restore command stream, served by ws_restore over a
// real socket pair. The first byte chooses the conflict policy, the second
// the acknowledgement interval; the rest is packets (header, payload).
//
// The agent uses the names it is sent as they are, so the harness keeps the
// run inside a scratch directory: every name of a MKDIR or OPENFILE record is
// re-rooted there (".." components neutralised) and symbolic links and
// special files are turned into regular files, so nothing the stream makes
// can lead outside it. Records that the agent refuses unread (too short,
// names of 1024 bytes or more) pass unchanged. The scratch directory is
// emptied after every input.
#include <sys/socket.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <span>
#include <string>
#include <vector>

#include "daemon/state.h"
#include "request/job_context.h"
#include "restore/restore_record.h"
#include "restore/ws_restore.h"
#include "transport/packet.h"
#include "wire/bytes.h"

namespace {

using namespace tavik;

// Never destroyed: the exit handler that removes it runs after static
// destructors would have.
const std::string& scratch() {
    static const std::string* dir = [] {
        char tmpl[] = "/tmp/tavik-fuzz-restore-XXXXXX";
        if (!::mkdtemp(tmpl)) std::abort();
        auto* made = new std::string(tmpl);
        std::atexit([] {
            std::error_code ec;
            std::filesystem::remove_all(scratch(), ec);
        });
        return made;
    }();
    return *dir;
}

std::string rerooted(const std::string& name) {
    std::string out = scratch();
    size_t i = 0;
    while (i <= name.size()) {
        size_t slash = name.find('/', i);
        if (slash == std::string::npos) slash = name.size();
        std::string part = name.substr(i, slash - i);
        if (part == "..") part = "__";
        if (!part.empty() && part != ".") out += "/" + part;
        i = slash + 1;
    }
    if (name.size() > 0 && name.back() == '/') out += "/";
    if (out.size() > restore::kMaxNameLength) out.resize(restore::kMaxNameLength);
    return out;
}

std::vector<uint8_t> confined(std::span<const uint8_t> payload) {
    restore::RestoreAttributes a;
    if (payload.size() < restore::kRecName) return {payload.begin(), payload.end()};
    if (restore::decodeRestoreAttributes(payload, a) != restore::RecordError::None) {
        return {payload.begin(), payload.end()};
    }
    a.name = rerooted(a.name);
    uint32_t type = a.type();
    if (type == restore::kTypeSymlink || a.isSpecial()) a.mode = (a.mode & ~restore::kTypeMask) | restore::kTypeRegular;
    return restore::encodeRestoreAttributes(a);
}

void emptyScratch() {
    std::error_code ec;
    for (const auto& entry : std::filesystem::directory_iterator(scratch(), ec)) {
        std::filesystem::remove_all(entry.path(), ec);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static bool once = [] {
        paths().logPath = "/dev/null";
        paths().oldLogPath = "/dev/null";
        settings().timeDivisor = 1000000;  // lock-test retries do not sleep
        return true;
    }();
    (void)once;
    if (size < 2) return 0;
    JobContext ctx;
    prepareForConnection(ctx);
    ctx.conflictPolicy = data[0] % 6;
    ctx.ackInterval = data[1] % 4;
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
    restore::HardLinkTable links;
    links.reset();
    (void)restore::ws_restore(fds[0], scratch(), ctx, links, {::geteuid(), ::getegid()});
    ::close(fds[0]);
    ::close(fds[1]);
    emptyScratch();
    return 0;
}
