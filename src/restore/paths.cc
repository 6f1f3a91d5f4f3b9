#include "restore/paths.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <new>

#include "log/ulog.h"
#include "platform/fd_attributes.h"
#include "platform/safe_path.h"
#include "platform/signals.h"
#include "restore/file_ops.h"

namespace tavik::restore {
namespace {

constexpr mode_t kNewDirectoryMode = 0755;
constexpr const char* kSuffix = ".AS";
constexpr size_t kSuffixLength = 3;

bool isDigit(char c) { return c >= '0' && c <= '9'; }

// The decimal digits plus one, without leading zeros ("007" gives "8",
// "99" gives "100"); done on the text so no length of digits overflows.
std::string incremented(std::string_view digits) {
    size_t first = digits.find_first_not_of('0');
    std::string n = first == std::string_view::npos ? std::string("0") : std::string(digits.substr(first));
    size_t i = n.size();
    while (i > 0) {
        --i;
        if (n[i] != '9') {
            ++n[i];
            return n;
        }
        n[i] = '0';
    }
    return "1" + n;
}

}  // namespace

bool PathBuffer::assign(std::string_view name) {
    if (name.size() > protocol::kMaxNameLength || name.find('\0') != std::string_view::npos) {
        clear();
        return false;
    }
    std::memcpy(text_.data(), name.data(), name.size());
    text_[name.size()] = '\0';
    return true;
}

size_t PathBuffer::size() const { return ::strnlen(text_.data(), text_.size()); }

bool isOwnMaking(int fd, mode_t type) {
    struct stat st {};
    if (::fstat(fd, &st) != 0) return false;
    bool own = (st.st_mode & S_IFMT) == type && st.st_uid == ::geteuid() && (type == S_IFDIR || st.st_nlink == 1);
    if (!own) errno = EEXIST;
    return own;
}

bool Locator::find(std::string_view path, Location& out) {
    platform::PathParts parts = platform::splitLast(path);
    out.name = parts.name.empty() ? std::string(".") : std::string(parts.name);
    if (!last_ || parts.directory != lastDirectory_) {
        platform::UniqueFd dir = platform::openDirectory(parts.directory);
        if (!dir) {
            forget();
            return false;
        }
        remember(dir.get());
        last_ = std::make_shared<const platform::UniqueFd>(std::move(dir));
        lastDirectory_.assign(parts.directory);
    }
    out.directory = last_;
    return true;
}

void Locator::forget() {
    last_.reset();
    lastDirectory_.clear();
}

void Locator::remember(int dirFd) {
    struct stat st {};
    if (::fstat(dirFd, &st) != 0) return;
    for (const auto& known : fileSystems_)
        if (known.first == st.st_dev) return;
    platform::UniqueFd syncable(::openat(dirFd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (syncable) fileSystems_.emplace_back(st.st_dev, std::move(syncable));
}

int Locator::syncAll() const {
    int failure = 0;
    for (const auto& fs : fileSystems_) {
        if (::syncfs(fs.second.get()) != 0 && failure == 0) failure = errno;
    }
    errno = failure;
    return failure == 0 ? 0 : -1;
}

int make_path(PathBuffer& path, const Owner& owner) {
    constexpr const char* kPrefix = "(make_path) ";
    char* name = path.data();
    size_t length = path.size();
    platform::UniqueFd here;
    int at = AT_FDCWD;
    if (name[0] == '/') {
        here.reset(::open("/", O_PATH | O_DIRECTORY | O_CLOEXEC));
        at = here.get();
    }
    // A directory that exists but cannot be entered (not a directory, or
    // reached through a link that is not followed) fails the next one to be
    // made, with the name cut there.
    int unreachable = 0;
    size_t start = name[0] == '/' ? 1 : 0;
    for (size_t i = 1; i < length; ++i) {  // a leading "/" is not a directory to make
        if (name[i] != '/') continue;
        std::string component(name + start, i - start);
        start = i + 1;
        if (component.empty() || component == ".") continue;
        name[i] = '\0';
        if (unreachable != 0) {
            errno = unreachable;
            ulog(MSG_FAILED_MAKE_DIRECTORY, kPrefix, name, errText());
            return -1;  // the name stays cut at the component that failed
        }
        if (::mkdirat(at, component.c_str(), kNewDirectoryMode) == 0) {
            platform::UniqueFd made(::openat(at, component.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
            if (!made || !isOwnMaking(made.get(), S_IFDIR) ||
                platform::changeOwner(made.get(), owner.uid, owner.gid) != 0) {
                ulog(MSG_FAILED_CHANGE_OWNER, kPrefix, name, errText());
                return -1;
            }
            here = std::move(made);
        } else if (errno != EEXIST) {
            ulog(MSG_FAILED_MAKE_DIRECTORY, kPrefix, name, errText());
            return -1;
        } else if (platform::UniqueFd next = platform::openDirectoryAt(at, component)) {
            here = std::move(next);
        } else {
            unreachable = errno;
        }
        at = here.get();
        name[i] = '/';
    }
    return 0;
}

int make_dir(PathBuffer& path, const Owner& owner) {
    constexpr const char* kPrefix = "(make_dir) ";
    const bool verbose = logVerbose();
    struct stat st {};
    int r = ::stat(path.c_str(), &st);
    int statErrno = errno;
    if (verbose) {
        std::printf("%sstat(%s): ret=%d\n", kPrefix, path.c_str(), r);
        std::fflush(stdout);
    }
    if (r == 0) {
        int a = ::access(path.c_str(), W_OK | X_OK);
        if (a != 0) ulog(MSG_FAILED_ACCESS_DIRECTORY, kPrefix, path.c_str(), errText());
        if (verbose) {
            std::printf("access(%s): ret = %d\n", path.c_str(), a);
            std::fflush(stdout);
        }
        return a == 0 ? 0 : -1;
    }
    if (statErrno != ENOENT) {
        errno = statErrno;
        ulog(MSG_FAILED_GET_ATTRIBUTES_STAT, kPrefix, path.c_str(), errText());
        return -1;
    }
    if (verbose) {
        std::printf("%smake_path(%s)\n", kPrefix, path.c_str());
        std::fflush(stdout);
    }
    if (make_path(path, owner) != 0) {
        ulog(MSG_FAILED_CREATE_RESTORE_DIRECTORY, kPrefix, path.c_str());
        return -1;
    }
    return 0;
}

int make_restore_path(const std::string& root, const Owner& owner, const std::function<bool()>& becomeUser) {
    constexpr const char* kPrefix = "(make_restore_path) ";
    platform::defaultSignal(SIGCHLD);  // so that the child's status can be collected
    pid_t child = ::fork();
    if (child < 0) {
        ulog(MSG_FAILED_FORK_JOB_ABORT, kPrefix, errText());
        platform::ignoreSignal(SIGCHLD);
        return -1;
    }
    if (child == 0) {
        if (!becomeUser()) ::_exit(1);
        PathBuffer path;
        if (!path.assign(root)) ::_exit(2);
        ::_exit(make_dir(path, owner) == 0 ? 0 : 2);
    }
    int status = 0;
    for (;;) {
        pid_t r = ::waitpid(child, &status, 0);
        if (r == child) break;
        if (r < 0 && errno == EINTR) {
            platform::dispatchPendingSignals();
            continue;
        }
        ulog(MSG_FAILED_WAIT_PID, kPrefix, static_cast<int>(child), errText());
        platform::ignoreSignal(SIGCHLD);
        return -1;
    }
    platform::ignoreSignal(SIGCHLD);
    if (!WIFEXITED(status)) return -1;
    return WEXITSTATUS(status);
}

bool renameRule(PathBuffer& path) {
    std::string name = path.c_str();
    size_t end = name.size();
    size_t digitsAt = end;
    while (digitsAt > 0 && isDigit(name[digitsAt - 1])) --digitsAt;
    std::string next;
    bool counted = digitsAt < end && digitsAt >= kSuffixLength &&
                   name.compare(digitsAt - kSuffixLength, kSuffixLength, kSuffix) == 0;
    // A name of digits alone, or with fewer than two characters before the
    // last non-digit, gets a suffix of its own, as does any name without one.
    if (counted) {
        next = name.substr(0, digitsAt) + incremented(std::string_view(name).substr(digitsAt));
    } else {
        next = name + kSuffix + "1";
    }
    if (next.size() > protocol::kMaxNameLength) return false;
    return path.assign(next);
}

void HardLinkTable::reset() {
    entries_.clear();
    entries_.shrink_to_fit();
    count_ = 0;
    reportOnce_ = true;
}

int HardLinkTable::postml(PathBuffer& path, const protocol::RestoreAttributes& a, const Owner& owner, Locator& locator,
                          bool verbose) {
    constexpr const char* kPrefix = "(postml) ";
    if (count_ > 0 && count_ != kCapacity) {
        for (size_t i = 0; i < count_; ++i) {
            const Entry& e = entries_[i];
            if (e.ino != a.ino || e.dev != a.dev) continue;
            if (verbose) {
                std::printf("%s%s linked to %s\n", kPrefix, e.name.c_str(), path.c_str());
                std::fflush(stdout);
            }
            // Both names are reached without untrusted links; the earlier
            // name itself is linked, never followed.
            Location from, to;
            auto linked = [&] {
                if (!locator.find(e.name, from) || !locator.find(path.c_str(), to)) return false;
                return ::linkat(from.dir(), from.base(), to.dir(), to.base(), 0) == 0;
            };
            if (locator.find(path.c_str(), to)) ::unlinkat(to.dir(), to.base(), 0);
            if (!linked()) {
                if (make_path(path, owner) != 0) {
                    ulog(MSG_CANNOT_CREATE_PATH, kPrefix, path.c_str(), errText());
                    return -1;
                }
                locator.forget();
                if (!linked()) {
                    ulog(MSG_CAN_T_CREATE_HARDLINK, kPrefix, e.name.c_str(), path.c_str(), errText());
                    return -1;
                }
            }
            setFileTimesAt(to.dir(), to.base(), a.atime, a.mtime);  // a failure here does not undo the link
            return 1;
        }
    }
    bool allocated = false;
    if (count_ != kCapacity) {
        try {
            entries_.push_back(Entry{a.dev, a.ino, std::string(path.c_str())});
            allocated = true;
        } catch (const std::bad_alloc&) {
            allocated = false;
        }
    }
    if (allocated) {
        ++count_;
        return 0;
    }
    if (reportOnce_) {
        if (count_ == kCapacity) {
            ulog(MSG_TOO_MANY_LINKS, kPrefix);
        } else {
            errno = ENOMEM;
            ulog(MSG_NO_MEMORY_LINKS, kPrefix);
        }
    }
    count_ = kCapacity;
    reportOnce_ = false;
    return -1;
}

}  // namespace tavik::restore
