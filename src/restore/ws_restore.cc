#include "restore/ws_restore.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <functional>
#include <string>

#include "log/ulog.h"
#include "platform/fd.h"
#include "platform/fd_attributes.h"
#include "platform/file_lock.h"
#include "platform/signals.h"
#include "platform/wire_stat.h"
#include "restore/file_ops.h"
#include "transport/packet.h"

namespace tavik::restore {
namespace {

constexpr const char* kPrefix = "(ws_restore) ";
constexpr const char* kAbortPrefix = "(ws_restore[ABORT]) ";
constexpr const char* kMkdirPrefix = "(ws_restore[MKDIR]) ";
constexpr const char* kOpenPrefix = "(ws_restore[OPENFILE]) ";
constexpr const char* kMofPrefix = "(ws_restore[MOF]) ";
constexpr const char* kEndfPrefix = "(ws_restore[ENDF]) ";

// A record whose name the system could still hold is read whole (and a name
// of 1024 bytes or more refused with its status); a larger one breaks the
// stream.
constexpr size_t kRecordAreaSize = protocol::kRecName + 4096;

constexpr mode_t kPermissionBits = 07777;
constexpr mode_t kSetIdBits = S_ISUID | S_ISGID;
// Made with owner-only access; the record's mode is set once the data is in.
constexpr mode_t kReceivingMode = 0600;
// Attempts at a free temporary name before giving up.
constexpr int kTemporaryNameAttempts = 100;
// How much of a refused name the log shows.
constexpr int kShownNameBytes = 100;

class RestoreSession {
public:
    RestoreSession(int socket, JobContext& ctx, HardLinkTable& links, const Owner& owner)
        : socket_(socket), ctx_(ctx), link_(ctx.link), links_(links), owner_(owner), verbose_(logVerbose()) {}
    ~RestoreSession() { discardMade(); }
    RestoreSession(const RestoreSession&) = delete;
    RestoreSession& operator=(const RestoreSession&) = delete;

    // The commands until the job ends; what is still held is answered then.
    Outcome run() {
        Outcome r = commands();
        if (r.isJobOver()) return r;
        return Outcome::jobOverUnless(transport::sendHeld(link_, socket_, ahead_));
    }

private:
    Outcome commands();
    void mkdirCommand();
    void unlinkCommand();
    void openFile();
    [[nodiscard]] bool resolveConflict();
    [[nodiscard]] bool replaceExisting(const struct stat& st);
    void createSpecial();
    void createRegular();
    // Finds the directory of the current file (here_); false with errno set.
    [[nodiscard]] bool locate() { return locator_.find(path_.c_str(), here_); }
    [[nodiscard]] bool makeParents(const char* prefix, uint8_t failStatus);
    // Where the object is made: a free temporary name in its directory while
    // it replaces an existing one, else its own name.
    [[nodiscard]] bool makeUnderTemporaryName(const std::function<bool(const char*)>& make);
    const char* madeName() const { return temporary_.empty() ? here_.base() : temporary_.c_str(); }
    // Puts what was made under its own name; false (logged) when it cannot.
    [[nodiscard]] bool publish(const char* prefix);
    // Removes what was made and not published (a file left unfinished).
    void discardMade();
    Outcome mof();
    Outcome endf();
    void finishSymlink();
    void finishFile();
    void writeHeld(const char* prefix);
    void setModeAndOwner(const char* prefix, const char* path, int fd, const protocol::RestoreAttributes& a, bool& modeFailed,
                         bool& ownerFailed);
    // Answers go out together, before the next wait for the front-end.
    Outcome answer(uint8_t status) {
        return Outcome::jobOverUnless(transport::holdCode(link_, socket_, static_cast<int8_t>(status), ahead_));
    }
    void logRefusedName(const char* prefix, const char* format);

    int socket_;
    const JobContext& ctx_;
    transport::TransportState& link_;  // the job's connection state, in ctx_
    HardLinkTable& links_;
    Owner owner_;
    bool verbose_;

