// The harness of the command-stream targets (restore, compare, the whole
// job): the job of one input, the input's packets framed again with every
// MKDIR and OPENFILE record that decodes passed through the target's
// confinement, and the stream served to the agent over a real socket pair.
#pragma once

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <span>
#include <string>
#include <thread>
#include <vector>

#include "request/job_context.h"
#include "protocol/restore_record.h"
#include "scratch.h"
#include "transport/packet.h"
#include "wire/bytes.h"

namespace tavik::fuzz {

// The job of one input; `interval` chooses the acknowledgement interval.
inline JobContext streamJob(uint8_t interval) {
    JobContext ctx;
    prepareJob(ctx);
    ctx.ackInterval = interval % 4;
    ctx.serverVersion = 52;
    return ctx;
}

// Moves a record's name below `dir` ("/a/../b" becomes dir + "/a/__/b") and
// turns links and special files into regular files, so that nothing a
// stream makes can lead outside `dir`.
inline void reroot(const std::string& dir, protocol::RestoreAttributes& a) {
    std::string out = dir;
    for (const auto& component : std::filesystem::path(a.name)) {
        const std::string part = component.string();
        if (part == "..") out += "/__";
        else if (!part.empty() && part != "." && part != "/") out += "/" + part;
    }
    if (!a.name.empty() && a.name.back() == '/') out += "/";
    if (out.size() > protocol::kMaxNameLength) out.resize(protocol::kMaxNameLength);
    a.name = out;
    if (a.type() == protocol::kTypeSymlink || a.isSpecial()) {
        a.mode = (a.mode & ~protocol::kTypeMask) | protocol::kTypeRegular;
    }
}

// Removes everything below `dir`.
inline void emptyDir(const std::string& dir) {
    std::error_code ec;
    for (const auto& entry : std::filesystem::directory_iterator(dir, ec)) std::filesystem::remove_all(entry.path(), ec);
}

// `input` as packets: each length cut to the bytes there are, each record of
// a MKDIR or OPENFILE that decodes given to `confine(RestoreAttributes&)` and
// encoded again. Records the agent refuses unread (too short, names of 1024
// bytes or more) pass unchanged.
template <class Confine>
std::vector<uint8_t> reframe(std::span<const uint8_t> input, Confine confine) {
    std::vector<uint8_t> stream;
    wire::ByteReader in(input);
    protocol::HeaderBytes hb{};
    while (in.remaining() >= protocol::kHeaderSize && in.getBytes(hb)) {
        protocol::PacketHeader h = protocol::decodeHeader(hb);
        std::span<const uint8_t> payload;
        if (!in.view(std::min<size_t>(h.length, in.remaining()), payload)) break;
        std::vector<uint8_t> body(payload.begin(), payload.end());
        protocol::RestoreAttributes a;
        if ((h.code == protocol::code::kMkdir || h.code == protocol::code::kOpenFile) &&
            protocol::decodeRestoreAttributes(payload, a) == protocol::RecordError::None) {
            confine(a);
            body = protocol::encodeRestoreAttributes(a);
        }
        if (body.size() > 65535) body.resize(65535);
        h.length = static_cast<uint16_t>(body.size());
        protocol::HeaderBytes out = protocol::encodeHeader(h);
        stream.insert(stream.end(), out.begin(), out.end());
        stream.insert(stream.end(), body.begin(), body.end());
    }
    return stream;
}

// Writes `stream` into one end of a socket pair whose buffer holds every
// input the fuzzer makes, closes that end for writing and runs
// `serve(agentSocket)` on the other, while a thread reads and drops every
// answer so that none of them ever waits for room.
template <class Serve>
void serveStream(const std::vector<uint8_t>& stream, Serve serve) {
    int fds[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0) return;
    int big = 1 << 20;
    ::setsockopt(fds[1], SOL_SOCKET, SO_SNDBUF, &big, sizeof big);
    for (size_t sent = 0; sent < stream.size();) {
        ssize_t n = ::send(fds[1], stream.data() + sent, stream.size() - sent, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n <= 0) break;
        sent += static_cast<size_t>(n);
    }
    ::shutdown(fds[1], SHUT_WR);
    std::thread frontEnd([fd = fds[1]] {
        char sink[4096];
        while (::recv(fd, sink, sizeof sink, 0) > 0) {
        }
    });
    serve(fds[0]);
    ::shutdown(fds[0], SHUT_RDWR);
    frontEnd.join();
    ::close(fds[0]);
    ::close(fds[1]);
}

// Runs `work` and puts the working directory back after it.
template <class Work>
void keepingWorkingDirectory(Work work) {
    int here = ::open(".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (here < 0) return;
    work();
    if (::fchdir(here) != 0) std::abort();
    ::close(here);
}

}  // namespace tavik::fuzz
