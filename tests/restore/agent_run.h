// Test support for the restore and compare command streams: a stream built
// from packets, an agent function run in a forked child on one end of a
// socket pair while the test writes the stream to the other end, and the
// packets the child sent back, split by their headers.
#pragma once

#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <utility>
#include <vector>

#include "daemon/scratch_home.h"
#include "transport/packet.h"

namespace tavik::testing {

struct Packet {
    Packet(int c, std::vector<uint8_t> d = {}) : code(c), data(std::move(d)) {}
    int code;  // the code byte, 0..255
    std::vector<uint8_t> data;
};

inline std::vector<uint8_t> streamOf(const std::vector<Packet>& packets) {
    std::vector<uint8_t> out;
    for (const Packet& p : packets) {
        protocol::HeaderBytes h = protocol::encodeHeader(
            {.code = static_cast<int8_t>(p.code), .length = static_cast<uint16_t>(p.data.size())});
        out.insert(out.end(), h.begin(), h.end());
        out.insert(out.end(), p.data.begin(), p.data.end());
    }
    return out;
}

// Whole headers; a payload cut short by the end keeps what there is.
inline std::vector<Packet> packetsOf(const std::vector<uint8_t>& bytes) {
    std::vector<Packet> out;
    for (size_t at = 0; bytes.size() - at >= protocol::kHeaderSize;) {
        protocol::HeaderBytes h{};
        std::copy_n(bytes.begin() + static_cast<long>(at), h.size(), h.begin());
        protocol::PacketHeader header = protocol::decodeHeader(h);
        at += protocol::kHeaderSize;
        size_t end = at + std::min<size_t>(header.length, bytes.size() - at);
        out.emplace_back(static_cast<uint8_t>(header.code), std::vector<uint8_t>(&bytes[0] + at, &bytes[0] + end));
        at = end;
    }
    return out;
}

// Everything read from `fd` until the other end closes.
inline std::vector<uint8_t> drain(int fd) {
    std::vector<uint8_t> all;
    uint8_t buf[4096];
    for (ssize_t n; (n = ::recv(fd, buf, sizeof buf, 0)) > 0;) all.insert(all.end(), buf, buf + n);
    return all;
}

struct Run {
    int result = -1;              // the child's exit status: what the agent function returned
    std::vector<Packet> packets;  // everything the child sent
    std::vector<int> codes() const {
        std::vector<int> out;
        for (const Packet& p : packets) out.push_back(p.code);
        return out;
    }
};

// The child runs `agent` on its end and exits with its result; the test
// writes `stream`, closes its end for writing and reads until the child's
// end closes.
inline Run runAgent(const std::vector<uint8_t>& stream, const std::function<int(int)>& agent) {
    SocketPair pair;
    ::signal(SIGCHLD, SIG_DFL);  // the child's status is collected below
    pid_t child = ::fork();
    if (child == 0) {
        pair.closeServer();
        ::_exit(agent(pair.agent));
    }
    pair.closeAgent();
    for (size_t sent = 0; sent < stream.size();) {
        ssize_t n = ::send(pair.server, stream.data() + sent, stream.size() - sent, MSG_NOSIGNAL);
        if (n <= 0) break;
        sent += static_cast<size_t>(n);
    }
    ::shutdown(pair.server, SHUT_WR);
    Run out;
    out.packets = packetsOf(drain(pair.server));
    int status = 0;
    ::waitpid(child, &status, 0);
    out.result = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return out;
}

}  // namespace tavik::testing
