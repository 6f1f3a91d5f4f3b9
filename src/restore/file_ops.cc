#include "restore/file_ops.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/vfs.h>

#include <cerrno>
#include <ctime>

#include "log/ulog.h"
#include "platform/signals.h"
#include "transport/packet.h"

namespace tavik::restore {
namespace {

// The file-system type test: the name "nfs" of statvfs's base type there,
// the NFS super-block magic number of statfs here.
constexpr long kNfsSuperMagic = 0x6969;

}  // namespace

int lockFile(int fd, int lockType, uint16_t retryCount, uint16_t retryInterval) {
    struct flock lock {};
    lock.l_type = static_cast<short>(lockType == kReadLock ? F_RDLCK : F_WRLCK);
    lock.l_whence = SEEK_SET;
    lock.l_start = 0;
    lock.l_len = 0;  // to the end: the whole file
    for (unsigned attempt = 0; attempt < retryCount; ++attempt) {
        if (::fcntl(fd, F_SETLK, &lock) == 0) return 0;
        if (errno == EINTR) {
            platform::dispatchPendingSignals();
        } else if (errno != EACCES && errno != EAGAIN) {
            return -1;
        }
        transport::scaledSleep(retryInterval);
    }
    return -2;
}

int setFileTimes(const char* path, uint32_t atime, uint32_t mtime) {
    timespec times[2]{};
    times[0].tv_sec = static_cast<time_t>(atime);
    times[1].tv_sec = static_cast<time_t>(mtime);
    return ::utimensat(AT_FDCWD, path, times, 0);
}

int skip_nfs(const char* path) {
    struct statfs fs {};
    if (::statfs(path, &fs) != 0) {
        ulog(MSG_FAILED_STATVFS, "(skip_nfs) ", path, errText());
        return -1;
    }
    return fs.f_type == kNfsSuperMagic ? 1 : 0;
}

}  // namespace tavik::restore
