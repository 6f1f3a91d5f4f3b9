#include "compare/ws_compare.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "groom/groom.h"
#include "protocol/commands.h"
#include "log/ulog.h"
#include "platform/fd.h"
#include "platform/fd_attributes.h"
#include "platform/file_lock.h"
#include "platform/read_open.h"
#include "platform/signals.h"
#include "platform/wire_stat.h"
#include "restore/file_ops.h"
#include "restore/paths.h"
#include "transport/packet.h"
#include "wire/bytes.h"

namespace tavik::compare {
namespace {

using protocol::RestoreAttributes;

constexpr const char* kPrefix = "(ws_compare) ";
constexpr const char* kAbortPrefix = "(ws_compare[ABORT]) ";
constexpr const char* kMkdirPrefix = "(ws_compare[MKDIR]) ";
constexpr const char* kOpenPrefix = "(ws_compare[OPENFILE]) ";
constexpr const char* kMofPrefix = "(ws_compare[MOF]) ";
constexpr const char* kEndfPrefix = "(ws_compare[ENDF]) ";
constexpr const char* kSendFilePrefix = "(sync_send_file) ";

// A record whose name the system could still hold is read whole (a name of
// 1024 bytes or more is then answered as one that cannot be examined); a
// larger record breaks the stream.
constexpr size_t kRecordAreaSize = protocol::kRecName + 4096;
// The root, the name, and root and name joined are 1024-byte texts.
constexpr size_t kNameBufferSize = protocol::kPathBufferSize;
// How much of a refused name the log shows.
constexpr int kShownNameBytes = 100;
// A difference of size alone: no content comparison follows.
constexpr uint8_t kSizeDiffers = 2;

class CompareSession {
public:
    CompareSession(int socket, const std::string& root, JobContext& ctx)
        : socket_(socket),
          ctx_(ctx),
          link_(ctx.link),
          groom_(ctx.grooming),
          verbose_(logVerbose()),
          followLinks_(ctx.jobSettings.followLinks),
          checkLocks_(ctx.jobSettings.checkLocks),
          detailed_((ctx.optionFlags() & protocol::options_layout::kDetailedVerdicts) != 0),
          resetAccessTime_(ctx.jobSettings.resetAccessTime &&
                           (ctx.optionFlags() & protocol::options_layout::kNoAccessReset) == 0) {
        rootFits_ = root_.assign(root);
    }

    Outcome run();

private:
    void beginGrooming();
    void record(const char* path, const struct stat& st);
    Outcome mkdirCommand();
    Outcome openFile();
    Outcome mof();
    Outcome endf();
    Outcome end();
    // Takes the record's name as the path and builds the full name; false
    // (logged with `statFormat`) when the name cannot be used.
    [[nodiscard]] bool takeName(const char* prefix, const char* statFormat, bool decoded);
    uint8_t compareAttributes(const char* prefix, const char* shown, bool deviceNumber) const;
    void compareHeld(const char* prefix);
    void compareLinkTarget();
    void resetTimes();
    Outcome answer(uint8_t code) {
        return Outcome::jobOverUnless(transport::syncSendCode(link_, socket_, static_cast<int8_t>(code)));
    }

    int socket_;
    transport::ReadAhead ahead_;  // nothing but the command stream follows on the socket
    const JobContext& ctx_;
    transport::TransportState& link_;  // the job's connection state, in ctx_
    groom::Grooming& groom_;  // the job's grooming, in ctx_
    bool verbose_;
    bool followLinks_;
    bool checkLocks_;
    bool detailed_;
    bool resetAccessTime_;
    bool timesKept_ = false;  // the file in hand was opened without touching its access time
    bool grooming_ = false;
    uint32_t groomOptions_ = 0;

    restore::PathBuffer root_;
    bool rootFits_ = false;
    restore::PathBuffer path_;
    std::array<char, kNameBufferSize> full_{};
    bool fullFits_ = false;  // a name that does not fit is never recorded for grooming

