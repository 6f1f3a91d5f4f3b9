// What a file is, whatever name it was reached by: the device and inode
// numbers that stat reports. Two names with equal identities are one file;
// a name whose identity changed now names another file.
#pragma once

#include <sys/stat.h>

namespace tavik::platform {

struct FileIdentity {
    dev_t dev = 0;
    ino_t ino = 0;
    bool operator==(const FileIdentity&) const = default;
};

inline FileIdentity identityOf(const struct stat& st) { return {st.st_dev, st.st_ino}; }

}  // namespace tavik::platform
