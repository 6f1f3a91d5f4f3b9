// The file-system type of a path, for the backup's NFS skip.
//
// The agent was written against statvfs's base type name ("nfs"); Linux has
// no such name in statvfs, so the test maps it to statfs's f_type and the
// NFS super-block magic number. Returns 1 for NFS, 0 for another type, and
// -1 with errno set when statfs fails.
#pragma once

namespace tavik::platform {

inline constexpr long kNfsSuperMagic = 0x6969;

int isNfsPath(const char* path);

}  // namespace tavik::platform
