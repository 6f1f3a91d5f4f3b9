#include "restore/file_ops.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <ctime>


namespace tavik::restore {

int setFileTimes(const char* path, uint32_t atime, uint32_t mtime) {
    timespec times[2]{};
    times[0].tv_sec = static_cast<time_t>(atime);
    times[1].tv_sec = static_cast<time_t>(mtime);
    return ::utimensat(AT_FDCWD, path, times, 0);
}

}  // namespace tavik::restore
