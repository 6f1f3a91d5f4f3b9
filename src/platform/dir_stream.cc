#include "platform/dir_stream.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>

namespace tavik::platform {
namespace {

// Field offsets of the kernel's directory record (struct dirent64).
constexpr size_t kReclenAt = offsetof(struct dirent64, d_reclen);
constexpr size_t kTypeAt = offsetof(struct dirent64, d_type);
constexpr size_t kNameAt = offsetof(struct dirent64, d_name);

}  // namespace

bool DirStream::open(const char* path, bool keepAccessTime) {
    constexpr int kFlags = O_RDONLY | O_DIRECTORY | O_NONBLOCK | O_CLOEXEC;
    accessTimeKept_ = false;
    at_ = filled_ = 0;
    int fd = -1;
    if (keepAccessTime) {
        fd = ::open(path, kFlags | O_NOATIME);
        if (fd >= 0) accessTimeKept_ = true;
        else if (errno != EPERM) return false;
    }
    if (fd < 0) fd = ::open(path, kFlags);
    if (fd < 0) return false;
    fd_.reset(fd);
    if (!buffer_) buffer_ = std::make_unique<char[]>(kBufferSize);
    return true;
}

const DirStream::Entry* DirStream::next() {
    if (at_ >= filled_) {
        ssize_t n;
        do {
            n = ::getdents64(fd_.get(), buffer_.get(), kBufferSize);
        } while (n < 0 && errno == EINTR);
        if (n <= 0) {
            if (n == 0) errno = 0;
            at_ = filled_ = 0;
            return nullptr;
        }
        at_ = 0;
        filled_ = size_t(n);
    }
    const char* record = buffer_.get() + at_;
    uint16_t length;
    std::memcpy(&length, record + kReclenAt, sizeof length);
    // A record the kernel could not have written ends the listing.
    if (length <= kNameAt || length > filled_ - at_ || std::memchr(record + kNameAt, 0, length - kNameAt) == nullptr) {
        errno = EIO;
        at_ = filled_ = 0;
        return nullptr;
    }
    entry_.name = record + kNameAt;
    entry_.type = static_cast<unsigned char>(record[kTypeAt]);
    at_ += length;
    return &entry_;
}

bool DirStream::rewind() {
    at_ = filled_ = 0;
    return ::lseek(fd_.get(), 0, SEEK_SET) == 0;
}

}  // namespace tavik::platform
