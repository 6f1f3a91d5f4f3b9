#include "platform/fd_attributes.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

namespace tavik::platform {
namespace {

// The /proc name of a descriptor ("/proc/self/fd/" and at most ten digits).
struct ProcName {
    char text[32];
    explicit ProcName(int fd) { std::snprintf(text, sizeof text, "/proc/self/fd/%d", fd); }
};

}  // namespace

int changeMode(int fd, mode_t mode) {
    if (::fchmod(fd, mode) == 0) return 0;
    if (errno != EBADF) return -1;
    return ::chmod(ProcName(fd).text, mode);
}

int changeOwner(int fd, uid_t uid, gid_t gid) { return ::fchownat(fd, "", uid, gid, AT_EMPTY_PATH); }

int changeTimes(int fd, const timespec times[2]) {
    if (::futimens(fd, times) == 0) return 0;
    if (errno != EBADF) return -1;
    return ::utimensat(AT_FDCWD, ProcName(fd).text, times, 0);
}

}  // namespace tavik::platform
