#include "platform/read_open.h"

#include <fcntl.h>

#include <cerrno>

#include "platform/signals.h"

namespace tavik::platform {

ReadOpen openToRead(int dirFd, const char* name, bool keepAccessTime, int extraFlags) {
    const int kFlags = O_RDONLY | O_NOCTTY | O_NONBLOCK | O_CLOEXEC | extraFlags;
    ReadOpen r;
    if (keepAccessTime) {
        r.fd = ::openat(dirFd, name, kFlags | O_NOATIME);
        if (r.fd >= 0) {
            r.accessTimeKept = true;
            return r;
        }
        if (errno != EPERM) return r;
    }
    r.fd = ::openat(dirFd, name, kFlags);
    return r;
}

ssize_t readvBlocking(int fd, const iovec* iov, int count) {
    for (;;) {
        ssize_t m = ::readv(fd, iov, count);
        if (m >= 0) return m;
        if (errno == EINTR) {
            dispatchPendingSignals();
            continue;
        }
        if (errno != EAGAIN) return m;
        int flags = ::fcntl(fd, F_GETFL);
        if (flags < 0 || !(flags & O_NONBLOCK) || ::fcntl(fd, F_SETFL, flags & ~O_NONBLOCK) != 0) {
            errno = EAGAIN;
            return -1;
        }
    }
}

ssize_t readBlocking(int fd, void* buffer, size_t length) {
    iovec one{buffer, length};
    return readvBlocking(fd, &one, 1);
}

}  // namespace tavik::platform
