// Test support for the restore and compare command streams: a stream built
// from packets, an agent function run in a forked child on one end of a
// socket pair while the test writes the stream to the other end, and the
// packets the child sent back, split by their headers.
#pragma once

#include <grp.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <fstream>
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
        transport::PacketHeader h;
        h.code = static_cast<int8_t>(p.code);
        h.length = static_cast<uint16_t>(p.data.size());
        transport::HeaderBytes bytes = transport::encodeHeader(h);
        out.insert(out.end(), bytes.begin(), bytes.end());
        out.insert(out.end(), p.data.begin(), p.data.end());
    }
    return out;
}

// Whole packets; a payload cut short by the end keeps what there is.
inline std::vector<Packet> packetsOf(const std::vector<uint8_t>& bytes) {
    std::vector<Packet> out;
    for (size_t at = 0; bytes.size() - at >= transport::kHeaderSize;) {
        transport::HeaderBytes h{};
        std::copy_n(bytes.begin() + static_cast<long>(at), h.size(), h.begin());
        transport::PacketHeader header = transport::decodeHeader(h);
        at += transport::kHeaderSize;
        size_t length = std::min<size_t>(header.length, bytes.size() - at);
        out.push_back({static_cast<uint8_t>(header.code),
                       {bytes.begin() + static_cast<long>(at), bytes.begin() + static_cast<long>(at + length)}});
        at += length;
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
    Run out;
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
    out.packets = packetsOf(drain(pair.server));
    int status = 0;
    ::waitpid(child, &status, 0);
    out.result = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return out;
}

// Drops root for `uid` (its group id the same number), groups first.
inline bool becomeUser(uid_t uid) { return ::setgroups(0, nullptr) == 0 && ::setgid(uid) == 0 && ::setuid(uid) == 0; }

// The scratch home, its log folder and its log open to a child that has
// become another user.
inline void openToAnyone(const ScratchHome& home) {
    ::chmod(home.dir().c_str(), 0777);
    ::chmod(paths().logDir.c_str(), 0777);
    std::ofstream(paths().logPath, std::ios::app).flush();
    ::chmod(paths().logPath.c_str(), 0666);
}

}  // namespace tavik::testing
