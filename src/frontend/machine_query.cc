#include "frontend/machine_query.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>

#include "frontend/net.h"
#include "platform/fd.h"
#include "wire/bytes.h"

namespace tavik::frontend {
std::optional<protocol::MachineInfo> queryMachine(const std::string& host, uint16_t port, int timeoutMs, int8_t version,
                                        std::string& error) {
    auto addr = resolveIpv4(host, port, error);
    if (!addr) return std::nullopt;
    platform::UniqueFd sock(socket(AF_INET, SOCK_DGRAM, 0));
    if (!sock) {
        error = std::string("socket: ") + strerror(errno);
        return std::nullopt;
    }
    if (connect(sock.get(), reinterpret_cast<sockaddr*>(&*addr), sizeof *addr) != 0) {
        error = std::string("connect: ") + strerror(errno);
        return std::nullopt;
    }
    std::array<uint8_t, protocol::kQuerySize> query{};
    query[2] = protocol::kMachineQuery;
    query[3] = uint8_t(version);
    if (send(sock.get(), query.data(), query.size(), 0) != ssize_t(query.size())) {
        error = std::string("send: ") + strerror(errno);
        return std::nullopt;
    }
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    std::array<uint8_t, protocol::kReplySize + 1> reply;
    for (;;) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) break;
        pollfd pfd{sock.get(), POLLIN, 0};
        int rc = poll(&pfd, 1, int(left.count()));
        if (rc < 0 && errno == EINTR) continue;
        if (rc <= 0) break;
        ssize_t got = recv(sock.get(), reply.data(), reply.size(), 0);
        if (got < 0) {
            if (errno == EINTR) continue;
            error = std::string("no answer from ") + host + ": " + strerror(errno);
            return std::nullopt;
        }
        auto info = protocol::decodeMachineReply(reply.data(), size_t(got));
        if (info) return info;
        error = "malformed reply of " + std::to_string(got) + " bytes";
        return std::nullopt;
    }
    error = "no answer from " + host + ":" + std::to_string(port) + " within " + std::to_string(timeoutMs) + " ms";
    return std::nullopt;
}

}  // namespace tavik::frontend
