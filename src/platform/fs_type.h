// The file-system type of a path, for the NFS skip of the backup, the
// restore and the compare.
//
// The agent was written against statvfs's base type name ("nfs"); Linux has
// no such name in statvfs, so the test maps it to statfs's f_type and the
// NFS super-block magic number. Returns 1 for NFS, 0 for another type, and
// -1 with errno set when statfs fails.
#pragma once

#include <sys/types.h>

#include <optional>

namespace tavik::platform {

inline constexpr long kNfsSuperMagic = 0x6969;

int isNfsPath(const char* path);

// isNfsPath for the directories of one job, which remembers the device it
// last found local: a tree on one local file system costs one statfs.
class NfsProbe {
public:
    int isNfs(const char* path, dev_t dev) {
        if (localDev_ == dev) return 0;
        int r = isNfsPath(path);
        if (r == 0) localDev_ = dev;
        return r;
    }

private:
    std::optional<dev_t> localDev_;
};

}  // namespace tavik::platform
