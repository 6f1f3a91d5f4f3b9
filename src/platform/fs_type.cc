#include "platform/fs_type.h"

#include <sys/vfs.h>

namespace tavik::platform {

int isNfsPath(const char* path) {
    struct statfs fs {};
    if (::statfs(path, &fs) != 0) return -1;
    return static_cast<long>(fs.f_type) == kNfsSuperMagic ? 1 : 0;
}

}  // namespace tavik::platform
