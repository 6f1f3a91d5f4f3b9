#include "backup/traverse.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <optional>
#include <vector>

#include "backup/attribute_record.h"
#include "backup/backup_state.h"
#include "backup/stream.h"
#include "filter/match.h"
#include "groom/groom.h"
#include "log/ulog.h"
#include "platform/dir_stream.h"
#include "platform/fs_type.h"
#include "request/job_context.h"
#include "transport/packet.h"

namespace tavik::backup {
namespace {

namespace code = protocol::code;
constexpr const char* kPrefix = "(ws_backup) ";

bool dot(const char* name) { return name[0] == '.' && (name[1] == 0 || (name[1] == '.' && name[2] == 0)); }

bool outsideTopList(const JobContext& ctx, const char* name) {
    const TopList& top = ctx.topList;
    if (backupState().dirDepth != 1 || top.names.empty()) return false;
    for (size_t offset : top.names)
        if (std::strcmp(top.text.data() + offset, name) == 0) return false;
    return true;
}

// The entry's attributes; false (logged) when they cannot be had, a path
// too long for the buffers included.
// The entry is examined by its name in the open directory, which spares the
// kernel a walk of the whole path per entry.
bool entryStat(const JobContext& ctx, int dirFd, const char* name, const std::string& path, struct stat& st) {
    bool follow = ctx.jobSettings.followLinks;
    int r = -1;
    if (path.size() < kPathBuffer) {
        r = ::fstatat(dirFd, name, &st, follow ? 0 : AT_SYMLINK_NOFOLLOW);
    } else {
        errno = ENAMETOOLONG;
    }
    if (r != 0) {
        ulog(follow ? MSG_FAILED_GET_ATTRIBUTES_STAT : MSG_FAILED_GET_ATTRIBUTES_LSTAT, kPrefix, path.c_str(),
             errText());
        return false;
    }
    return true;
}

bool isDirectory(const JobContext& ctx, const std::string& path) {
    struct stat st;
    int r = ctx.jobSettings.followLinks ? ::stat(path.c_str(), &st) : ::lstat(path.c_str(), &st);
    return r == 0 && S_ISDIR(st.st_mode);
}

// A path longer than the buffers: logged like an entry without attributes
// and reported to the front-end as an entry that cannot be opened.
Outcome reportTooLong(const JobContext& ctx, const std::string& path, const char* name) {
    errno = ENAMETOOLONG;
    ulog(ctx.jobSettings.followLinks ? MSG_FAILED_GET_ATTRIBUTES_STAT : MSG_FAILED_GET_ATTRIBUTES_LSTAT, kPrefix,
         path.c_str(), errText());
    return reportEntry(ctx, code::kNoFile, name);
}

Outcome leave(Outcome result) {
    backupState().dirDepth--;
    return result;
}

int skipCode(const JobContext& ctx, int8_t newCode) {
    return ctx.serverVersion >= kSkipCodesVersion ? newCode : code::kEndDir;
}

}  // namespace

void checkRestartPoint(JobContext& ctx, const std::string& path) {
    BackupState& b = backupState();
    if (b.restartFound) {
        ctx.restartPath.clear();
        return;
    }
    std::string_view mine(path);
    std::string_view theirs(ctx.restartPath);
    mine = mine.substr(b.sourceLength < mine.size() ? b.sourceLength : mine.size());
    theirs = theirs.substr(b.sourceLength < theirs.size() ? b.sourceLength : theirs.size());
    if (mine == theirs) {
        if (ctx.restartOffset != 0) ctx.restartPath.clear();
        b.restartFound = true;
    }
}

namespace {

// The first pass (mode 2): the files of the directory that the filter
// selects. Entries it could not examine go to `unexamined`, for the second
// pass to examine (and log) again.
Outcome sendFiles(JobContext& ctx, platform::DirStream& dir, const std::string& dirPath, const struct stat& dirStat,
                  std::vector<std::string>& unexamined) {
    BackupState& b = backupState();
    const bool newServer = ctx.serverVersion >= protocol::kNewServerVersion;
    const int dirFd = dir.fd();
    b.groomDirectory = platform::identityOf(dirStat);
    while (const platform::DirStream::Entry* e = dir.next()) {
        if (dot(e->name) || outsideTopList(ctx, e->name)) continue;
        atPacketBoundary();
        std::string path = dirPath + e->name;
        struct stat st;
        if (path.size() >= kPathBuffer) {
            if (!isDirectory(ctx, path)) {  // a directory is reported by the second pass
                if (Outcome r = reportTooLong(ctx, path, e->name); r.isJobOver()) return r;
            }
            continue;
        }
        if (e->type == DT_DIR) continue;  // the second pass examines it
        if (!entryStat(ctx, dirFd, e->name, path, st)) {
            unexamined.emplace_back(e->name);
            continue;
        }
        if (S_ISDIR(st.st_mode)) continue;
        bool take = filter::FileSelected(b.filter, path, st) == 1;
        if (!newServer && !take) take = filter::OldFileSelected(b.oldSelection, e->name, st) != 0;
        if (!take) continue;
        if (restartPending(ctx)) checkRestartPoint(ctx, path);
        if (Outcome r = backup_file(ctx, dirFd, path, e->name, st, 0); r.isJobOver()) return r;
    }
    return Outcome::done();
}

// One subdirectory that the second pass found: unless it is protected or
// left out by the selection, its attributes, its own walk and its access
// time put back.
Outcome descendInto(JobContext& ctx, int dirFd, const std::string& path, const char* name, struct stat& st,
                    const struct stat& dirStat, bool dirPatterns) {
    BackupState& b = backupState();
    const bool newServer = ctx.serverVersion >= protocol::kNewServerVersion;
    if (b.hooks.isProtectedDir && b.hooks.isProtectedDir(platform::identityOf(st))) {
        ulog(MSG_PROTECTED_DIRECTORY, kPrefix, path.c_str(), b.hooks.controlFile.c_str());
        return Outcome::done();
    }
    int submode = 2;
    if (newServer) {
        if (dirPatterns) {
            submode = int(filter::DirVerdictOf(b.filter, path + "/"));
            if (submode == 0) return Outcome::done();
        }
    } else if (b.dirDepth == 1 && b.oldSelection.dirCount != 0 && filter::OldDirListed(b.oldSelection, name) == 0) {
        return Outcome::done();
    }
    if (std::strlen(name) > protocol::kMaxRecordName) {
        errno = ENAMETOOLONG;
        ulog(MSG_FAILED_OPEN_SOURCE_DIR, kPrefix, path.c_str(), errText());
        return reportEntry(ctx, code::kNoFile, name);
    }
    if (newServer && restartPending(ctx)) checkRestartPoint(ctx, path);
    Outcome r = sendAttributes(ctx, st, name, 16, path);
    if (r.isJobOver()) {
        ulog(MSG_FAILED_SEND_ATTRIBUTES, kPrefix, path.c_str());
        return r;
    }
    if (newServer && b.grooming && !restartPending(ctx)) {
        int g = groom::RecordGrooming(path.c_str(), st, platform::identityOf(dirStat));
        if (g != 0) ulog(MSG_FAILED_RECORD_GROOMING_RET, kPrefix, path.c_str(), g);
    }
    bool timesKept = false;  // the subdirectory was read without touching its access time
    if (b.ancestors.push(st.st_dev, st.st_ino) == -2) {
        ulog(MSG_DETECTED_LINK_ITS_ANCESTOR, kPrefix, path.c_str());
        if (r = reportEntry(ctx, code::kEndDir); r.isJobOver()) return r;
    } else {
        r = ws_backup(ctx, path + "/", submode, st, &timesKept);
        b.ancestors.pop();
        if (r.isJobOver()) return r;
    }
    if (ctx.jobSettings.resetAccessTime && !timesKept && setFileTimesAt(dirFd, name, st) != 0)
        ulog(MSG_FAILED_SET_TIME, kPrefix, path.c_str(), errText());
    return r;
}

// The second pass: every subdirectory, and the entries the first pass could
// not examine. In mode 2 an entry that cannot be a directory was dealt with
// by the first pass and is passed over without another stat.
Outcome walkSubdirectories(JobContext& ctx, platform::DirStream& dir, const std::string& dirPath, int mode, const struct stat& dirStat,
                           const std::vector<std::string>& unexamined) {
    const BackupState& b = backupState();
    const bool followLinks = ctx.jobSettings.followLinks;
    const bool dirPatterns = !b.filter.DirIncPattern.empty() || !b.filter.DirExcPattern.empty();
    const int dirFd = dir.fd();
    const bool rewound = dir.rewind();
    for (;;) {
        const platform::DirStream::Entry* e = rewound ? dir.next() : nullptr;
        if (!e) {
            if (errno != 0) {
                std::printf("Failed in readdir(), %s\n", std::strerror(errno));
                std::fflush(stdout);
            }
            return Outcome::done();
        }
        if (dot(e->name) || outsideTopList(ctx, e->name)) continue;
        if (mode == 2 && !e->mayBeDirectory(followLinks) &&
            std::find(unexamined.begin(), unexamined.end(), e->name) == unexamined.end())
            continue;
        atPacketBoundary();
        std::string path = dirPath + e->name;
        struct stat st;
        if (path.size() + 1 >= kPathBuffer) {
            // No room for the directory's "/": refused and reported.
            if (isDirectory(ctx, path)) {
                if (Outcome r = reportTooLong(ctx, path, e->name); r.isJobOver()) return r;
            }
            continue;
        }
        if (!entryStat(ctx, dirFd, e->name, path, st)) continue;
        if (!S_ISDIR(st.st_mode)) continue;
        if (Outcome r = descendInto(ctx, dirFd, path, e->name, st, dirStat, dirPatterns); r.isJobOver()) return r;
    }
}

}  // namespace

Outcome ws_backup(JobContext& ctx, const std::string& dirPath, int mode, const struct stat& dirStat,
                  bool* accessTimeKept) {
    BackupState& b = backupState();
    const JobSettings& js = ctx.jobSettings;
    b.dirDepth++;
    if (logVerbose()) {
        std::printf("start traverse dir %s (%d)\n", dirPath.c_str(), int(b.dirDepth));
        std::fflush(stdout);
    }
    if (js.noCrossFs && dirStat.st_dev != b.rootDev) {
        ulog("Skip file system %s", dirPath.c_str());
        return leave(reportEntry(ctx, skipCode(ctx, code::kFsSkip)));
    }
    if (js.skipNfs && skip_nfs(ctx, dirPath.c_str(), dirStat.st_dev) != 0) {
        ulog(MSG_NFS_MOUNTED_DIRECTORY_SKIPPED, kPrefix, dirPath.c_str());
        return leave(reportEntry(ctx, skipCode(ctx, code::kNfsSkip)));
    }
    if (::access(dirPath.c_str(), R_OK | X_OK) != 0) {
        ulog(MSG_FAILED_ACCESS_DIRECTORY, kPrefix, dirPath.c_str(), errText());
        return leave(reportEntry(ctx, code::kNoDir));
    }
    platform::DirStream dir;
    if (!dir.open(dirPath.c_str(), js.resetAccessTime)) {
        ulog(MSG_FAILED_OPEN_SOURCE_DIR, kPrefix, dirPath.c_str(), errText());
        return leave(reportEntry(ctx, code::kNoDir));
    }
    if (accessTimeKept) *accessTimeKept = dir.accessTimeKept();
    std::vector<std::string> unexamined;
    if (mode == 2) {
        if (Outcome r = sendFiles(ctx, dir, dirPath, dirStat, unexamined); r.isJobOver()) return leave(r);
    }
    if (b.dirDepth >= ctx.maxDirDepth) {
        ulog(MSG_EXCEEDS_MAXIMUM_LEVEL, kPrefix, int(ctx.maxDirDepth));
    } else {
        if (Outcome r = walkSubdirectories(ctx, dir, dirPath, mode, dirStat, unexamined); r.isJobOver()) return leave(r);
    }
    dir.close();
    return leave(queueStatus(ctx, code::kEndDir));
}

}  // namespace tavik::backup
