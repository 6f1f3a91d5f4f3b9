// Setting a file's access and modification times from the 32-bit times of
// the restore record, on a descriptor of the file or on a name in a
// directory (a symbolic link itself is never followed): 0, or -1 with
// errno. The lock test and the NFS test are platform::lockFile and
// skip_nfs.
#pragma once

#include <cstdint>

namespace tavik::restore {

int setFileTimes(int fd, uint32_t atime, uint32_t mtime);
int setFileTimesAt(int dirFd, const char* name, uint32_t atime, uint32_t mtime);

}  // namespace tavik::restore
