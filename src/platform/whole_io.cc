#include "platform/whole_io.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

#include "platform/signals.h"

namespace tavik::platform {

bool writeAll(int fd, const void* data, size_t length, bool runDeferredSignals) {
    const auto* at = static_cast<const uint8_t*>(data);
    while (length > 0) {
        ssize_t n = ::write(fd, at, length);
        if (n < 0 && errno == EINTR) {
            if (runDeferredSignals) dispatchPendingSignals();
            continue;
        }
        if (n <= 0) return false;
        at += n;
        length -= size_t(n);
    }
    return true;
}

bool sendAll(int fd, const void* data, size_t length) {
    const auto* at = static_cast<const uint8_t*>(data);
    while (length > 0) {
        ssize_t n = ::send(fd, at, length, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        at += n;
        length -= size_t(n);
    }
    return true;
}

ssize_t readAll(int fd, void* data, size_t length) {
    auto* at = static_cast<uint8_t*>(data);
    size_t got = 0;
    while (got < length) {
        ssize_t n = ::read(fd, at + got, length - got);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return -1;
        if (n == 0) break;
        got += size_t(n);
    }
    return ssize_t(got);
}

ssize_t preadAll(int fd, void* data, size_t length, off_t offset) {
    auto* at = static_cast<uint8_t*>(data);
    size_t got = 0;
    while (got < length) {
        ssize_t n = ::pread(fd, at + got, length - got, offset + off_t(got));
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return -1;
        if (n == 0) break;
        got += size_t(n);
    }
    return ssize_t(got);
}

Received recvSome(int fd, void* data, size_t length, int timeoutMs, size_t& got) {
    got = 0;
    for (;;) {
        pollfd p{fd, POLLIN, 0};
        int ready = ::poll(&p, 1, timeoutMs);
        if (ready < 0 && errno == EINTR) continue;
        if (ready < 0) return Received::Failed;
        if (ready == 0) return Received::TimedOut;
        ssize_t n = ::recv(fd, data, length, 0);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return Received::Failed;
        if (n == 0) return Received::Closed;
        got = size_t(n);
        return Received::Data;
    }
}

Received recvAll(int fd, void* data, size_t length, int timeoutMs) {
    auto* at = static_cast<uint8_t*>(data);
    for (size_t done = 0; done < length;) {
        size_t got = 0;
        Received r = recvSome(fd, at + done, length - done, timeoutMs, got);
        if (r != Received::Data) return r;
        done += got;
    }
    return Received::Data;
}

}  // namespace tavik::platform
