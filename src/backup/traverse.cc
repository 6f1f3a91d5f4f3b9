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

bool outsideTopList(BackupJob& job, const char* name) {
    const TopList& top = job.ctx.topList;
    if (job.dirDepth != 1 || top.names.empty()) return false;
    for (size_t offset : top.names)
        if (std::strcmp(top.text.data() + offset, name) == 0) return false;
    return true;
}

// The entry's attributes; false (logged) when they cannot be had, a path
// too long for the buffers included.
// The entry is examined by its name in the open directory, which spares the
// kernel a walk of the whole path per entry.
bool entryStat(BackupJob& job, int dirFd, const char* name, const std::string& path, struct stat& st) {
    bool follow = job.ctx.jobSettings.followLinks;
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

bool isDirectory(BackupJob& job, const std::string& path) {
    struct stat st;
    int r = job.ctx.jobSettings.followLinks ? ::stat(path.c_str(), &st) : ::lstat(path.c_str(), &st);
    return r == 0 && S_ISDIR(st.st_mode);
}

// A path longer than the buffers: logged like an entry without attributes
// and reported to the front-end as an entry that cannot be opened.
Outcome reportTooLong(BackupJob& job, const std::string& path, const char* name) {
    errno = ENAMETOOLONG;
    ulog(job.ctx.jobSettings.followLinks ? MSG_FAILED_GET_ATTRIBUTES_STAT : MSG_FAILED_GET_ATTRIBUTES_LSTAT, kPrefix,
         path.c_str(), errText());
    return reportEntry(job, code::kNoFile, name);
}

Outcome leave(BackupJob& job, Outcome result) {
    job.dirDepth--;
    return result;
}

int skipCode(BackupJob& job, int8_t newCode) {
    return job.ctx.serverVersion >= kSkipCodesVersion ? newCode : code::kEndDir;
}

}  // namespace

void checkRestartPoint(BackupJob& job, const std::string& path) {
    if (job.restartFound) {
        job.ctx.restartPath.clear();
        return;
    }
    std::string_view mine(path);
    std::string_view theirs(job.ctx.restartPath);
    mine = mine.substr(job.sourceLength < mine.size() ? job.sourceLength : mine.size());
    theirs = theirs.substr(job.sourceLength < theirs.size() ? job.sourceLength : theirs.size());
    if (mine == theirs) {
        if (job.ctx.restartOffset != 0) job.ctx.restartPath.clear();
        job.restartFound = true;
    }
}

