// Small file-system services of the restore: the whole-file lock test with
// the job's retries, setting a file's access and modification times, and the
// NFS test of a file's file system.
//
// lockFile: 0 locked, -1 error (errno set), -2 still locked by another
// process after every attempt (a retry count of 0 makes no attempt). The
// sleep between attempts is divided by settings().timeDivisor.
// setFileTimes: utime's result (0 or -1 with errno).
// skip_nfs: 1 on NFS, 0 on another file system, -1 when the file system
// cannot be examined (logged with the prefix "(skip_nfs) ").
#pragma once

#include <cstdint>

namespace tavik::restore {

inline constexpr int kReadLock = 1;
inline constexpr int kWriteLock = 2;

int lockFile(int fd, int lockType, uint16_t retryCount, uint16_t retryInterval);
int setFileTimes(const char* path, uint32_t atime, uint32_t mtime);
int skip_nfs(const char* path);

}  // namespace tavik::restore
