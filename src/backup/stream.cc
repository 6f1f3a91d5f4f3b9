#include "backup/stream.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "backup/attribute_record.h"
#include "backup/backup_state.h"
#include "backup/queue.h"
#include "backup/span_tape.h"
#include "groom/groom.h"
#include "log/ulog.h"
#include "platform/fd.h"
#include "platform/file_lock.h"
#include "platform/read_open.h"
#include "platform/signals.h"
#include "request/job_context.h"
#include "transport/packet.h"
#include "wire/bytes.h"

namespace tavik::backup {

void watchdogAction(BackupJob& job);

namespace {

namespace code = protocol::code;
constexpr uint8_t kStatusVersion = 5;

// Marks a packet under construction; a WATCH_DOG that fell due meanwhile is
// queued when it is done.
struct Building {
    BackupJob& job;
    bool outer = !job.building;
    explicit Building(BackupJob& j) : job(j) { job.building = true; }
    ~Building() {
        if (!outer) return;
        job.building = false;
        if (job.watchdogPending) {
            job.watchdogPending = false;
            watchdogAction(job);
        }
    }
    Building(const Building&) = delete;
    Building& operator=(const Building&) = delete;
};

// Slots one readv fills at most.
constexpr uint16_t kReadSlots = 32;

void writeHeader(uint8_t* slot, int8_t packetCode, uint8_t version, size_t length) {
    protocol::PacketHeader h;
    h.code = packetCode;
    h.version = version;
    h.length = uint16_t(length);
    protocol::HeaderBytes bytes = protocol::encodeHeader(h);
    std::memcpy(slot, bytes.data(), bytes.size());
}

Outcome publish(BackupJob& job, int8_t packetCode, uint8_t version, size_t length, bool hold = false) {
    writeHeader(job.queue.inSlot(), packetCode, version, length);
    return Outcome::jobOverUnless(job.queue.countup(1, hold));
}

Outcome waitForSlot(BackupJob& job) { return Outcome::jobOverUnless(job.queue.waitFreeSlot()); }

uint8_t* payload(BackupJob& job) { return job.queue.inSlot() + protocol::kHeaderSize; }

size_t ioSize(BackupJob& job) {
    size_t io = size_t(job.ctx.jobSettings.ioBufferSize);
    size_t cap = job.queue.slotPayloadCapacity();
    return io < cap ? io : cap;
}

std::string_view lastComponent(const std::string& path) {
    size_t slash = path.rfind('/');
    return slash == std::string::npos ? std::string_view(path) : std::string_view(path).substr(slash + 1);
}

void recordGrooming(BackupJob& job, const std::string& path, const struct stat& st, const char* prefix) {
    if (!job.grooming) return;
    int r = groom::RecordGrooming(job.ctx.grooming, path.c_str(), st, job.groomDirectory);
    if (r != 0) ulog(MSG_FAILED_RECORD_GROOMING_RET, prefix, path.c_str(), r);
}

// Data of a regular file, read straight into the slots.
Outcome sendRegular(BackupJob& job, int fd, const std::string& path) {
    constexpr const char* kPrefix = "(send_file) ";
    if (job.ctx.restartOffset == -1) job.ctx.restartOffset = 0;
    if (job.ctx.restartOffset > 0) {
        int32_t n = job.ctx.restartOffset;
        if (logVerbose()) ulog("%slseek(%d)", kPrefix, n);
        job.ctx.restartOffset = 0;
        if (::lseek(fd, off_t(n), SEEK_SET) < 0) {
            ulog("%sFailed in lseek(%d), %s", kPrefix, n, errText());
            return reportEntry(job, code::kReadErr);
        }
    }
    // Several free slots are filled by one readv and published together:
    // every chunk but a file's last still fills its slot completely, and a
    // short read ends the file as a single read would.
    size_t chunk = ioSize(job);
    iovec iov[kReadSlots];
    for (;;) {
        uint16_t k = job.queue.freeSlots();  // at least one: the caller waited for it
        if (k > kReadSlots) k = kReadSlots;
        for (uint16_t i = 0; i < k; ++i) iov[i] = {job.queue.inSlotAhead(i) + protocol::kHeaderSize, chunk};
        ssize_t m = platform::readvBlocking(fd, iov, int(k));
        if (m < 0) {
            ulog(MSG_FAILED_READING, kPrefix, path.c_str(), errText());
            return reportEntry(job, code::kReadErr);
        }
        uint16_t full = uint16_t(size_t(m) / chunk);
        size_t rest = size_t(m) % chunk;
        // Slots read completely carry MOF; a partly filled one (or an empty
        // first one) carries ENDF. A read that ended exactly on a slot
        // boundary is followed by another read, which decides.
        bool ends = full < k && (rest > 0 || full == 0);
        for (uint16_t i = 0; i < full; ++i) writeHeader(job.queue.inSlotAhead(i), code::kMof, 0, chunk);
        if (ends) writeHeader(job.queue.inSlotAhead(full), code::kEndf, 0, rest);
        if (job.queue.countup(uint16_t(full + (ends ? 1 : 0))) != 0) return Outcome::jobOver();
        if (ends) return Outcome::done();
        if (job.queue.waitFreeSlot() != 0) return Outcome::jobOver();
    }
}

// A raw device listed in the database file list: exactly `size` bytes.
Outcome sendRawDevice(BackupJob& job, const std::string& path, uint32_t size) {
    constexpr const char* kPrefix = "(send_file) ";
    if (logVerbose()) {
        std::printf("%sRaw device file %s, fileSize=%d\n", kPrefix, path.c_str(), int(size));
        std::fflush(stdout);
    }
    int fd = ::open(path.c_str(), O_RDONLY);
    if (fd < 0) {
        ulog(MSG_FAIED_OPEN, kPrefix, path.c_str(), errText());
        return reportEntry(job, code::kNoFile, std::string(lastComponent(path)).c_str());
    }
    size_t io = ioSize(job);
    Outcome r;
    while (size > 0) {
        size_t chunk = size <= io ? size : io;
        size_t got = 0;
        while (got < chunk) {
            ssize_t m = ::read(fd, payload(job) + got, chunk - got);
            if (m < 0 && errno == EINTR) continue;
            if (m <= 0) break;
            got += size_t(m);
        }
        if (got < chunk) {
            if (errno == 0) errno = EIO;
            ulog(MSG_FAILED_READING, kPrefix, path.c_str(), errText());
            r = reportEntry(job, code::kReadErr);
            break;
        }
        if ((r = publish(job, chunk == size ? code::kEndf : code::kMof, 0, chunk)).isJobOver()) break;
        size -= uint32_t(chunk);
        if (size > 0 && (r = waitForSlot(job)).isJobOver()) break;
    }
    ::close(fd);
    return r;
}

}  // namespace

bool restartPending(const JobContext& ctx) { return !ctx.restartPath.empty() || ctx.restartOffset != 0; }

void installWatchdog(BackupJob& job) {
    platform::deferSignal(SIGALRM, [&job](int) { watchdogAction(job); });
}

void watchdogOff(BackupJob& job) {
    if (job.watchdog) transport::armAlarm(0, 1);
}

void watchdogOn(BackupJob& job) {
    if (job.watchdog) transport::armAlarm(kWatchdogSeconds, job.timeDivisor);
}

void atPacketBoundary(BackupJob& job) {
    // Runs deferred signals: a WATCH_DOG that is due, the sender's death, a
    // SIGTERM.
    platform::dispatchPendingSignals();
    job.queue.reportSpanTape();
}

// The deferred SIGALRM action: queue the keep-alive now, or right after the
// packet being built.
void watchdogAction(BackupJob& job) {
    if (!job.watchdog) return;
    if (job.building) {
        job.watchdogPending = true;
        return;
    }
    // A queue that broke ends the job at the backup's next step, which
    // finds it broken too.
    if (queuePacket(job, code::kWatchDog, nullptr, 0, 0).isJobOver()) return;
    transport::armAlarm(kWatchdogSeconds, job.timeDivisor);
}

Outcome queuePacket(BackupJob& job, int8_t packetCode, const uint8_t* data, uint16_t length, uint8_t version) {
    Building building(job);
    if (job.queue.waitFreeSlot() != 0) return Outcome::jobOver();
    size_t n = length <= job.queue.slotPayloadCapacity() ? length : job.queue.slotPayloadCapacity();
    if (n) std::memcpy(payload(job), data, n);
    return publish(job, packetCode, version, n);
}

Outcome queueStatus(BackupJob& job, int8_t packetCode, const char* text) {
    if (restartPending(job.ctx)) return Outcome::done();
    Building building(job);
    if (job.queue.waitFreeSlot() != 0) return Outcome::jobOver();
    size_t length = 0;
    if (text) {
        size_t n = std::strlen(text);
        size_t room = job.queue.slotPayloadCapacity() - 1;
        if (n > room) n = room;
        std::memcpy(payload(job), text, n);
        payload(job)[n] = 0;
        length = n + 1;
    }
    return publish(job, packetCode, kStatusVersion, length);
}

Outcome reportEntry(BackupJob& job, int8_t packetCode, const char* text) {
    Outcome queued = queueStatus(job, packetCode, text);
    return queued.isJobOver() ? queued : Outcome::entryFailed();
}

Outcome sendAttributes(BackupJob& job, struct stat& st, std::string_view name, uint8_t kind, const std::string& path, bool dataFollows) {
    if (restartPending(job.ctx)) return Outcome::done();
    if (kind == kKindSpecial) {
        uint32_t listed = 0;
        st.st_size = (S_ISCHR(st.st_mode) && lookupRawSize(job.ctx, path.c_str(), listed)) ? off_t(listed) : 0;
    }
    protocol::BackupAttributes a = attributesFromStat(st, name, kind == kKindSpecial ? protocol::kKindEntry : kind, job.inodes);
    watchdogOff(job);
    {
        Building building(job);
        if (job.queue.waitFreeSlot() != 0) return Outcome::jobOver();
        size_t length = protocol::encodeBackupAttributes(a, {payload(job), job.queue.slotPayloadCapacity()});
        if (length == 0) invariantBroken("sendAttributes", "a name too long for the attribute record");
        // The header of an entry whose data follows at once leaves with them.
        if (Outcome r = publish(job, code::kFileHeader, 0, length, dataFollows); r.isJobOver()) return r;
    }
    watchdogOn(job);
    return Outcome::done();
}

Outcome send_file(BackupJob& job, platform::UniqueFd file, const struct stat& st, std::string_view linkTarget,
                  const std::string& path) {
    watchdogOff(job);
    Outcome r;
    {
        Building building(job);
        if (job.queue.waitFreeSlot() != 0) return Outcome::jobOver();
        uint32_t listed = 0;
        if (S_ISREG(st.st_mode)) {
            r = sendRegular(job, file.get(), path);
            file.reset();
        } else if (S_ISLNK(st.st_mode)) {
            size_t n = linkTarget.size();
            if (n > job.queue.slotPayloadCapacity()) n = job.queue.slotPayloadCapacity();
            if (n) std::memcpy(payload(job), linkTarget.data(), n);
            r = publish(job, code::kEndf, 0, n);
        } else if (S_ISCHR(st.st_mode) && lookupRawSize(job.ctx, path.c_str(), listed)) {
            r = sendRawDevice(job, path, listed);
        } else {
            r = publish(job, code::kEndf, 0, 0);
        }
    }
    if (r.isDone()) recordGrooming(job, path, st, "(send_file) ");
    watchdogOn(job);
    return r;
}

namespace {

// What of an entry can be sent: an open regular file, a link's target, or
// (for a special file) its attributes alone. When nothing can, the status
// packet that says why is queued instead and `send` is false.
struct EntrySource {
    bool send = true;
    Outcome refused;  // reportEntry's result when nothing is sent
    platform::UniqueFd file;
    bool timesKept = false;  // read without touching the access time
    char target[kLinkBuffer];
    size_t targetLength = 0;
};

void refuse(BackupJob& job, EntrySource& source, int8_t code, const std::string& name) {
    source.send = false;
    source.refused = reportEntry(job, code, name.c_str());
}

// Opens a regular file (and takes its read lock where locks are checked or
// mandatory), reads a link's target, or checks that a special file may be
// sent; logs and refuses what cannot be.
void openEntry(BackupJob& job, int dirFd, const std::string& path, const std::string& name, const struct stat& st, int spare,
               EntrySource& source) {
    constexpr const char* kPrefix = "(backup_file) ";
    if (name.size() > protocol::kMaxRecordName) {
        // The attribute record cannot carry the name: reported like an entry
        // that cannot be opened.
        errno = ENAMETOOLONG;
        ulog(MSG_FAILED_OPEN_REGULAR, kPrefix, path.c_str(), errText());
        refuse(job, source, code::kNoFile, name);
    } else if (S_ISREG(st.st_mode)) {
        platform::ReadOpen opened = platform::openToRead(dirFd, name.c_str(), job.ctx.jobSettings.resetAccessTime);
        source.file = platform::UniqueFd(opened.fd);
        source.timesKept = opened.accessTimeKept;
        if (!source.file) {
            ulog(MSG_FAILED_OPEN_REGULAR, kPrefix, path.c_str(), errText());
            refuse(job, source, code::kNoFile, name);
            return;
        }
        bool mandatory = spare == 0 && (st.st_mode & S_ISGID) && !(st.st_mode & S_IXGRP);
        if (!job.ctx.jobSettings.checkLocks && !mandatory) return;
        int l = platform::lockFile(source.file.get(), platform::kReadLock, job.ctx.retryCount(), job.ctx.retryInterval(),
                                   unsigned(job.ctx.jobSettings.divisor()));
        if (l >= 0) return;
        int saved = errno;
        source.file.reset();
        errno = saved;
        if (l == -2) {
            ulog(MSG_LOCKED_ANOTHER_PROCESS, kPrefix, path.c_str());
            refuse(job, source, code::kLocked, name);
        } else {
            ulog(MSG_FAILED_LOCK, kPrefix, path.c_str(), errText());
            refuse(job, source, code::kLockErr, name);
        }
    } else if (S_ISLNK(st.st_mode)) {
        ssize_t n = ::readlinkat(dirFd, name.c_str(), source.target, sizeof source.target);
        if (n < 0) {
            ulog(MSG_FAILED_READ_CONTENTS_SYMBOLIC_LINK, kPrefix, path.c_str(), errText());
            refuse(job, source, code::kLinkErr, name);
            return;
        }
        source.targetLength = size_t(n);
    } else if (::geteuid() != 0) {
        ulog(MSG_FAILED_ACCESS_SPECIAL, kPrefix, path.c_str());
        refuse(job, source, code::kNoFile, name);
    }
}

}  // namespace

Outcome backup_file(BackupJob& job, int dirFd, const std::string& path, std::string_view name, struct stat& st, int spare) {
    constexpr const char* kPrefix = "(backup_file) ";
    if (!job.ctx.restartPath.empty()) return Outcome::done();
    const bool verbose = logVerbose();
    bool special = S_ISBLK(st.st_mode) || S_ISCHR(st.st_mode) || S_ISFIFO(st.st_mode);
    if (!S_ISREG(st.st_mode) && !S_ISLNK(st.st_mode) && !special) {
        if (verbose) {
            std::printf("Unknown file mode: %s\n", path.c_str());
            std::fflush(stdout);
        }
        return Outcome::done();
    }
    const std::string nameText(name);
    EntrySource source;
    openEntry(job, dirFd, path, nameText, st, spare, source);
    Outcome r = source.refused;
    struct stat before = st;
    if (source.send) {
        r = sendAttributes(job, st, name, special ? kKindSpecial : protocol::kKindEntry, path,
                           S_ISREG(st.st_mode) || S_ISLNK(st.st_mode));
        if (r.isJobOver()) {
            ulog(MSG_FAILED_SEND_ATTRIBUTES, kPrefix, path.c_str());
            return r;
        }
        if (verbose) {
            std::printf("ws_backup: send [%s]\n", path.c_str());
            std::fflush(stdout);
        }
        r = send_file(job, std::move(source.file), st, std::string_view(source.target, source.targetLength), path);
    }
    if (job.ctx.jobSettings.resetAccessTime && !S_ISLNK(st.st_mode) && !source.timesKept &&
        setFileTimesAt(dirFd, nameText.c_str(), before) != 0)
        ulog(MSG_FAILED_SET_TIME, kPrefix, path.c_str(), errText());
    return r;
}

int setFileTimes(const std::string& path, const struct stat& st) { return setFileTimesAt(AT_FDCWD, path.c_str(), st); }

int setFileTimesAt(int dirFd, const char* name, const struct stat& st) {
    // utime's seconds, kept here to the nanosecond that stat reported.
    timespec times[2] = {st.st_atim, st.st_mtim};
    return ::utimensat(dirFd, name, times, 0);
}

bool lookupRawSize(const JobContext& ctx, const char* path, uint32_t& sizeOut) {
    const std::vector<uint8_t>& list = ctx.dbFileList;
    size_t at = 0;
    while (list.size() - at >= 5) {
        uint32_t size = wire::loadLe32(list.data() + at);
        const char* name = reinterpret_cast<const char*>(list.data() + at + 4);
        size_t room = list.size() - at - 4;
        size_t n = strnlen(name, room);
        if (n == room) return false;  // no NUL: the list ends here
        // Compared from a copy of at most 1023 characters.
        if (std::string_view(name, n < kPathBuffer - 1 ? n : kPathBuffer - 1) == path) {
            sizeOut = size;
            return true;
        }
        size_t entry = (n + 5 + 3) & ~size_t(3);
        if (entry > list.size() - at) return false;
        at += entry;
    }
    return false;
}

void dumpRawList(const JobContext& ctx) {
    if (!logVerbose()) return;
    const std::vector<uint8_t>& list = ctx.dbFileList;
    size_t at = 0;
    while (list.size() - at >= 5) {
        uint32_t size = wire::loadLe32(list.data() + at);
        const char* name = reinterpret_cast<const char*>(list.data() + at + 4);
        size_t room = list.size() - at - 4;
        size_t n = strnlen(name, room);
        if (n == room) break;
        std::printf("dbfile[%s], %d\n", std::string(name, n).c_str(), int(size));
        size_t entry = (n + 5 + 3) & ~size_t(3);
        if (entry > list.size() - at) break;
        at += entry;
    }
    std::fflush(stdout);
}

}  // namespace tavik::backup