namespace {

// The first pass (mode 2): the files of the directory that the filter
// selects. Entries it could not examine go to `unexamined`, for the second
// pass to examine (and log) again.
Outcome sendFiles(BackupJob& job, platform::DirStream& dir, const std::string& dirPath, const struct stat& dirStat,
                  std::vector<std::string>& unexamined) {
    const bool newServer = job.ctx.serverVersion >= protocol::kNewServerVersion;
    const int dirFd = dir.fd();
    job.groomDirectory = platform::identityOf(dirStat);
    while (const platform::DirStream::Entry* e = dir.next()) {
        if (dot(e->name) || outsideTopList(job, e->name)) continue;
        atPacketBoundary(job);
        std::string path = dirPath + e->name;
        struct stat st;
        if (path.size() >= kPathBuffer) {
            if (!isDirectory(job, path)) {  // a directory is reported by the second pass
                if (Outcome r = reportTooLong(job, path, e->name); r.isJobOver()) return r;
            }
            continue;
        }
        if (e->type == DT_DIR) continue;  // the second pass examines it
        if (!entryStat(job, dirFd, e->name, path, st)) {
            unexamined.emplace_back(e->name);
            continue;
        }
        if (S_ISDIR(st.st_mode)) continue;
        bool take = filter::FileSelected(job.filter, path, st) == 1;
        if (!newServer && !take) take = filter::OldFileSelected(job.oldSelection, e->name, st) != 0;
        if (!take) continue;
        if (restartPending(job.ctx)) checkRestartPoint(job, path);
        if (Outcome r = backup_file(job, dirFd, path, e->name, st, 0); r.isJobOver()) return r;
    }
    return Outcome::done();
}

// One subdirectory that the second pass found: unless it is protected or
// left out by the selection, its attributes, its own walk and its access
// time put back.
Outcome descendInto(BackupJob& job, int dirFd, const std::string& path, const char* name, struct stat& st,
                    const struct stat& dirStat, bool dirPatterns) {
    const bool newServer = job.ctx.serverVersion >= protocol::kNewServerVersion;
    if (job.hooks.isProtectedDir && job.hooks.isProtectedDir(platform::identityOf(st))) {
        ulog(MSG_PROTECTED_DIRECTORY, kPrefix, path.c_str(), job.hooks.controlFile.c_str());
        return Outcome::done();
    }
    int submode = 2;
    if (newServer) {
        if (dirPatterns) {
            submode = int(filter::DirVerdictOf(job.filter, path + "/"));
            if (submode == 0) return Outcome::done();
        }
    } else if (job.dirDepth == 1 && job.oldSelection.dirCount != 0 && filter::OldDirListed(job.oldSelection, name) == 0) {
        return Outcome::done();
    }
    if (std::strlen(name) > protocol::kMaxRecordName) {
        errno = ENAMETOOLONG;
        ulog(MSG_FAILED_OPEN_SOURCE_DIR, kPrefix, path.c_str(), errText());
        return reportEntry(job, code::kNoFile, name);
    }
    if (newServer && restartPending(job.ctx)) checkRestartPoint(job, path);
    Outcome r = sendAttributes(job, st, name, 16, path);
    if (r.isJobOver()) {
        ulog(MSG_FAILED_SEND_ATTRIBUTES, kPrefix, path.c_str());
        return r;
    }
    if (newServer && job.grooming && !restartPending(job.ctx)) {
        int g = groom::RecordGrooming(job.ctx.grooming, path.c_str(), st, platform::identityOf(dirStat));
        if (g != 0) ulog(MSG_FAILED_RECORD_GROOMING_RET, kPrefix, path.c_str(), g);
    }
    bool timesKept = false;  // the subdirectory was read without touching its access time
    if (job.ancestors.push(st.st_dev, st.st_ino) == -2) {
        ulog(MSG_DETECTED_LINK_ITS_ANCESTOR, kPrefix, path.c_str());
        if (r = reportEntry(job, code::kEndDir); r.isJobOver()) return r;
    } else {
        r = ws_backup(job, path + "/", submode, st, &timesKept);
        job.ancestors.pop();
        if (r.isJobOver()) return r;
    }
    if (job.ctx.jobSettings.resetAccessTime && !timesKept && setFileTimesAt(dirFd, name, st) != 0)
        ulog(MSG_FAILED_SET_TIME, kPrefix, path.c_str(), errText());
    return r;
}

// The second pass: every subdirectory, and the entries the first pass could
// not examine. In mode 2 an entry that cannot be a directory was dealt with
// by the first pass and is passed over without another stat.
Outcome walkSubdirectories(BackupJob& job, platform::DirStream& dir, const std::string& dirPath, int mode, const struct stat& dirStat,
                           const std::vector<std::string>& unexamined) {
    const bool followLinks = job.ctx.jobSettings.followLinks;
    const bool dirPatterns = !job.filter.DirIncPattern.empty() || !job.filter.DirExcPattern.empty();
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
        if (dot(e->name) || outsideTopList(job, e->name)) continue;
        if (mode == 2 && !e->mayBeDirectory(followLinks) &&
            std::find(unexamined.begin(), unexamined.end(), e->name) == unexamined.end())
            continue;
        atPacketBoundary(job);
        std::string path = dirPath + e->name;
        struct stat st;
        if (path.size() + 1 >= kPathBuffer) {
            // No room for the directory's "/": refused and reported.
            if (isDirectory(job, path)) {
                if (Outcome r = reportTooLong(job, path, e->name); r.isJobOver()) return r;
            }
            continue;
        }
        if (!entryStat(job, dirFd, e->name, path, st)) continue;
        if (!S_ISDIR(st.st_mode)) continue;
        if (Outcome r = descendInto(job, dirFd, path, e->name, st, dirStat, dirPatterns); r.isJobOver()) return r;
    }
}

}  // namespace

Outcome ws_backup(BackupJob& job, const std::string& dirPath, int mode, const struct stat& dirStat,
                  bool* accessTimeKept) {
    const JobSettings& js = job.ctx.jobSettings;
    job.dirDepth++;
    if (logVerbose()) {
        std::printf("start traverse dir %s (%d)\n", dirPath.c_str(), int(job.dirDepth));
        std::fflush(stdout);
    }
    if (js.noCrossFs && dirStat.st_dev != job.rootDev) {
        ulog("Skip file system %s", dirPath.c_str());
        return leave(job, reportEntry(job, skipCode(job, code::kFsSkip)));
    }
    if (js.skipNfs && skip_nfs(job.ctx, dirPath.c_str(), dirStat.st_dev) != 0) {
        ulog(MSG_NFS_MOUNTED_DIRECTORY_SKIPPED, kPrefix, dirPath.c_str());
        return leave(job, reportEntry(job, skipCode(job, code::kNfsSkip)));
    }
    if (::access(dirPath.c_str(), R_OK | X_OK) != 0) {
        ulog(MSG_FAILED_ACCESS_DIRECTORY, kPrefix, dirPath.c_str(), errText());
        return leave(job, reportEntry(job, code::kNoDir));
    }
    platform::DirStream dir;
    if (!dir.open(dirPath.c_str(), js.resetAccessTime)) {
        ulog(MSG_FAILED_OPEN_SOURCE_DIR, kPrefix, dirPath.c_str(), errText());
        return leave(job, reportEntry(job, code::kNoDir));
    }
    if (accessTimeKept) *accessTimeKept = dir.accessTimeKept();
    std::vector<std::string> unexamined;
    if (mode == 2) {
        if (Outcome r = sendFiles(job, dir, dirPath, dirStat, unexamined); r.isJobOver()) return leave(job, r);
    }
    if (job.dirDepth >= job.ctx.maxDirDepth) {
        ulog(MSG_EXCEEDS_MAXIMUM_LEVEL, kPrefix, int(job.ctx.maxDirDepth));
    } else {
        if (Outcome r = walkSubdirectories(job, dir, dirPath, mode, dirStat, unexamined); r.isJobOver()) return leave(job, r);
    }
    dir.close();
    return leave(job, queueStatus(job, code::kEndDir));
}

}  // namespace tavik::backup
