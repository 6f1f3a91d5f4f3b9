// A directory read straight with getdents64 into a buffer of its own.
//
// The backup reads every directory twice and then restores its access
// time. glibc's opendir examines the directory once more after opening it,
// and the reset costs another call per directory; here the directory is
// opened with O_NOATIME where the kernel grants it (the owner, the
// superuser), so that reading it leaves the access time alone and nothing
// needs resetting, and nothing else is asked of the kernel.
#pragma once

#include <dirent.h>

#include <cstddef>
#include <memory>

#include "platform/fd.h"

namespace tavik::platform {

class DirStream {
public:
    struct Entry {
        const char* name;
        unsigned char type;  // DT_* as the file system reports it, DT_UNKNOWN when it does not

        // Whether the entry may be a directory, or lead to one when links
        // are followed: only then need a walk that looks for directories
        // examine it.
        bool mayBeDirectory(bool followLinks) const {
            return type == DT_DIR || type == DT_UNKNOWN || (followLinks && type == DT_LNK);
        }
    };

    // False with errno set when the directory cannot be opened. With
    // `keepAccessTime` the directory is read without touching its access time
    // if the kernel allows it (see accessTimeKept).
    bool open(const char* path, bool keepAccessTime);
    int fd() const { return fd_.get(); }
    bool accessTimeKept() const { return accessTimeKept_; }
    // The next entry ("." and ".." included), or null at the end (errno 0)
    // or on a read error (errno set).
    const Entry* next();
    // Back to the first entry; false with errno set when that fails.
    bool rewind();
    void close() { fd_.reset(); }

private:
    static constexpr size_t kBufferSize = 32768;
    UniqueFd fd_;
    std::unique_ptr<char[]> buffer_;
    size_t at_ = 0;
    size_t filled_ = 0;
    bool accessTimeKept_ = false;
    Entry entry_{};
};

}  // namespace tavik::platform