    transport::ReadAhead ahead_;  // nothing but the command stream follows on the socket
    std::array<uint8_t, kRecordAreaSize> record_{};
    std::array<uint8_t, kDataAreaSize> data_{};
    size_t count_ = 0;  // bytes held in data_; below kWriteBatch between packets
    Locator locator_;
    Location here_;          // where the current file goes
    platform::UniqueFd out_;   // its data goes here: a regular file, or a device given raw data
    platform::UniqueFd node_;  // a special file made, for its attributes (O_PATH)
    // A file is made apart and takes its name only at ENDF, once it is
    // complete, so that an existing file is never lost to one that did not
    // arrive whole: a regular file as an unnamed file (O_TMPFILE), anything
    // else (and regular files where the file system has no unnamed files)
    // under a temporary name when it replaces something.
    bool unnamed_ = false;   // out_ is an unnamed file
    bool linkByDescriptor_ = true;  // unnamed files are named through their descriptor
    bool replacing_ = false;  // something of the name is there and is to be replaced
    std::string temporary_;  // the temporary name of what is made, when it has one
    unsigned temporaryCount_ = 0;
    uint8_t status_ = 0;
    bool haveFile_ = false;  // an OPENFILE is waiting for its ENDF
    bool outOfSpace_ = false;  // a file found no space: the job ends once that is answered
    protocol::RestoreAttributes attr_;
    int32_t fileSize_ = 0;
    int onNfs_ = 0;
    PathBuffer path_;        // the file being restored
    PathBuffer unlinkPath_;  // what UNLINK removes: a name this job made or may replace
};

Outcome RestoreSession::commands() {
    for (;;) {
        int8_t code = 0;
        record_.fill(0);  // a short record reads as zeros, never as the previous one
        // One payload at most: the area always has room for it, as
        // count_ < kWriteBatch here.
        // The last byte stays free for the NUL of a symbolic link's target.
        size_t room = count_ + protocol::kMaxDataPayload < data_.size() ? count_ + protocol::kMaxDataPayload : data_.size() - 1;
        transport::FileDataBuffer incoming{std::span<uint8_t>(data_.data(), room), count_};
        if (transport::GetReply(link_, socket_, code, record_, &incoming, ahead_) != 0) return Outcome::jobOver();
        count_ = incoming.fill;
        switch (code) {
            case protocol::code::kAbort:
                ulog(MSG_JOB_ABORTED_FRONT_END, kAbortPrefix);
                return Outcome::done();
            case protocol::code::kEnd:
                ulog(MSG_WORKSTATION_RESTORE_COMPLETED, "");
                // What was restored is on stable storage before the front-end
                // hears that the restore is complete.
                if (locator_.syncAll() != 0) ulog("%sFailed to flush the restored files to disk (%s)", kPrefix, errText());
                return answer(protocol::code::kEnd);
            case protocol::code::kUnlink:
                unlinkCommand();
                break;
            case protocol::code::kMkdir:
                mkdirCommand();
                break;
            case protocol::code::kOpenFile:
                openFile();
                break;
            case protocol::code::kMof:
                if (Outcome r = mof(); r.isJobOver()) return r;
                break;
            case protocol::code::kEndf:
                // A disk without space ends the job once that was answered.
                if (Outcome r = endf(); r.isJobOver() || outOfSpace_) return r;
                break;
            default:
                ulog(MSG_UNKNOWN_COMMAND, kPrefix, static_cast<int>(code));
                break;
        }
    }
}

void RestoreSession::logRefusedName(const char* prefix, const char* format) {
    errno = ENAMETOOLONG;
    char shown[kShownNameBytes + 4];
    std::snprintf(shown, sizeof shown, "%.*s...", kShownNameBytes, reinterpret_cast<const char*>(&record_[protocol::kRecName]));
    ulog(format, prefix, shown, errText());
}

void RestoreSession::mkdirCommand() {
    protocol::RestoreAttributes a;
    if (protocol::decodeRestoreAttributes(record_, a) != protocol::RecordError::None) {
        logRefusedName(kMkdirPrefix, MSG_FAILED_MAKE_DIRECTORY);
        unlinkPath_.clear();
        return;
    }
    errno = 0;
    PathBuffer dir;
    if (!dir.assign(a.name.empty() ? std::string_view("/") : std::string_view(a.name))) return;
    (void)unlinkPath_.assign(dir.c_str());  // fits: same buffer size
    traceStdout(verbose_, "MKDIR: path = %s\n", dir.c_str());
    Location at;
    struct stat st {};
    if (locator_.find(dir.c_str(), at)) {
        // Something of that name is there, or cannot be examined.
        if (::fstatat(at.dir(), at.base(), &st, AT_SYMLINK_NOFOLLOW) == 0 || errno != ENOENT) return;
    } else {
        // The parents are missing, or reached through a link that is not
        // followed (make_path then names it).
        if (errno != ENOENT && errno != EACCES) return;
        if (make_path(dir, owner_) != 0) {
            ulog(MSG_CANNOT_CREATE_PATH, kMkdirPrefix, dir.c_str(), errText());
            return;
        }
        locator_.forget();
        if (!locator_.find(dir.c_str(), at)) {
            ulog(MSG_FAILED_MAKE_DIRECTORY, kMkdirPrefix, dir.c_str(), errText());
            return;
        }
    }
    if (::mkdirat(at.dir(), at.base(), a.mode & kPermissionBits) != 0) {
        ulog(MSG_FAILED_MAKE_DIRECTORY, kMkdirPrefix, dir.c_str(), errText());
        return;
    }
    platform::UniqueFd made(::openat(at.dir(), at.base(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!made || !isOwnMaking(made.get(), S_IFDIR)) {
        ulog(MSG_FAILED_CHMOD, kMkdirPrefix, dir.c_str(), errText());
        return;
    }
    bool modeFailed = false, ownerFailed = false;
    setModeAndOwner(kMkdirPrefix, dir.c_str(), made.get(), a, modeFailed, ownerFailed);
    // Directory times are not carried by the stream's MKDIR handling: they
    // change anyway as entries are made inside.
}

void RestoreSession::unlinkCommand() {
    Location at;
    if (unlinkPath_.empty()) {
        errno = ENOENT;
    } else if (locator_.find(unlinkPath_.c_str(), at) && ::unlinkat(at.dir(), at.base(), 0) == 0) {
        return;
    }
    ulog(MSG_FAILED_UNLINK, "", unlinkPath_.c_str(), errText());
}

// chmod, then chown. Linux clears set-user-id and set-group-id when an
// owner changes (even for root), so the mode is put back after the chown
// when it has either bit.
void RestoreSession::setModeAndOwner(const char* prefix, const char* path, int fd, const protocol::RestoreAttributes& a,
                                     bool& modeFailed, bool& ownerFailed) {
    mode_t mode = a.mode & kPermissionBits;
    if (platform::changeMode(fd, mode) != 0) {
        ulog(MSG_FAILED_CHMOD, prefix, path, errText());
        modeFailed = true;
    }
    if (platform::changeOwner(fd, static_cast<uid_t>(a.uid), static_cast<gid_t>(a.gid)) != 0) {
        ulog(MSG_FAILED_CHANGE_OWNER, prefix, path, errText());
        ownerFailed = true;
    } else if ((mode & kSetIdBits) != 0 && !modeFailed && platform::changeMode(fd, mode) != 0) {
        ulog(MSG_FAILED_CHMOD, prefix, path, errText());
        modeFailed = true;
    }
}

void RestoreSession::openFile() {
    protocol::RecordError e = protocol::decodeRestoreAttributes(record_, attr_);
    fileSize_ = static_cast<int32_t>(attr_.size);
    // An earlier file that never got its ENDF is closed as it is: it gets no
    // attributes.
    discardMade();
    count_ = 0;
    haveFile_ = true;
    unlinkPath_.clear();
    if (attr_.isSpecial() && ::geteuid() != 0) {
        ulog(MSG_ONLY_SYSTEM_ADMINISTRATOR_CAN_RESTORE, kOpenPrefix);
        status_ = protocol::status::kSpecialRefused;
        path_.clear();
        return;
    }
    status_ = 0;
    onNfs_ = 0;
    if (e != protocol::RecordError::None || !path_.assign(attr_.name)) {
        logRefusedName(kOpenPrefix, MSG_FAILED_CREATE);
        status_ = protocol::status::kCannotCreate;
        path_.clear();
        return;
    }
    if (!resolveConflict()) return;
    (void)unlinkPath_.assign(path_.c_str());  // the name is now this job's
    if (attr_.nlink > 1) {
        int r = links_.postml(path_, attr_, owner_, locator_, verbose_);
        if (r == 1) {
            status_ = protocol::status::kHardLinked;
            return;
        }
        if (r != 0) {
            status_ = protocol::status::kLinkFailed;
            return;
        }
    }
    if (attr_.isSpecial()) {
        createSpecial();
    } else if (attr_.type() == protocol::kTypeSymlink) {
        return;  // made at ENDF from the data
    } else {
        createRegular();
    }
}

// The conflict loop: false when the file is not to be restored (status set).
bool RestoreSession::resolveConflict() {
    replacing_ = false;
    for (;;) {
        traceStdout(verbose_, "OPENFILE: %s\n", path_.c_str());
        struct stat st {};
        // Nothing of that name, or its directory cannot be reached (the
        // create then makes the parents or says why not).
        if (!locate() || ::fstatat(here_.dir(), here_.base(), &st, AT_SYMLINK_NOFOLLOW) != 0) return true;
        if (S_ISDIR(st.st_mode)) {
            ulog(MSG_CANNOT_CREATE_SAME_NAME_DIRECTORY, kOpenPrefix, path_.c_str());
            status_ = protocol::status::kCannotCreate;
            return false;
        }
        switch (ctx_.conflictPolicy) {
            case protocol::conflict_policy::kSkip:
                traceStdout(verbose_, "Skip (unconditionally)!\n");
                status_ = protocol::status::kSkipped;
                return false;
            case protocol::conflict_policy::kNewer:
                if (static_cast<int64_t>(st.st_mtime) < static_cast<int64_t>(attr_.mtime)) return replaceExisting(st);
                traceStdout(verbose_, "Skip (disk file is newer)!\n");
                status_ = protocol::status::kSkipped;
                return false;
            case protocol::conflict_policy::kRename: {
                traceStdout(verbose_, "Rename %s ", path_.c_str());
                std::string before = path_.c_str();
                if (!renameRule(path_)) {
                    errno = ENAMETOOLONG;
                    ulog(MSG_FAILED_CREATE, kOpenPrefix, before.c_str(), errText());
                    status_ = protocol::status::kCannotCreate;
                    return false;
                }
                traceStdout(verbose_, "to %s!\n", path_.c_str());
                continue;
            }
            default:  // overwrite (3, and any unknown policy)
                return replaceExisting(st);
        }
    }
}

bool RestoreSession::replaceExisting(const struct stat& st) {
    if (S_ISREG(st.st_mode)) {
        if (ctx_.serverVersion >= protocol::kNewServerVersion) onNfs_ = skip_nfs(ctx_, path_.c_str(), st.st_dev);
        bool mandatory = (st.st_mode & S_ISGID) != 0 && (st.st_mode & S_IXGRP) == 0;
        if (ctx_.jobSettings.checkLocks || (onNfs_ == 0 && mandatory)) {
            platform::UniqueFd f(::openat(here_.dir(), here_.base(), O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
            if (!f) {
                ulog(MSG_FAILED_OPEN_REGULAR, kOpenPrefix, path_.c_str(), errText());
                status_ = protocol::status::kCannotOpen;
                return false;
            }
            int r = platform::lockFile(f.get(), platform::kWriteLock, ctx_.retryCount(), ctx_.retryInterval(),
                                        ctx_.jobSettings.divisor());
            int lockErrno = errno;
            f.close();  // also gives up the lock this test may have taken
            if (r == -2) {
                ulog(MSG_LOCKED_ANOTHER_PROCESS, kOpenPrefix, path_.c_str());
                status_ = protocol::status::kLocked;
                return false;
            }
            if (r == -1) {
                errno = lockErrno;
                ulog(MSG_FAILED_LOCK, kOpenPrefix, path_.c_str(), errText());
                status_ = protocol::status::kLockTestFailed;
                return false;
            }
        }
    }
    // The old file stays until the new one is complete (publish).
    replacing_ = true;
    return true;
}

// make_path for the current file; on failure logs the component that could
// not be made, sets `failStatus` and keeps the full name.
bool RestoreSession::makeParents(const char* prefix, uint8_t failStatus) {
    std::string full = path_.c_str();
    locator_.forget();
    if (make_path(path_, owner_) == 0) return true;
    ulog(MSG_CANNOT_CREATE_PATH, prefix, path_.c_str(), errText());
    (void)path_.assign(full);
    status_ = failStatus;
    return false;
}

bool RestoreSession::makeUnderTemporaryName(const std::function<bool(const char*)>& make) {
    if (!replacing_) return make(here_.base());
    for (int attempt = 0; attempt < kTemporaryNameAttempts; ++attempt) {
        temporary_ = ".tavik-restore." + std::to_string(::getpid()) + "." + std::to_string(++temporaryCount_);
        if (make(temporary_.c_str())) return true;
        if (errno != EEXIST) break;
    }
    temporary_.clear();
    return false;
}

void RestoreSession::createSpecial() {
    mode_t mode = static_cast<mode_t>(attr_.mode & (protocol::kTypeMask | kPermissionBits));
    dev_t device = attr_.type() == protocol::kTypeFifo ? 0 : platform::decodeDev32(attr_.rdev);
    auto made = [&] {
        return locate() && makeUnderTemporaryName([&](const char* name) {
                   return ::mknodat(here_.dir(), name, mode, device) == 0;
               });
    };
    if (!made()) {
        if (!makeParents(kOpenPrefix, protocol::status::kSpecialRefused)) return;
        if (!made()) {
            int e = errno;
            ulog(MSG_FAILED_CREATE_SPECIAL, kOpenPrefix, path_.c_str(), errText());
            status_ = e == ENOSPC ? protocol::status::kNoSpace : protocol::status::kSpecialRefused;
            return;
        }
    }
    // From here on the node is reached through its descriptor only.
    node_.reset(::openat(here_.dir(), madeName(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    if (!node_ || !isOwnMaking(node_.get(), mode & S_IFMT)) {
        ulog(MSG_FAILED_CREATE_SPECIAL, kOpenPrefix, path_.c_str(), errText());
        status_ = protocol::status::kSpecialRefused;
        return;
    }
    if (attr_.type() == protocol::kTypeCharDevice && fileSize_ != 0) {
        traceStdout(verbose_, "%sRaw device file %s, fileSize=%d\n", kOpenPrefix, path_.c_str(), fileSize_);
        out_.reset(::openat(here_.dir(), madeName(), O_WRONLY | O_NOFOLLOW | O_CLOEXEC));
        struct stat opened {}, node {};
        if (out_ && (::fstat(out_.get(), &opened) != 0 || ::fstat(node_.get(), &node) != 0 ||
                     opened.st_ino != node.st_ino || opened.st_dev != node.st_dev)) {
            out_.reset();
            errno = EEXIST;  // another file took the node's name meanwhile
        }
        if (!out_) {
            ulog(MSG_FAIED_OPEN, kOpenPrefix, path_.c_str(), errText());
            status_ = protocol::status::kCannotOpen;
        }
    }
}

void RestoreSession::createRegular() {
    // An unnamed file where the file system has them; else a new file only,
    // so that a link or anything else under the name fails.
    constexpr int kFlags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
    auto create = [&]() -> int {
        if (!locate()) return -1;
        int fd = ::openat(here_.dir(), ".", O_TMPFILE | O_WRONLY | O_CLOEXEC, kReceivingMode);
        unnamed_ = fd >= 0;
        if (fd >= 0 || (errno != EOPNOTSUPP && errno != EISDIR && errno != EINVAL)) return fd;
        replacing_ = true;  // a name of its own until it is complete
        bool made = makeUnderTemporaryName([&](const char* name) {
            fd = ::openat(here_.dir(), name, kFlags, kReceivingMode);
            return fd >= 0;
        });
        return made ? fd : -1;
    };
    int fd = create();
    if (fd < 0) {
        if (!makeParents(kOpenPrefix, protocol::status::kCannotCreate)) return;
        fd = create();
        if (fd < 0) {
            int e = errno;
            ulog(MSG_FAILED_CREATE, kOpenPrefix, path_.c_str(), errText());
            status_ = (e == ENOSPC || e == ENFILE) ? protocol::status::kNoSpace : protocol::status::kCannotCreate;
            return;
        }
    }
    out_.reset(fd);
}

bool RestoreSession::publish(const char* prefix) {
    bool done = false;
    if (unnamed_) {
        // An unnamed file is given its name through its descriptor, which
        // takes the privilege to read any directory (root has it); without
        // that, through its /proc entry, which names that very file.
        auto linked = [&](const char* name) {
            if (linkByDescriptor_) {
                if (::linkat(out_.get(), "", here_.dir(), name, AT_EMPTY_PATH) == 0) return true;
                if (errno != ENOENT) return false;
            }
            char self[32];
            std::snprintf(self, sizeof self, "/proc/self/fd/%d", out_.get());
            if (::linkat(AT_FDCWD, self, here_.dir(), name, AT_SYMLINK_FOLLOW) != 0) return false;
            linkByDescriptor_ = false;  // the privilege is missing: /proc from now on
            return true;
        };
        if (!replacing_) {
            done = linked(here_.base());
            // Something took the name meanwhile: it is replaced as a whole.
            if (!done && errno == EEXIST) replacing_ = true;
        }
        if (!done && replacing_) {
            done = makeUnderTemporaryName(linked) &&
                   ::renameat(here_.dir(), temporary_.c_str(), here_.dir(), here_.base()) == 0;
        }
    } else if (!temporary_.empty()) {
        done = ::renameat(here_.dir(), temporary_.c_str(), here_.dir(), here_.base()) == 0;
    } else {
        return true;  // made under its own name
    }
    if (done) {
        temporary_.clear();
        unnamed_ = false;
        return true;
    }
    int e = errno;
    ulog(MSG_FAILED_CREATE, prefix, path_.c_str(), errText());
    status_ = e == ENOSPC ? protocol::status::kNoSpace : protocol::status::kCannotCreate;
    return false;
}

void RestoreSession::discardMade() {
    out_.reset();  // an unnamed file goes with its last descriptor
    node_.reset();
    unnamed_ = false;
    if (!temporary_.empty() && here_.directory) ::unlinkat(here_.dir(), temporary_.c_str(), 0);
    temporary_.clear();
}

void RestoreSession::writeHeld(const char* prefix) {
    size_t done = 0;
    while (done < count_) {
        ssize_t n = -1;
        if (out_) {
            n = ::write(out_.get(), data_.data() + done, count_ - done);
        } else {
            errno = EBADF;  // data for an entry that has no open file
        }
        if (n < 0 && errno == EINTR) {
            platform::dispatchPendingSignals();
            continue;
        }
        if (n <= 0) {
            if (n == 0) errno = EIO;
            int e = errno;
            ulog(MSG_FAILED_WRITING, prefix, path_.c_str(), errText());
            status_ = e == ENOSPC ? protocol::status::kNoSpace : protocol::status::kWriteFailed;
            break;  // the rest is dropped
        }
        done += static_cast<size_t>(n);
    }
    count_ = 0;
}

Outcome RestoreSession::mof() {
    if (ctx_.ackInterval != 0 && transport::ackIfDue(link_, socket_, ctx_.ackInterval) != 0) return Outcome::jobOver();
    if (status_ != 0 || !haveFile_) {
        count_ = 0;  // data of a skipped or failed file (or of none) is dropped
        return Outcome::done();
    }
    if (count_ < kWriteBatch) return Outcome::done();
    if (attr_.type() == protocol::kTypeSymlink) {
        // A link target this long cannot be made; it is not written anywhere.
        errno = ENAMETOOLONG;
        ulog(MSG_FAILED_CREATE_SYMBOLIC_LINK_SYMLINK, kMofPrefix, "...", path_.c_str(), errText());
        status_ = protocol::status::kCannotCreate;
        count_ = 0;
        return Outcome::done();
    }
    writeHeld(kMofPrefix);
    return Outcome::done();
}

void RestoreSession::finishSymlink() {
    data_[count_] = 0;  // count_ < data_.size(): at most kWriteBatch - 1 + one payload
    const char* target = reinterpret_cast<const char*>(data_.data());
    auto made = [&] {
        return locate() && makeUnderTemporaryName([&](const char* name) {
                   return ::symlinkat(target, here_.dir(), name) == 0;
               });
    };
    if (!made()) {
        if (!makeParents(kEndfPrefix, protocol::status::kCannotCreate)) return;
        if (!made()) {
            ulog(MSG_FAILED_CREATE_SYMBOLIC_LINK_SYMLINK, kEndfPrefix, target, path_.c_str(), errText());
            status_ = protocol::status::kCannotCreate;
            return;
        }
    }
    // Only the link made here is given away, through a descriptor of the
    // link itself; its times and mode are not set.
    platform::UniqueFd link(::openat(here_.dir(), madeName(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    if (!link || !isOwnMaking(link.get(), S_IFLNK) ||
        platform::changeOwner(link.get(), static_cast<uid_t>(attr_.uid), static_cast<gid_t>(attr_.gid)) != 0) {
        ulog(MSG_FAILED_CHANGE_OWNER, kEndfPrefix, path_.c_str(), errText());
        status_ = protocol::status::kOwnerOrMode;
    }
    if (!publish(kEndfPrefix)) discardMade();
}

void RestoreSession::finishFile() {
    // After a failed write nothing more is written: the file would have a gap.
    if (status_ == 0 && count_ > 0) writeHeld(kEndfPrefix);
    count_ = 0;
    // A file whose data did not all reach the disk never takes its name.
    if (status_ != 0) {
        discardMade();
        return;
    }
    // The attributes go through the descriptor of what was made, so that no
    // name swapped in meanwhile receives them.
    int fd = out_ ? out_.get() : node_.get();
    bool modeFailed = false, ownerFailed = false;
    setModeAndOwner(kEndfPrefix, path_.c_str(), fd, attr_, modeFailed, ownerFailed);
    if (modeFailed || ownerFailed) status_ = protocol::status::kOwnerOrMode;
    if (setFileTimes(fd, attr_.atime, attr_.mtime) != 0) {
        ulog(MSG_FAILED_SET_TIME, kEndfPrefix, path_.c_str(), errText());
        status_ = protocol::status::kTimes;
    }
    // A named file is closed before it takes its name: a network file system
    // reports refused data only there. An unnamed one needs its descriptor
    // to be named (and lives on local file systems).
    if (!unnamed_ && out_ && out_.close() != 0) {
        int e = errno;
        ulog(MSG_FAILED_WRITING, kEndfPrefix, path_.c_str(), errText());
        status_ = e == ENOSPC ? protocol::status::kNoSpace : protocol::status::kWriteFailed;
        discardMade();
        return;
    }
    if (!publish(kEndfPrefix)) discardMade();
    out_.reset();
}

Outcome RestoreSession::endf() {
    uint8_t s = status_;
    bool fileInHand = haveFile_;
    haveFile_ = false;
    status_ = 0;
    if (s == protocol::status::kHardLinked) {
        count_ = 0;
        return answer(protocol::status::kRestored);
    }
    if (s != 0 && s != protocol::status::kWriteFailed) {
        // What was made of a file that went wrong never takes its name.
        discardMade();
        count_ = 0;
        outOfSpace_ = s == protocol::status::kNoSpace;
        return answer(s);
    }
    if (!fileInHand) {
        count_ = 0;
        ulog("%sNo file to end", kEndfPrefix);
        return answer(protocol::status::kCannotCreate);
    }
    status_ = s;
    if (s == 0 && attr_.type() == protocol::kTypeSymlink) {
        finishSymlink();
    } else {
        finishFile();
    }
    count_ = 0;
    s = status_;
    status_ = 0;
    discardMade();
    if (s == protocol::status::kNoSpace) {
        outOfSpace_ = true;
        return answer(protocol::status::kNoSpace);
    }
    return answer(s);
}

}  // namespace

Outcome ws_restore(int socket, const std::string& root, JobContext& ctx, HardLinkTable& links,
                   const Owner& owner) {
    (void)root;  // names in the records are complete: they are used as they are
    RestoreSession session(socket, ctx, links, owner);
    return session.run();
}

}  // namespace tavik::restore
