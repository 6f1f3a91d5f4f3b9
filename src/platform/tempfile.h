// A temporary file made with mkstemp (no name race) and removed when its
// owner goes away, on every exit path that unwinds.
#pragma once

#include <string>

#include "platform/fd.h"

namespace tavik::platform {

class TempFile {
public:
    TempFile() = default;
    // Creates "<prefix>XXXXXX"; valid() tells whether it worked.
    explicit TempFile(const std::string& prefix);
    ~TempFile();
    TempFile(TempFile&& other) noexcept;
    TempFile& operator=(TempFile&& other) noexcept;
    TempFile(const TempFile&) = delete;
    TempFile& operator=(const TempFile&) = delete;

    bool valid() const { return fd_.valid(); }
    int fd() const { return fd_.get(); }
    const std::string& path() const { return path_; }
    // Keeps the file on disk: the caller takes over its removal.
    std::string keep();

private:
    UniqueFd fd_;
    std::string path_;
};

}  // namespace tavik::platform
