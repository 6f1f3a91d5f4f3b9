#include "platform/tempfile.h"

#include <cstdlib>
#include <unistd.h>
#include <utility>
#include <vector>

namespace tavik::platform {

TempFile::TempFile(const std::string& prefix) {
    std::vector<char> name(prefix.begin(), prefix.end());
    for (char c : std::string("XXXXXX")) name.push_back(c);
    name.push_back('\0');
    int fd = ::mkstemp(name.data());
    if (fd < 0) return;
    fd_.reset(fd);
    path_.assign(name.data());
}

TempFile::~TempFile() {
    if (!path_.empty()) ::unlink(path_.c_str());
}

TempFile::TempFile(TempFile&& other) noexcept
    : fd_(std::move(other.fd_)), path_(std::exchange(other.path_, std::string())) {}

TempFile& TempFile::operator=(TempFile&& other) noexcept {
    if (this != &other) {
        if (!path_.empty()) ::unlink(path_.c_str());
        fd_ = std::move(other.fd_);
        path_ = std::exchange(other.path_, std::string());
    }
    return *this;
}

std::string TempFile::keep() {
    fd_.reset();
    return std::exchange(path_, std::string());
}

}  // namespace tavik::platform
