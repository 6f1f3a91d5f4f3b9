#include "platform/safe_path.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <string>

namespace tavik::platform {
namespace {

constexpr int kDirectoryFlags = O_PATH | O_DIRECTORY | O_CLOEXEC;

// The kernel's own resolution with every symbolic link refused: fails with
// ELOOP when the path holds one (and with ENOSYS and the like where openat2
// is missing).
int openWithoutLinks(int dirFd, const char* path) {
    open_how how{};
    how.flags = kDirectoryFlags;
    how.resolve = RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS;
    return static_cast<int>(::syscall(SYS_openat2, dirFd, path, &how, sizeof how));
}

// Where a walk stands: `at` is the directory reached, owned by `owned` once
// the walk has left its starting point.
struct Position {
    int at;
    UniqueFd owned;
    void moveTo(UniqueFd fd) {
        owned = std::move(fd);
        at = owned.get();
    }
};

bool walk(Position& pos, std::string_view path, int& linksLeft);

// Steps from the directory reached into its entry `name` (one component).
bool step(Position& pos, const std::string& name, int& linksLeft) {
    UniqueFd next(::openat(pos.at, name.c_str(), kDirectoryFlags | O_NOFOLLOW));
    if (next) {
        pos.moveTo(std::move(next));
        return true;
    }
    if (errno != ENOTDIR && errno != ELOOP) return false;
    // Perhaps a symbolic link: it is judged, and read, through a descriptor
    // of the link itself, so that another link swapped in meanwhile is never
    // the one followed.
    UniqueFd link(::openat(pos.at, name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    struct stat st {};
    if (!link || ::fstat(link.get(), &st) != 0) return false;
    if (!S_ISLNK(st.st_mode)) {
        errno = ENOTDIR;
        return false;
    }
    if (!linkMayBeFollowed(st)) {
        errno = EACCES;
        return false;
    }
    if (--linksLeft < 0) {
        errno = ELOOP;
        return false;
    }
    std::string target(PATH_MAX, '\0');
    ssize_t length = ::readlinkat(link.get(), "", target.data(), target.size());
    if (length < 0) return false;
    if (static_cast<size_t>(length) == target.size()) {
        errno = ENAMETOOLONG;
        return false;
    }
    target.resize(static_cast<size_t>(length));
    // A relative target continues from the directory that holds the link.
    return walk(pos, target, linksLeft);
}

bool walk(Position& pos, std::string_view path, int& linksLeft) {
    if (!path.empty() && path.front() == '/') {
        UniqueFd root(::open("/", kDirectoryFlags));
        if (!root) return false;
        pos.moveTo(std::move(root));
    }
    size_t at = 0;
    while (at < path.size()) {
        size_t end = path.find('/', at);
        if (end == std::string_view::npos) end = path.size();
        std::string_view component = path.substr(at, end - at);
        at = end + 1;
        if (component.empty() || component == ".") continue;
        if (!step(pos, std::string(component), linksLeft)) return false;
    }
    return true;
}

}  // namespace

bool linkMayBeFollowed(const struct stat& st) { return st.st_uid == 0 || st.st_uid == ::geteuid(); }

UniqueFd openDirectoryAt(int dirFd, std::string_view path) {
    std::string text(path.empty() ? std::string_view(".") : path);
    int fd = openWithoutLinks(dirFd, text.c_str());
    if (fd >= 0) return UniqueFd(fd);
    if (errno != ELOOP && errno != ENOSYS && errno != EINVAL && errno != E2BIG && errno != EPERM) return UniqueFd();
    Position pos{dirFd, UniqueFd()};
    int linksLeft = kMaxLinks;
    if (!walk(pos, text, linksLeft)) return UniqueFd();
    if (pos.owned) return std::move(pos.owned);
    // Nothing but "." components: the starting directory itself.
    return UniqueFd(::openat(dirFd, ".", kDirectoryFlags));
}

UniqueFd openDirectory(std::string_view path) { return openDirectoryAt(AT_FDCWD, path); }

PathParts splitLast(std::string_view path) {
    size_t slash = path.rfind('/');
    if (slash == std::string_view::npos) return {std::string_view(), path};
    std::string_view directory = path.substr(0, slash);
    if (directory.empty()) directory = path.substr(0, 1);  // "/c": the root
    return {directory, path.substr(slash + 1)};
}

}  // namespace tavik::platform
