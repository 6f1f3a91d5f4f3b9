// Setting a file's access and modification times from the 32-bit times of
// the restore record: utimensat's result (0, or -1 with errno). The lock
// test and the NFS test are the backup's lockFile and skip_nfs.
#pragma once

#include <cstdint>

namespace tavik::restore {

int setFileTimes(const char* path, uint32_t atime, uint32_t mtime);

}  // namespace tavik::restore
