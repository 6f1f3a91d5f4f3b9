// Move-only owners of kernel resources: descriptors and directory streams.
//
// Destructors close quietly and never throw; callers that must report a
// failed close call close() themselves and look at the result.
#pragma once

#include <dirent.h>
#include <unistd.h>

#include <utility>

namespace tavik::platform {

class UniqueFd {
public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : fd_(fd) {}
    ~UniqueFd() { reset(); }
    UniqueFd(UniqueFd&& other) noexcept : fd_(other.release()) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept {
        if (this != &other) reset(other.release());
        return *this;
    }
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;

    int get() const { return fd_; }
    bool valid() const { return fd_ >= 0; }
    explicit operator bool() const { return valid(); }
    int release() { return std::exchange(fd_, -1); }
    void reset(int fd = -1) {
        if (fd_ >= 0) ::close(fd_);
        fd_ = fd;
    }
    // Closes now and returns close()'s result (0 when nothing was open).
    int close() {
        if (fd_ < 0) return 0;
        return ::close(std::exchange(fd_, -1));
    }

private:
    int fd_ = -1;
};

class UniqueDir {
public:
    UniqueDir() = default;
    explicit UniqueDir(DIR* dir) : dir_(dir) {}
    ~UniqueDir() { reset(); }
    UniqueDir(UniqueDir&& other) noexcept : dir_(std::exchange(other.dir_, nullptr)) {}
    UniqueDir& operator=(UniqueDir&& other) noexcept {
        if (this != &other) reset(std::exchange(other.dir_, nullptr));
        return *this;
    }
    UniqueDir(const UniqueDir&) = delete;
    UniqueDir& operator=(const UniqueDir&) = delete;

    DIR* get() const { return dir_; }
    explicit operator bool() const { return dir_ != nullptr; }
    void reset(DIR* dir = nullptr) {
        if (dir_) ::closedir(dir_);
        dir_ = dir;
    }

private:
    DIR* dir_ = nullptr;
};

}  // namespace tavik::platform
