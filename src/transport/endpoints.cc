#include "transport/endpoints.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "log/ulog.h"
#include "platform/fd.h"
#include "transport/packet.h"

namespace tavik::transport {
namespace {

sockaddr_in anyAddress(uint16_t port) {
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_ANY);
    addr.sin_port = htons(port);
    return addr;
}

// A bind failure is reported in the log and on standard output.
void reportBindFailure(const char* prefix) {
    char text[kLogBufferSize];
    snprintf(text, sizeof text, MSG_FAILED_BIND_SOCKET_ADDRESS, prefix, errText());
    ulogText(text);
    printf("%s\n", text);
    fflush(stdout);
}

int setReuseAddress(int sock) {
    int one = 1;
    return setsockopt(sock, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
}

int rawBufSize(int sock, int kind) {
    int value = 0;
    socklen_t len = sizeof value;
    if (getsockopt(sock, SOL_SOCKET, kind, &value, &len) != 0) return -1;
    return value;
}

}  // namespace

int udpOpen(uint16_t port) {
    constexpr const char* kPrefix = "(udpOpen) ";
    platform::UniqueFd sock(socket(AF_INET, SOCK_DGRAM, 0));
    if (!sock) {
        ulog(MSG_FAILED_CREATE_SOCKET, kPrefix, errText());
        return -1;
    }
    sockaddr_in addr = anyAddress(port);
    if (bind(sock.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
        reportBindFailure(kPrefix);
        return -1;
    }
    return sock.release();
}

int tcpOpen(uint16_t& port) {
    constexpr const char* kPrefix = "(tcpOpen) ";
    platform::UniqueFd sock(socket(AF_INET, SOCK_STREAM, 0));
    if (!sock) {
        ulog(MSG_FAILED_CREATE_SOCKET, kPrefix, errText());
        return -1;
    }
    if (setReuseAddress(sock.get()) != 0)
        ulog(MSG_FAILED_SETSOCKOPT, kPrefix, sock.get(), "SO_REUSEADDR", 1, errText());
    sockaddr_in addr = anyAddress(port);
    if (bind(sock.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
        reportBindFailure(kPrefix);
        return -1;
    }
    if (port == 0) {
        sockaddr_in bound{};
        socklen_t len = sizeof bound;
        if (getsockname(sock.get(), reinterpret_cast<sockaddr*>(&bound), &len) != 0) {
            ulog(MSG_FAILED_GETSOCKNAME, kPrefix, sock.get(), errText());
            return -1;
        }
        port = ntohs(bound.sin_port);
    }
    // Calls are taken from the queue at once and handed to processes of
    // their own: the kernel's largest queue rides out a burst of them.
    if (listen(sock.get(), SOMAXCONN) != 0) {
        ulog(MSG_FAILED_LISTEN_SOCKET, kPrefix, errText());
        return -1;
    }
    return sock.release();
}

int tcpAccept(int listening) {
    constexpr const char* kPrefix = "(tcpAccept) ";
    int sock;
    do {
        sock = accept(listening, nullptr, nullptr);
    } while (sock < 0 && errno == EINTR);
    if (sock < 0) {
        ulog(MSG_FAILED_ACCEPT, kPrefix, errText());
        return -1;
    }
    if (setReuseAddress(sock) != 0)
        ulog("%sFailed to setsockopt(%d, SO_REUSEADDR), %s", kPrefix, sock, errText());
    return sock;
}

int getBufSize(int sock, int kind) {
    int reported = rawBufSize(sock, kind);
    return reported < 0 ? -1 : requestedFromReport(reported);
}

int setReceiveTimeout(int sock, unsigned seconds, int divisor) {
    long long micros = static_cast<long long>(seconds) * 1000000 / (divisor > 0 ? divisor : 1);
    if (seconds != 0 && micros < 1000) micros = 1000;
    timeval tv{};
    tv.tv_sec = static_cast<time_t>(micros / 1000000);
    tv.tv_usec = static_cast<suseconds_t>(micros % 1000000);
    return setsockopt(sock, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
}

int keepAlive(int sock) {
    // Idle for 5 minutes, then 4 probes 30 s apart.
    int on = 1, idle = 300, interval = 30, count = 4;
    return setsockopt(sock, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on) != 0 ||
                   setsockopt(sock, IPPROTO_TCP, TCP_KEEPIDLE, &idle, sizeof idle) != 0 ||
                   setsockopt(sock, IPPROTO_TCP, TCP_KEEPINTVL, &interval, sizeof interval) != 0 ||
                   setsockopt(sock, IPPROTO_TCP, TCP_KEEPCNT, &count, sizeof count) != 0
               ? -1
               : 0;
}

int sendAtOnce(int sock) {
    int on = 1;
    return setsockopt(sock, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

int setBufSize(int sock, int kind, int size) {
    if (size == 0) return 0;
    if (size < 0) {
        int initial, largest;
        if (probeBufSize(kind, initial, largest) != 0) return -1;
        size = largest;
    } else if (size < 4096) {
        size = 4096;
    }
    int previous = getBufSize(sock, kind);
    if (setsockopt(sock, SOL_SOCKET, kind, &size, sizeof size) != 0) return -1;
    if (getBufSize(sock, kind) == size) return 0;
    if (previous > 0) setsockopt(sock, SOL_SOCKET, kind, &previous, sizeof previous);
    return -1;
}

int probeBufSize(int kind, int& initialOut, int& largestOut) {
    initialOut = largestOut = -1;
    platform::UniqueFd scratch(socket(AF_INET, SOCK_STREAM, 0));
    if (!scratch) return -1;
    initialOut = getBufSize(scratch.get(), kind);
    if (initialOut == -1) return -1;
    for (int candidate = 2 * initialOut; candidate < 65536; candidate += 1024) {
        if (setBufSize(scratch.get(), kind, candidate) != 0) break;
    }
    largestOut = getBufSize(scratch.get(), kind);
    return largestOut == -1 ? -1 : 0;
}

}  // namespace tavik::transport
