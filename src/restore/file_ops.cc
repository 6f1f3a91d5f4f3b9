#include "restore/file_ops.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <ctime>

#include "platform/fd_attributes.h"

namespace tavik::restore {
namespace {

struct RecordTimes {
    timespec t[2]{};
    RecordTimes(uint32_t atime, uint32_t mtime) {
        t[0].tv_sec = static_cast<time_t>(atime);
        t[1].tv_sec = static_cast<time_t>(mtime);
    }
};

}  // namespace

int setFileTimes(int fd, uint32_t atime, uint32_t mtime) {
    return platform::changeTimes(fd, RecordTimes(atime, mtime).t);
}

int setFileTimesAt(int dirFd, const char* name, uint32_t atime, uint32_t mtime) {
    return ::utimensat(dirFd, name, RecordTimes(atime, mtime).t, AT_SYMLINK_NOFOLLOW);
}

}  // namespace tavik::restore