    protocol::RestoreAttributes tape_;
    struct stat disk_ {};
    bool haveFile_ = false;  // an OPENFILE found its object and waits for ENDF
    bool diskIsLink_ = false;
    platform::UniqueFd fd_;
    uint8_t difference_ = 0;
    uint8_t content_ = 0;

    std::array<uint8_t, kRecordAreaSize> record_{};
    std::array<uint8_t, kDataAreaSize> data_{};
    size_t count_ = 0;  // below kCompareBatch between packets
    std::array<uint8_t, kDataAreaSize> local_{};
};

Outcome CompareSession::run() {
    beginGrooming();
    for (;;) {
        int8_t code = 0;
        record_.fill(0);  // a short record reads as zeros, never as the previous one
        size_t room = count_ + protocol::kMaxDataPayload;
        if (room > data_.size()) room = data_.size();
        transport::FileDataBuffer incoming{std::span<uint8_t>(data_.data(), room), count_};
        if (transport::GetReply(link_, socket_, code, record_, &incoming, ahead_) != 0) {
            return answer(protocol::verdict::kStop).isJobOver() ? Outcome::jobOver() : Outcome::done();
        }
        count_ = incoming.fill;
        Outcome r;
        switch (code) {
            case protocol::code::kAbort:
                ulog(MSG_JOB_ABORTED_FRONT_END, kAbortPrefix);
                return Outcome::done();
            case protocol::code::kMkdir: r = mkdirCommand(); break;
            case protocol::code::kOpenFile: r = openFile(); break;
            case protocol::code::kMof: r = mof(); break;
            case protocol::code::kEndf: r = endf(); break;
            case protocol::code::kEnd: return end();
            default:
                ulog(MSG_UNKNOWN_COMMAND, kPrefix, static_cast<int>(code));
                break;
        }
        if (r.isJobOver()) return r;
    }
}

void CompareSession::beginGrooming() {
    if (ctx_.groomRecord.empty()) return;
    wire::ByteReader in(ctx_.groomRecord);
    protocol::GroomingRecord groomRecord = protocol::decodeGroomingRecord(in);
    protocol::TapeRecord tape;
    wire::ByteReader tapeIn(ctx_.tapeRecord);
    (void)protocol::decodeTapeRecord(tapeIn, tape);  // the job context holds all 63 bytes
    groomOptions_ = groomRecord.fOptions;
    grooming_ = true;
    if (groom::BeginGrooming(groom_, ctx_.paths.logDir.c_str(), ctx_.groomSet.c_str(), groomRecord, tape) != 0) {
        ulog(MSG_FAILED_BEGINGROOMING, "");
    }
    struct stat st {};
    if (::stat(root_.c_str(), &st) != 0) {
        ulog(MSG_FAILED_GET_ATTRIBUTES_STAT, kPrefix, root_.c_str(), errText());
        return;
    }
    if (rootFits_) record(root_.c_str(), st);
}

void CompareSession::record(const char* path, const struct stat& st) {
    int r = groom::RecordGrooming(groom_, path, st);
    if (r != 0) ulog(MSG_FAILED_RECORD_GROOMING_RET, kPrefix, path, r);
}

bool CompareSession::takeName(const char* prefix, const char* statFormat, bool decoded) {
    fullFits_ = false;
    full_[0] = '\0';
    if (!decoded || !path_.assign(tape_.name)) {
        path_.clear();
        errno = ENAMETOOLONG;
        char shown[kShownNameBytes + 4];
        std::snprintf(shown, sizeof shown, "%.*s...", kShownNameBytes,
                      reinterpret_cast<const char*>(&record_[protocol::kRecName]));
        ulog(statFormat, prefix, shown, errText());
        return false;
    }
    int n = std::snprintf(full_.data(), full_.size(), "%s%s", root_.c_str(), path_.c_str());
    fullFits_ = rootFits_ && n >= 0 && static_cast<size_t>(n) < full_.size();
    return true;
}

// Stops at the first difference and logs it with `shown`: the backup's value
// first, then the disk's. 0 when none.
uint8_t CompareSession::compareAttributes(const char* prefix, const char* shown, bool deviceNumber) const {
    const struct stat& st = disk_;
    if (tape_.mode != static_cast<uint32_t>(st.st_mode)) {
        ulog(MSG_MODE_CHANGED, prefix, shown, tape_.mode, static_cast<unsigned>(st.st_mode));
        return protocol::verdict::kMode;
    }
    if (tape_.nlink != static_cast<uint32_t>(st.st_nlink)) {
        ulog(MSG_NUMBER_LINKS_CHANGED, prefix, shown, static_cast<int>(tape_.nlink), static_cast<int>(st.st_nlink));
        return protocol::verdict::kLinks;
    }
    if (tape_.uid != static_cast<uint32_t>(st.st_uid)) {
        ulog(MSG_USER_ID_CHANGED, prefix, shown, static_cast<int>(tape_.uid), static_cast<int>(st.st_uid));
        return protocol::verdict::kOwner;
    }
    if (tape_.gid != static_cast<uint32_t>(st.st_gid)) {
        ulog(MSG_GROUP_ID_CHANGED, prefix, shown, static_cast<int>(tape_.gid), static_cast<int>(st.st_gid));
        return protocol::verdict::kGroup;
    }
    if (deviceNumber && (S_ISCHR(st.st_mode) || S_ISBLK(st.st_mode))) {
        uint32_t diskRdev = platform::encodeDev32(st.st_rdev);
        if (tape_.rdev != diskRdev) {
            ulog(MSG_RDEV_CHANGED, prefix, shown, tape_.rdev, diskRdev);
            return protocol::verdict::kRdev;
        }
    }
    uint32_t diskMtime = platform::wireTime(static_cast<int64_t>(st.st_mtime));
    if (tape_.mtime != diskMtime) {
        ulog(MSG_MODIFY_TIME_CHANGED, prefix, shown, formatLogDate(static_cast<time_t>(tape_.mtime)).c_str(),
             formatLogDate(static_cast<time_t>(diskMtime)).c_str());
        return protocol::verdict::kMtime;
    }
    return 0;
}

Outcome CompareSession::mkdirCommand() {
    bool decoded = protocol::decodeRestoreAttributes(record_, tape_) == protocol::RecordError::None;
    errno = 0;
    difference_ = 0;
    if (!takeName(kMkdirPrefix, MSG_FAILED_GET_ATTRIBUTES_STAT, decoded)) return answer(protocol::verdict::kNoDirectory);
    traceStdout(verbose_, "MKDIR: path = %s\n", full_.data());
    if (!fullFits_) errno = ENAMETOOLONG;
    if (!fullFits_ || ::stat(full_.data(), &disk_) != 0) {
        ulog(MSG_FAILED_GET_ATTRIBUTES_STAT, kMkdirPrefix, path_.c_str(), errText());
        return answer(protocol::verdict::kNoDirectory);
    }
    difference_ = compareAttributes(kMkdirPrefix, full_.data(), false);
    if (difference_ != 0) return answer(detailed_ ? difference_ : protocol::verdict::kDirectoryDiffers);
    if (answer(protocol::verdict::kSame).isJobOver()) return Outcome::jobOver();
    if (grooming_) record(full_.data(), disk_);
    return Outcome::done();
}

Outcome CompareSession::openFile() {
    bool decoded = protocol::decodeRestoreAttributes(record_, tape_) == protocol::RecordError::None;
    content_ = 0;
    count_ = 0;
    difference_ = 0;
    fd_.reset();
    haveFile_ = false;
    diskIsLink_ = false;
    const char* statFormat = followLinks_ ? MSG_FAILED_GET_ATTRIBUTES_STAT : MSG_FAILED_GET_ATTRIBUTES_LSTAT;
    if (!takeName(kOpenPrefix, statFormat, decoded)) {
        content_ = protocol::verdict::kNoFile;
        return answer(protocol::verdict::kNoFile);
    }
    traceStdout(verbose_, "OPENFILE: %s\n", full_.data());
    int r = followLinks_ ? ::stat(path_.c_str(), &disk_) : ::lstat(path_.c_str(), &disk_);
    if (r != 0) {
        ulog(statFormat, kOpenPrefix, path_.c_str(), errText());
        content_ = protocol::verdict::kNoFile;
        return answer(protocol::verdict::kNoFile);
    }
    haveFile_ = true;
    if (S_ISLNK(disk_.st_mode)) {
        diskIsLink_ = true;  // compared by its target at ENDF
        return answer(protocol::verdict::kSame);
    }
    difference_ = compareAttributes(kOpenPrefix, path_.c_str(), true);
    if (S_ISREG(disk_.st_mode)) {
        uint32_t diskSize = platform::wireSize(static_cast<int64_t>(disk_.st_size));
        if (tape_.size != diskSize) {
            ulog(MSG_SIZE_CHANGED, kOpenPrefix, path_.c_str(), static_cast<int>(tape_.size),
                 static_cast<int>(diskSize));
            difference_ = kSizeDiffers;
            content_ = protocol::verdict::kSize;
        }
        // Not following links, a link swapped in since the lstat is not
        // opened; a FIFO swapped in does not block the job.
        // Read without touching the access time where the kernel grants it.
        platform::ReadOpen opened =
            platform::openToRead(AT_FDCWD, path_.c_str(), resetAccessTime_, followLinks_ ? 0 : O_NOFOLLOW);
        fd_.reset(opened.fd);
        timesKept_ = opened.accessTimeKept;
        if (!fd_) {
            ulog(MSG_FAILED_OPEN_REGULAR, kOpenPrefix, path_.c_str(), errText());
            content_ = protocol::verdict::kCannotOpen;
            return answer(protocol::verdict::kCannotOpen);
        }
        int onNfs = skip_nfs(ctx_, path_.c_str(), disk_.st_dev);
        bool mandatory = (disk_.st_mode & S_ISGID) != 0 && (disk_.st_mode & S_IXGRP) == 0;
        if (checkLocks_ || (onNfs == 0 && mandatory)) {
            int lr = platform::lockFile(fd_.get(), platform::kReadLock, ctx_.retryCount(), ctx_.retryInterval(),
                                         ctx_.jobSettings.divisor());
            int lockErrno = errno;
            if (lr == -2) {
                fd_.reset();
                ulog(MSG_LOCKED_ANOTHER_PROCESS, kOpenPrefix, path_.c_str());
                content_ = protocol::verdict::kLocked;
                return answer(protocol::verdict::kLocked);
            }
            if (lr == -1) {
                fd_.reset();
                errno = lockErrno;
                ulog(MSG_FAILED_LOCK, kOpenPrefix, path_.c_str(), errText());
                content_ = protocol::verdict::kLockTestFailed;
                return answer(protocol::verdict::kLockTestFailed);
            }
            // The lock was only a test: it is given up at once.
            struct flock unlock {};
            unlock.l_type = F_UNLCK;
            unlock.l_whence = SEEK_SET;
            if (::fcntl(fd_.get(), F_SETLK, &unlock) != 0) {
                ulog("%sFailed to unlock file %s (%s)", kOpenPrefix, path_.c_str(), errText());
            }
        }
    } else if (tape_.type() == protocol::kTypeCharDevice && tape_.size != 0) {
        content_ = protocol::verdict::kCannotOpen;  // a raw device's contents are not compared
    }
    if (difference_ == 0) return answer(protocol::verdict::kSame);
    if (difference_ == kSizeDiffers) return answer(protocol::verdict::kSize);
    return answer(detailed_ ? difference_ : protocol::verdict::kFileDiffers);
}

// Reads as many bytes as are held from the file and compares them; a short
// read is a read failure and the block is not compared.
void CompareSession::compareHeld(const char* prefix) {
    ssize_t n = -1;
    errno = 0;
    if (fd_) {
        n = platform::readBlocking(fd_.get(), local_.data(), count_);
    } else {
        errno = EBADF;  // data for an object that has no open file
    }
    if (n != static_cast<ssize_t>(count_)) {
        ulog(MSG_FAILED_READING, prefix, path_.c_str(), errText());
        content_ = protocol::verdict::kReadFailed;
        return;
    }
    if (std::memcmp(local_.data(), data_.data(), count_) != 0) {
        ulog(MSG_CONTENT_CHANGED, prefix, path_.c_str());
        content_ = protocol::verdict::kContent;
    }
}

Outcome CompareSession::mof() {
    if (ctx_.ackInterval != 0 && transport::ackIfDue(link_, socket_, ctx_.ackInterval) != 0) return Outcome::jobOver();
    if (content_ != 0) {
        count_ = 0;
        return Outcome::done();
    }
    if (count_ < kCompareBatch) return Outcome::done();
    compareHeld(kMofPrefix);
    count_ = 0;
    return Outcome::done();
}

void CompareSession::compareLinkTarget() {
    // count_ < data_.size(): the gathered target and the disk's fit side by side.
    ssize_t n = ::readlink(path_.c_str(), reinterpret_cast<char*>(local_.data()), local_.size());
    if (n < 0) {
        ulog(MSG_FAILED_READ_CONTENTS_SYMBOLIC_LINK, kEndfPrefix, path_.c_str(), errText());
        content_ = protocol::verdict::kLinkUnreadable;
        return;
    }
    if (static_cast<size_t>(n) != count_ || std::memcmp(local_.data(), data_.data(), count_) != 0) {
        ulog(MSG_CONTENT_CHANGED, kEndfPrefix, path_.c_str());
        content_ = protocol::verdict::kContent;
    }
}

// Puts back the access and modification times found at OPENFILE, to the
// nanosecond (the time setter of the restore takes whole seconds from the
// record; here the exact values stat gave are at hand).
void CompareSession::resetTimes() {
    const struct timespec times[2] = {disk_.st_atim, disk_.st_mtim};
    // Through the descriptor that read the file where there is one; else
    // through a handle on the name that must still lead to the object seen at
    // OPENFILE: a name swapped meanwhile (a directory above it turned into a
    // link) gets no times.
    int r = 0;
    if (fd_) {
        r = platform::changeTimes(fd_.get(), times);
    } else {
        platform::UniqueFd handle(::open(path_.c_str(), O_PATH | O_CLOEXEC | (followLinks_ ? 0 : O_NOFOLLOW)));
        struct stat now {};
        if (!handle || ::fstat(handle.get(), &now) != 0) {
            r = -1;
        } else if (now.st_dev != disk_.st_dev || now.st_ino != disk_.st_ino) {
            errno = ESTALE;
            r = -1;
        } else {
            r = platform::changeTimes(handle.get(), times);
        }
    }
    if (r != 0) {
        ulog(MSG_FAILED_SET_TIME, kEndfPrefix, path_.c_str(), errText());
    }
}

Outcome CompareSession::endf() {
    bool fileInHand = haveFile_;
    haveFile_ = false;
    if (content_ == protocol::verdict::kReadFailed || content_ == protocol::verdict::kContent) {
        count_ = 0;
        return answer(content_);
    }
    if (content_ != 0 || !fileInHand) {
        count_ = 0;
        return answer(protocol::verdict::kSame);
    }
    if (diskIsLink_) {
        compareLinkTarget();
    } else {
        if (count_ > 0) compareHeld(kEndfPrefix);
        if (resetAccessTime_ && !timesKept_) resetTimes();
        fd_.reset();
    }
    count_ = 0;
    if (answer(content_).isJobOver()) return Outcome::jobOver();
    if (content_ == 0 && difference_ == 0 && grooming_ && fullFits_) record(full_.data(), disk_);
    return Outcome::done();
}

Outcome CompareSession::end() {
    if (::chdir("/") != 0) ulog("%sFailed to change directory to / (%s)", kPrefix, errText());
    bool failed = false;
    if (grooming_) {
        int r = groom::EndGrooming(groom_);
        if (r == 1) {
            ulog(MSG_GROOMING_INCOMPLETE, "");
        } else if (r == 2) {
            ulog(MSG_GROOMING_FAILED, "");
        } else if (r != 0) {
            ulog(MSG_ENDGROOMING_UNKNOW_STATUS, "", r);
        }
        int groomed = groom::GroomedCount(groom_);
        std::string workFile = groom::GroomingWorkFile(groom_);
        if (groomed > 0) {
            if (answer(protocol::verdict::kGroomCount).isJobOver()) {
                failed = true;
            } else {
                std::array<uint8_t, protocol::kGroomCountSize> countText{};
                std::snprintf(reinterpret_cast<char*>(countText.data()), countText.size(), "%d", groomed);
                if (transport::sendRoutine(link_, socket_, countText.data(), countText.size()) == 0 &&
                    sync_send_file(link_, socket_, workFile.c_str()) == transport::kFailed) {
                    failed = true;
                }
            }
        }
        if (groomOptions_ & protocol::kGroomRotationSet) {
            // No copy file when grooming was refused. A link in the log
            // directory, which every job may write, is not followed.
            const char* copy = groom::GroomingCopyFile(groom_);
            constexpr int kAppend = O_WRONLY | O_CREAT | O_APPEND | O_NOFOLLOW;
            if (*copy != '\0' && copyFile(workFile.c_str(), copy, kAppend, 0666) != 0) {
                ulog(MSG_CANNOT_COPY, "", workFile.c_str(), copy);
            }
            ulog(MSG_TOTAL_GROOMED_FOR_SET, groomed, ctx_.groomSet.c_str());
        } else if (groomOptions_ & protocol::kGroomDelete) {
            (void)groom::MigrateLog(workFile.c_str());  // an unreadable work file is logged there
            ulog(MSG_TOTAL_DELETED, groomed);
        }
        grooming_ = false;
        groom::RemoveGroomingTempFiles(groom_);
        if (failed) return Outcome::jobOver();
    }
    ulog(MSG_WORKSTATION_COMPARE_ENDED, "");
    return answer(protocol::verdict::kEnd);
}

}  // namespace

Outcome ws_compare(int socket, const std::string& root, JobContext& ctx) {
    CompareSession session(socket, root, ctx);
    return session.run();
}

int sync_send_file(transport::TransportState& link, int socket, const char* name) {
    platform::UniqueFd in(::open(name, O_RDONLY | O_CLOEXEC));
    if (!in) {
        ulog(MSG_FAIED_OPEN, kSendFilePrefix, name, errText());
        return -1;
    }
    std::array<uint8_t, kFilePacketSize> data{};
    bool readFailed = false;
    for (;;) {
        ssize_t n = platform::readBlocking(in.get(), data.data(), data.size());
        if (n < 0) {
            readFailed = true;
            break;
        }
        protocol::PacketHeader h;
        h.code = static_cast<size_t>(n) == data.size() ? protocol::code::kMof : protocol::code::kEndf;
        h.length = static_cast<uint16_t>(n);
        protocol::HeaderBytes header = protocol::encodeHeader(h);
        if (transport::sendRoutine(link, socket, header.data(), header.size()) != 0) {
            ulog(MSG_SEND_COMMAND_0X_FAILED, kSendFilePrefix, static_cast<unsigned>(static_cast<uint8_t>(h.code)));
            return transport::kFailed;
        }
        if (n > 0 && transport::sendRoutine(link, socket, data.data(), static_cast<size_t>(n)) != 0) {
            return transport::kFailed;
        }
        if (static_cast<size_t>(n) < data.size()) break;
    }
    int readErrno = errno;
    in.reset();
    if (readFailed) {
        errno = readErrno;
        ulog(MSG_FAILED_READING, kSendFilePrefix, name, errText());
        return transport::syncSendCode(link, socket, static_cast<int8_t>(protocol::verdict::kReadErr)) == 0 ? 0
                                                                                              : transport::kFailed;
    }
    return 0;
}

}  // namespace tavik::compare
