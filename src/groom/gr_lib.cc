// Grooming's life cycle: BeginGrooming, RecordGrooming, EndGrooming, its
// work file writer grlog, and MigrateLog.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "groom/groom.h"
#include "log/ulog.h"
#include "nls/dates.h"
#include "nls/mbstring.h"
#include "nls/messages.h"
#include "platform/fd.h"
#include "platform/safe_path.h"
#include "platform/signals.h"
#include "platform/whole_io.h"
#include "wire/bytes.h"

namespace tavik::groom {

namespace {

using detail::GroomState;

constexpr const char* kBeginPrefix = "(BeginGrooming) ";
constexpr const char* kEndPrefix = "(EndGrooming) ";
constexpr const char* kLogPrefix = "(grlog) ";
constexpr const char* kMigratePrefix = "(MigrateLog) ";
constexpr size_t kGrlogMax = 2048;
// A candidates line is read into 1034 bytes ("%d %s\n" and the NUL); a path
// that could not fit whole is never recorded, so no line is ever split.
constexpr size_t kCandidateLine = 1034;
constexpr size_t kMaxCandidatePath = 1020;
// MigrateLog reads lines of up to 1053 characters.
constexpr size_t kMigrateLine = 1054;
// The copy file name is a text of 1024 bytes.
constexpr size_t kCopyFileSize = 1024;

// The built-in protected names, each with the final newline that
// new_element removes.
constexpr const char* kBuiltinProtected[] = {
    "/bin\n", "/etc\n", "/usr/bin\n", "/dev\n", "/lib\n", "/usr/lib\n", "/sbin\n", "/usr/sbin\n",
    "tavik\n", "Korvane\n", "/kernel\n", "/usr/kernel\n", "/devices\n", "/var/sadm/pkg\n",
};
// Room for the built-in names, the two package values and the end mark.
constexpr size_t kProtectedTableSize = 32;
static_assert(sizeof kBuiltinProtected / sizeof kBuiltinProtected[0] + 2 + 1 <= kProtectedTableSize);

constexpr const char* kServerPkgInfo = "/var/sadm/pkg/Korvane/pkginfo";
constexpr const char* kAgentPkgInfo = "/var/sadm/pkg/TAVIK/pkginfo";

// Makes an empty temporary file "<tempDir>/<stem>XXXXXX" and returns its
// name, or "" (errno set) when none could be made. mkstemp replaces the
// name-only tmpnam of older systems: no other process can take the name
// between choosing and opening it.
std::string makeTemp(const GroomingEnvironment& environment, const char* stem, int* fdOut = nullptr) {
    std::string pattern = environment.tempDir + "/" + stem + "XXXXXX";
    std::vector<char> name(pattern.begin(), pattern.end());
    name.push_back('\0');
    int fd = mkstemp(name.data());
    if (fd < 0) return std::string();
    if (fdOut) *fdOut = fd; else close(fd);
    return std::string(name.data());
}

void removeFile(std::string& name) {
    if (!name.empty()) unlink(name.c_str());
    name.clear();
}

void closeCandidates(GroomState& s) {
    if (s.candidates) fclose(s.candidates);
    s.candidates = nullptr;
}

// Forgets the identities without writing what is pending.
void closeIdentities(GroomState& s) {
    if (s.identitiesFd >= 0) close(s.identitiesFd);
    s.identitiesFd = -1;
    s.pendingCount = 0;
    s.lastDirectory.clear();
    s.lastDirectoryKnown = false;
    s.lastDirectoryId = {};
}

void closeWorkFile(GroomState& s) {
    if (s.workFd >= 0) close(s.workFd);
    s.workFd = -1;
}

// A job's write: signals recorded meanwhile are acted on.
bool writeAll(int fd, const char* data, size_t len) { return platform::writeAll(fd, data, len, true); }

// Runs "sort -n -r -o <sorted> <candidates>": the candidates by descending
// sequence number. The command's result is not looked at; a missing sorted
// list shows when it is read. The child is started without a shell (the
// names never pass through one), with SIGCHLD blocked so that its end is not
// taken for the death of another child of the job; a SIGCHLD that another
// child raised meanwhile is raised again.
void runSort(GroomState& s, const std::string& sorted, const std::string& candidates) {
    platform::SignalBlock block(SIGCHLD);
    pid_t pid = fork();
    if (pid < 0) return;
    if (pid == 0) {
        sigprocmask(SIG_SETMASK, &block.previousMask(), nullptr);
        execlp("sort", "sort", "-n", "-r", "-o", sorted.c_str(), candidates.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    s.sortPid = pid;
    int status;
    while (waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR) break;
        platform::dispatchPendingSignals();
    }
    s.sortPid = -1;
    sigset_t only;
    sigemptyset(&only);
    sigaddset(&only, SIGCHLD);
    struct timespec zero = {0, 0};
    int consumed = sigtimedwait(&only, nullptr, &zero);
    siginfo_t other = {};
    if (consumed == SIGCHLD &&
        waitid(P_ALL, 0, &other, WEXITED | WSTOPPED | WNOHANG | WNOWAIT) == 0 && other.si_pid != 0) {
        raise(SIGCHLD);
    }
}

void storeLe64(uint8_t* p, uint64_t v) {
    wire::storeLe32(p, uint32_t(v));
    wire::storeLe32(p + 4, uint32_t(v >> 32));
}
uint64_t loadLe64(const uint8_t* p) { return wire::loadLe32(p) | uint64_t(wire::loadLe32(p + 4)) << 32; }

// What a candidate was when it was recorded.
struct Recorded {
    platform::FileIdentity file;
    platform::FileIdentity directory;
    uint8_t kind = 0;
};

// Writes the pending identity records after those already written; false
// (errno set) when they could not all be written.
bool flushIdentities(GroomState& s) {
    size_t length = s.pendingCount * detail::kIdentityRecordSize;
    s.pendingCount = 0;
    return s.identitiesFd >= 0 && writeAll(s.identitiesFd, reinterpret_cast<const char*>(s.pending.data()), length);
}

void keepIdentities(GroomState& s, const Recorded& r) {
    using namespace detail;
    uint8_t* p = s.pending.data() + s.pendingCount * kIdentityRecordSize;
    storeLe64(p + kFileDevAt, r.file.dev);
    storeLe64(p + kFileInoAt, r.file.ino);
    storeLe64(p + kDirDevAt, r.directory.dev);
    storeLe64(p + kDirInoAt, r.directory.ino);
    p[kKindAt] = r.kind;
    if (++s.pendingCount == kIdentityBatch) flushIdentities(s);  // a short file shows when it is read
}

// The identities of candidate `sequence`; false (errno set) when they cannot
// be read.
bool recordedIdentities(const GroomState& s, long sequence, Recorded& r) {
    using namespace detail;
    uint8_t p[kIdentityRecordSize];
    off_t at = off_t(sequence - 1) * off_t(kIdentityRecordSize);
    ssize_t n = pread(s.identitiesFd, p, sizeof p, at);
    if (n != ssize_t(sizeof p)) {
        if (n >= 0) errno = EIO;
        return false;
    }
    r.file = {dev_t(loadLe64(p + kFileDevAt)), ino_t(loadLe64(p + kFileInoAt))};
    r.directory = {dev_t(loadLe64(p + kDirDevAt)), ino_t(loadLe64(p + kDirInoAt))};
    r.kind = p[kKindAt];
    return true;
}

bool isLeapYear(int year) { return (year % 400 == 0) || (year % 4 == 0 && year % 100 != 0); }

int lastDayOfMonth(int month, int year) {
    static const int kDays[12] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    if (month == 1 && isLeapYear(year)) return 29;
    return kDays[month];
}

// Where a directory descriptor really is: the kernel's name for it, or
// realpath of the name used when /proc is not mounted.
bool actualDirectory(int dirFd, const std::string& used, std::string& out) {
    char link[64];
    snprintf(link, sizeof link, "/proc/self/fd/%d", dirFd);
    char buf[PATH_MAX];
    ssize_t n = readlink(link, buf, sizeof buf - 1);
    if (n > 0) {
        buf[n] = '\0';
        out = buf;
        return true;
    }
    if (!realpath(used.c_str(), buf)) return false;
    out = buf;
    return true;
}

enum class Removal { Skipped, Removed, Failed };

// Removes one candidate that is not a directory, if it is still what was
// recorded. The directory is reached without links that another user could
// have planted and must be the one recorded; the file is examined and
// removed relative to it and must be the one recorded too. The protected
// test is made again on the directory's real name: a link that root owns
// cannot lead the deletion into a protected place or directly under "/".
// Failed comes with errno set (ESTALE: the directory or the file is not the
// one recorded); a file or directory that is gone is Skipped. `st` receives
// the file's status.
Removal removeCandidate(const char* path, const GroomElement* list, const Recorded& recorded, struct stat& st) {
    if (recorded.kind != detail::kKindFile || IsProtected(path, list) != 0) return Removal::Skipped;
    platform::PathParts parts = platform::splitLast(path);
    std::string base(parts.name);
    if (base.empty() || base == "." || base == "..") return Removal::Skipped;
    platform::UniqueFd dirFd = platform::openDirectory(parts.directory);
    if (!dirFd) return errno == ENOENT ? Removal::Skipped : Removal::Failed;
    if (fstat(dirFd.get(), &st) != 0) return Removal::Failed;
    if (platform::identityOf(st) != recorded.directory) {
        errno = ESTALE;
        return Removal::Failed;
    }
    std::string real;
    std::string dir(parts.directory.empty() ? std::string_view(".") : parts.directory);
    if (!actualDirectory(dirFd.get(), dir, real) || real == "/") return Removal::Skipped;
    std::string full = real + "/" + base;
    if (IsProtected(full.c_str(), list) != 0) return Removal::Skipped;
    if (fstatat(dirFd.get(), base.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
        return errno == ENOENT ? Removal::Skipped : Removal::Failed;
    }
    if (platform::identityOf(st) != recorded.file) {
        // A walk that follows links records a link by what it leads to; the
        // link is that link still when it leads there now (only the link is
        // removed, never what it leads to).
        struct stat target;
        if (!S_ISLNK(st.st_mode) || fstatat(dirFd.get(), base.c_str(), &target, 0) != 0 ||
            platform::identityOf(target) != recorded.file) {
            errno = ESTALE;
            return Removal::Failed;
        }
    }
    if (S_ISDIR(st.st_mode)) return Removal::Skipped;
    if (unlinkat(dirFd.get(), base.c_str(), 0) != 0) return Removal::Failed;
    return Removal::Removed;
}

// Reads one line of at most size-1 bytes; a longer line is read to its end
// and dropped. False at the end of the file.
bool readBoundedLine(FILE* in, char* buf, size_t size, bool& whole) {
    if (!fgets(buf, int(size), in)) return false;
    size_t len = strlen(buf);
    whole = len > 0 && buf[len - 1] == '\n';
    if (!whole && len == size - 1) {
        int c;
        while ((c = fgetc(in)) != EOF && c != '\n') {
        }
    } else if (!whole) {
        whole = true;  // the last line of the file, without its newline
    }
    return true;
}

}  // namespace

time_t GroomAgeLimit(time_t start, int nMonths) {
    struct tm when;
    localtime_r(&start, &when);
    int startDay = when.tm_mday;
    when.tm_mon -= nMonths;
    when.tm_isdst = -1;
    mktime(&when);
    if (when.tm_mday < startDay) {
        // The target month was shorter and the day ran into the next month.
        when.tm_mon -= 1;
        if (when.tm_mon < 0) {
            when.tm_mon += 12;
            when.tm_year -= 1;
        }
        when.tm_mday = lastDayOfMonth(when.tm_mon, when.tm_year + 1900);
    }
    when.tm_hour = when.tm_min = when.tm_sec = 0;
    when.tm_isdst = -1;
    return mktime(&when);
}

void grlog(Grooming& g, const char* format, ...) {
    char text[kGrlogMax];
    va_list args;
    va_start(args, format);
    int n = vsnprintf(text, sizeof text, format, args);
    va_end(args);
    if (n < 0) return;
    size_t len = size_t(n) < sizeof text ? size_t(n) : sizeof text - 1;
    GroomState& s = g.state;
    if (s.workFd == -1 && !s.workFile.empty()) {
        s.workFd = open(s.workFile.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
        if (s.workFd < 0) {
            fprintf(stderr, GroomText(kMsgWorkFileOpen), kLogPrefix, s.workFile.c_str(), errText());
            s.workFd = -2;
        }
    }
    if (s.workFd >= 0) {
        if (writeAll(s.workFd, text, len)) return;
    }
    fwrite(text, 1, len, stderr);
}

namespace {

// A grooming left unfinished by this process gives way to the new one.
void resetGrooming(GroomState& s) {
    closeCandidates(s);
    removeFile(s.candidatesFile);
    closeIdentities(s);
    closeWorkFile(s);
    s.startTime = 0;
    s.ageLimit = 0;
    s.sequence = 1;
    s.groomedCount = 0;
    s.protectedList.reset();
}

// The work file and the copy file. A rotation set's copy file is named after
// the set in the log directory, which every job process may write: a set
// name that is not a plain file name ("/" in it, "." or "..", or none) would
// put it elsewhere, or follow a directory link that someone planted there.
// Such a grooming is refused before anything is written.
int chooseFiles(Grooming& g, const char* logDir, std::string_view set, const protocol::GroomingRecord& record) {
    GroomState& s = g.state;
    s.owner = getpid();
    s.copyFile.clear();
    s.kind = (record.fOptions & protocol::kGroomDelete) ? kKindDelete : kKindRotation;
    if (s.kind == kKindRotation && (set.empty() || set == "." || set == ".." || set.find('/') != set.npos)) {
        ulog("%sThe rotation set name [%.*s] is not a plain file name", kBeginPrefix, int(set.size()), set.data());
        return -1;
    }
    s.workFile = makeTemp(g.environment, "tvkgr");
    if (s.workFile.empty()) return -1;
    char copy[kCopyFileSize];
    if (s.kind == kKindDelete) {
        snprintf(copy, sizeof copy, "%s/migrate.log", logDir);
    } else {
        snprintf(copy, sizeof copy, "%s/%.*s.grm", logDir, int(set.size()), set.data());
    }
    s.copyFile = copy;
    return 0;
}

// groom.cntl, then the built-in names and the package homes, each put at the
// front. The control file is read afresh for every grooming: its list is
// rebuilt each time, so a second grooming in one process must not find the
// file "unchanged" and lose its protected paths.
int loadProtectedList(Grooming& g, const std::string& control) {
    GroomState& s = g.state;
    s.controlFileTime = 0;
    if (dir_cntl(g, control.c_str(), s.protectedList) != 0) {
        grlog(g, "%s", GroomText(kMsgControlFile));
        return -1;
    }
    std::vector<std::string> names(std::begin(kBuiltinProtected), std::end(kBuiltinProtected));
    const std::string& root = g.environment.packageRoot;
    std::string value;
    if (PackageValue((root + kServerPkgInfo).c_str(), "KRV_HOME", value)) names.push_back(value + "\n");
    if (PackageValue((root + kAgentPkgInfo).c_str(), "TVKBIN", value)) names.push_back(value + "/tavik\n");
    for (const std::string& name : names) {
        GroomList element = new_element(g, name.c_str());
        if (!element) {
            grlog(g, "%s", GroomText(kMsgProtectedList));
            return -1;
        }
        element->next = std::move(s.protectedList);
        s.protectedList = std::move(element);
    }
    return 0;
}

// The identities file (unlinked at once) and the candidates file.
int openCandidates(Grooming& g) {
    GroomState& s = g.state;
    int fd = -1;
    std::string identities = makeTemp(g.environment, "tvkgi", &fd);
    if (identities.empty()) return -1;
    unlink(identities.c_str());
    fcntl(fd, F_SETFD, FD_CLOEXEC);
    s.identitiesFd = fd;
    s.candidatesFile = makeTemp(g.environment, "tvkgc", &fd);
    if (s.candidatesFile.empty()) {
        closeIdentities(s);
        return -1;
    }
    s.candidates = fdopen(fd, "w+");
    if (!s.candidates) {
        close(fd);
        removeFile(s.candidatesFile);
        closeIdentities(s);
        return -1;
    }
    return 0;
}

}  // namespace

int BeginGrooming(Grooming& g, const char* logDir, const char* groomSet, const protocol::GroomingRecord& record,
                  const protocol::TapeRecord& tape) {
    GroomState& s = g.state;
    resetGrooming(s);
    std::string_view set(groomSet, strnlen(groomSet, protocol::kGroomSetTextSize));
    if (chooseFiles(g, logDir, set, record) != 0) return -1;
    // The work file's head.
    grlog(g, "\n");
    grlog(g, GroomText(kMsgTapeName), tape.tapeName.c_str());
    grlog(g, GroomText(kMsgSessionNumber), tape.sessionNumber.c_str());
    grlog(g, "\n");
    if (loadProtectedList(g, ControlFileOf(logDir)) != 0) return -1;
    s.record = record;
    if (openCandidates(g) != 0) return -1;
    s.startTime = time(nullptr);
    return 0;
}

namespace {

// Whether `path` may become a candidate.
bool eligible(GroomState& s, const char* path, const struct stat& status) {
    if (!s.candidates || s.startTime == 0) return false;
    // A name that could break its candidates line is never recorded: a
    // newline in it, or a length that would split the line, would let the
    // rest of the name read as a candidate of its own.
    size_t len = strlen(path);
    if (len == 0 || len > kMaxCandidatePath || memchr(path, '\n', len)) return false;
    if (IsProtected(path, s.protectedList.get()) != 0) return false;
    if (!S_ISDIR(status.st_mode) && !nls::MbStrChr(path + 1, '/')) return false;
    if (s.kind == kKindRotation) {
        if (s.ageLimit == 0) s.ageLimit = GroomAgeLimit(s.startTime, s.record.nMonths);
        if (!(status.st_atime < s.ageLimit && status.st_mtime < s.ageLimit)) return false;
    }
    return true;
}

void record(GroomState& s, const char* path, const struct stat& status, platform::FileIdentity directory) {
    // Flushed line by line, so that the file on disk always holds whole lines.
    fprintf(s.candidates, "%d %s\n", s.sequence++, path);
    fflush(s.candidates);
    bool isDirectory = S_ISDIR(status.st_mode);
    keepIdentities(s, {platform::identityOf(status), directory,
                       isDirectory ? detail::kKindDirectory : detail::kKindFile});
}

}  // namespace

int RecordGrooming(Grooming& g, const char* path, const struct stat& status, platform::FileIdentity directory) {
    GroomState& s = g.state;
    if (eligible(s, path, status)) record(s, path, status, directory);
    return 0;
}

int RecordGrooming(Grooming& g, const char* path, const struct stat& status) {
    GroomState& s = g.state;
    if (!eligible(s, path, status)) return 0;
    // A directory is never deleted: its own directory does not matter.
    if (!S_ISDIR(status.st_mode)) {
        std::string_view directory = platform::splitLast(path).directory;
        if (!s.lastDirectoryKnown || directory != s.lastDirectory) {
            s.lastDirectory.assign(directory);
            s.lastDirectoryKnown = true;
            // {0, 0} when it cannot be reached: the file is then never deleted.
            s.lastDirectoryId = {};
            platform::UniqueFd dirFd = platform::openDirectory(directory);
            struct stat st;
            if (dirFd && fstat(dirFd.get(), &st) == 0) s.lastDirectoryId = platform::identityOf(st);
        }
    }
    record(s, path, status, S_ISDIR(status.st_mode) ? platform::FileIdentity{} : s.lastDirectoryId);
    return 0;
}

int EndGrooming(Grooming& g) {
    GroomState& s = g.state;
    if (!s.candidates) return -1;
    closeCandidates(s);
    flushIdentities(s);  // a record that could not be written reads short below

    s.sortedFile = makeTemp(g.environment, "tvkgs");
    if (s.sortedFile.empty()) {
        grlog(g, GroomText(kMsgNoSortedName), kEndPrefix, errText());
        removeFile(s.candidatesFile);
        return 2;
    }
    runSort(s, s.sortedFile, s.candidatesFile);
    removeFile(s.candidatesFile);

    FILE* sorted = fopen(s.sortedFile.c_str(), "r");
    if (!sorted) {
        grlog(g, GroomText(kMsgCannotOpen), kEndPrefix, s.sortedFile.c_str(), errText());
        removeFile(s.sortedFile);
        return 2;
    }
    char line[kCandidateLine];
    bool whole = true;
    while (readBoundedLine(sorted, line, sizeof line, whole)) {
        if (!whole) continue;
        char* space = strchr(line, ' ');
        if (!space) continue;
        char* path = space + 1;
        path[strcspn(path, "\n")] = '\0';
        if (*path == '\0') continue;
        char* end = nullptr;
        long sequence = strtol(line, &end, 10);
        if (end != space || sequence < 1 || sequence >= s.sequence) continue;
        struct stat st;
        Recorded recorded;
        Removal done = recordedIdentities(s, sequence, recorded)
                           ? removeCandidate(path, s.protectedList.get(), recorded, st)
                           : Removal::Failed;
        if (done == Removal::Skipped) continue;
        if (done == Removal::Failed) {
            grlog(g, GroomText(kMsgCannotRemove), kEndPrefix, path, errText());
            continue;
        }
        grlog(g, "%s %s %12lld %s\n", nls::DateTextOf(st.st_mtime, 1).c_str(), nls::TimeTextOf(st.st_mtime, 1).c_str(),
              static_cast<long long>(st.st_size), path);
        ++s.groomedCount;
    }
    fclose(sorted);
    removeFile(s.sortedFile);
    closeIdentities(s);
    grlog(g, "\n");
    grlog(g, GroomText(kMsgDeletedCount), s.groomedCount);
    closeWorkFile(s);
    return 0;
}

int MigrateLog(const char* workFile) {
    FILE* in = fopen(workFile, "r");
    if (!in) {
        ulog(MSG_FAIED_OPEN, kMigratePrefix, workFile, errText());
        return -1;
    }
    char line[kMigrateLine];
    bool whole = true;
    while (readBoundedLine(in, line, sizeof line, whole)) {
        if (!whole) continue;
        char words[4][kMigrateLine];
        int n = sscanf(line, "%1053s %1053s %1053s %1053s", words[0], words[1], words[2], words[3]);
        if (n == 4 && words[3][0] == '/') ulog(MSG_DELETE, words[3]);
    }
    fclose(in);
    return 0;
}

void RemoveGroomingTempFiles(Grooming& g) {
    GroomState& s = g.state;
    if (s.owner != getpid()) {
        // A child forked during grooming: the files are its parent's. It
        // only forgets them.
        if (s.candidates) fclose(s.candidates);
        s.candidates = nullptr;
        closeIdentities(s);
        if (s.workFd >= 0) close(s.workFd);
        s.workFd = -1;
        s.workFile.clear();
        s.candidatesFile.clear();
        s.sortedFile.clear();
        s.startTime = 0;
        return;
    }
    if (s.sortPid > 0) {
        kill(s.sortPid, SIGTERM);
        while (waitpid(s.sortPid, nullptr, 0) < 0 && errno == EINTR) {
        }
        s.sortPid = -1;
    }
    closeCandidates(s);
    closeIdentities(s);
    closeWorkFile(s);
    removeFile(s.workFile);
    removeFile(s.candidatesFile);
    removeFile(s.sortedFile);
    s.startTime = 0;
}

void ResetGrooming(Grooming& g) {
    RemoveGroomingTempFiles(g);
    GroomState& s = g.state;
    s.kind = 0;
    s.copyFile.clear();
    s.sequence = 1;
    s.ageLimit = 0;
    s.protectedList.reset();
    s.groomedCount = 0;
    s.controlFileTime = 0;
    s.record = protocol::GroomingRecord{};
}

const char* GroomingWorkFile(const Grooming& g) { return g.state.workFile.c_str(); }
const char* GroomingCopyFile(const Grooming& g) { return g.state.copyFile.c_str(); }
int GroomedCount(const Grooming& g) { return g.state.groomedCount; }
int GroomingKind(const Grooming& g) { return g.state.kind; }
const char* GroomingCandidatesFile(const Grooming& g) { return g.state.candidatesFile.c_str(); }

}  // namespace tavik::groom
