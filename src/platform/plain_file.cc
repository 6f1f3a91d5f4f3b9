#include "platform/plain_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace tavik::platform {
namespace {

// One attempt: the existing file, or (when `flags` ask for it) a new one.
int openOnce(const char* path, int base, int flags, mode_t mode, bool& made) {
    if (!(flags & O_EXCL)) {
        int fd = ::open(path, base);
        if (fd >= 0 || errno != ENOENT || !(flags & O_CREAT)) return fd;
    }
    int fd = ::open(path, base | O_CREAT | O_EXCL, mode);
    made = fd >= 0;
    return fd;
}

}  // namespace

UniqueFd openPlainFile(const char* path, int flags, mode_t mode, bool* created) {
    const int base = (flags & ~(O_CREAT | O_EXCL | O_TRUNC)) | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    bool made = false;
    if (created) *created = false;
    int raw = openOnce(path, base, flags, mode, made);
    // Another process made it between the two opens: open what it made.
    if (raw < 0 && errno == EEXIST && !(flags & O_EXCL)) raw = openOnce(path, base, flags, mode, made);
    UniqueFd fd(raw);
    if (!fd) return fd;

    struct stat st;
    int refusal = 0;
    if (::fstat(fd.get(), &st) != 0)
        refusal = errno;
    else if (S_ISDIR(st.st_mode))
        refusal = EISDIR;
    else if (!S_ISREG(st.st_mode))
        refusal = EINVAL;
    else if (st.st_nlink != 1)
        refusal = EMLINK;
    else if ((flags & O_TRUNC) && ::ftruncate(fd.get(), 0) != 0)
        refusal = errno;
    if (refusal != 0) {
        fd.reset();
        errno = refusal;
        return fd;
    }
    if (created) *created = made;
    return fd;
}

}  // namespace tavik::platform
