#include "backup/estimate.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

#include "backup/backup_state.h"
#include "backup/stream.h"
#include "backup/traverse.h"
#include "filter/filter.h"
#include "filter/match.h"
#include "log/ulog.h"
#include "platform/dir_stream.h"
#include "platform/fs_type.h"
#include "protocol/commands.h"
#include "request/channel.h"
#include "request/commands.h"
#include "request/job_context.h"
#include "wire/bytes.h"

namespace tavik::backup {
namespace {

struct Walk {
    BackupJob& job;
    EstimateCount count;
    uint16_t depth = 0;
    bool inProtected = false;  // the source lies in a protected directory: no subdirectory counts
};

// The entry by its name in the open directory.
bool statEntry(const Walk& w, int dirFd, const char* name, const std::string& path, struct stat& st) {
    if (path.size() >= kPathBuffer) return false;
    return ::fstatat(dirFd, name, &st, w.job.ctx.jobSettings.followLinks ? 0 : AT_SYMLINK_NOFOLLOW) == 0;
}

bool outsideTopList(const Walk& w, const char* name) {
    const TopList& top = w.job.ctx.topList;
    if (w.depth != 1 || top.names.empty()) return false;
    for (size_t offset : top.names)
        if (std::strcmp(top.text.data() + offset, name) == 0) return false;
    return true;
}

bool dot(const char* name) { return name[0] == '.' && (name[1] == 0 || (name[1] == '.' && name[2] == 0)); }

// Counts below the directory; true when it was read without touching its
// access time (nothing to reset then).
bool countDir(Walk& w, const std::string& dirPath, int mode) {
    BackupJob& job = w.job;
    const JobSettings& js = job.ctx.jobSettings;
    w.depth++;
    platform::DirStream dir;
    bool opened = !(js.skipNfs && platform::isNfsPath(dirPath.c_str()) != 0) &&
                  dir.open(dirPath.c_str(), js.resetAccessTime);
    if (opened) {
        if (mode == 2) {
            while (const platform::DirStream::Entry* e = dir.next()) {
                if (dot(e->name) || outsideTopList(w, e->name) || e->type == DT_DIR) continue;
                std::string path = dirPath + e->name;
                struct stat st;
                if (!statEntry(w, dir.fd(), e->name, path, st) || S_ISDIR(st.st_mode)) continue;
                if (filter::FileSelected(job.filter, path, st) != 1) continue;
                w.count.files++;
                uint32_t listed = 0;
                if (S_ISREG(st.st_mode) || S_ISLNK(st.st_mode)) {
                    w.count.addBytes(uint64_t(st.st_size));
                } else if (S_ISCHR(st.st_mode) && lookupRawSize(job.ctx, path.c_str(), listed)) {
                    w.count.addBytes(listed);
                }
            }
            dir.rewind();
        }
        if (w.depth < w.job.ctx.maxDirDepth && !w.inProtected) {
            while (const platform::DirStream::Entry* e = dir.next()) {
                if (dot(e->name) || outsideTopList(w, e->name) || !e->mayBeDirectory(js.followLinks)) continue;
                std::string path = dirPath + e->name;
                struct stat st;
                if (!statEntry(w, dir.fd(), e->name, path, st) || !S_ISDIR(st.st_mode)) continue;
                if (js.noCrossFs && st.st_dev != job.rootDev) continue;
                if (job.hooks.isProtectedDir && job.hooks.isProtectedDir(platform::identityOf(st))) continue;
                path += "/";
                int submode = int(filter::DirVerdictOf(job.filter, path));
                if (submode == 0) continue;
                if (job.ancestors.push(st.st_dev, st.st_ino) == -2) continue;
                bool kept = countDir(w, path, submode);
                job.ancestors.pop();
                if (js.resetAccessTime && !kept) setFileTimesAt(dir.fd(), e->name, st);
            }
        }
    }
    w.depth--;
    return opened && dir.accessTimeKept();
}

}  // namespace

void EstimateCount::addBytes(uint64_t n) {
    constexpr uint64_t kMax = 4294967295u;
    // Sizes beyond 32 bits are added in 32-bit steps so that the rule of
    // one unit per 4294967295 bytes holds for them too.
    while (n > 0) {
        uint64_t part = n > kMax ? kMax : n;
        n -= part;
        if (part > kMax - bytes) {
            bytes = uint32_t(part - (kMax - bytes));
            overflows++;
        } else {
            bytes = uint32_t(bytes + part);
        }
    }
}

int estimate(BackupJob& job, const std::string& sourcePath, uint32_t& filesOut, uint32_t& kilobytesOut) {
    kilobytesOut = 0;
    struct stat st;
    if ((job.ctx.jobSettings.followLinks ? ::stat(sourcePath.c_str(), &st) : ::lstat(sourcePath.c_str(), &st)) != 0)
        return -1;
    job.ancestors.clear();
    job.rootDev = st.st_dev;
    std::string base = sourcePath;
    if (base.empty() || base.back() != '/') base += '/';
    int mode = int(filter::DirVerdictOf(job.filter, sourcePath));
    Walk w{.job = job, .count = {}, .depth = 0, .inProtected = false};
    // The source may be any path the front-end names: it is examined once
    // with its ancestors, the directories below it by their own identity.
    w.inProtected = job.hooks.liesInProtectedDir && job.hooks.liesInProtectedDir(base);
    if (mode == 1 || mode == 2) {
        job.ancestors.push(st.st_dev, st.st_ino);
        bool kept = countDir(w, base, mode);
        job.ancestors.pop();
        if (job.ctx.jobSettings.resetAccessTime && !kept) setFileTimes(base, st);
    }
    filesOut = w.count.files;
    kilobytesOut = w.count.kilobytes();
    job.ancestors.clear();
    return 0;
}

int estimateCommand(Channel& channel, BackupJob& job, std::span<const uint8_t> payload) {
    constexpr const char* kPrefix = "(GetCommands) ";
    const char* text = reinterpret_cast<const char*>(payload.data());
    // An empty payload names no source (and may have no storage at all).
    size_t sourceLength = payload.empty() ? 0 : strnlen(text, payload.size());
    std::string source(text, sourceLength);
    filter::InitializeFilter(job.filter, job.ctx.filterItems, source, false);
    size_t at = sourceLength + 1;
    uint32_t nFiles = 0;
    std::vector<char> names;
    if (at < payload.size()) {
        names.assign(text + at, text + payload.size());
        for (size_t i = at; i < payload.size();) {
            size_t n = strnlen(text + i, payload.size() - i);
            nFiles++;
            i += n + 1;
        }
    }
    if (logVerbose())
        ulog("ESTIMATE: src=[%s], flist.nFiles=%d, flist.size=%d", source.c_str(), int(nFiles), int(names.size()));
    job.ctx.topList.clear();
    if (nFiles != 0) {
        buildTopList(job.ctx.topList, nFiles, std::move(names));
        if (logVerbose())
            for (size_t i = 0; i < job.ctx.topList.names.size(); ++i)
                ulog("flist_tbl[%d]=[%s]", int(i), job.ctx.topList.text.data() + job.ctx.topList.names[i]);
    }
    uint32_t files = 0, kilobytes = 0;
    estimate(job, source, files, kilobytes);
    job.ctx.topList.clear();
    if (logVerbose()) ulog("Estimated total : %ld files, %ld K bytes", long(files), long(kilobytes));
    uint8_t reply[protocol::kEstimateReplySize];
    wire::storeLe32(reply, files);
    wire::storeLe32(reply + 4, kilobytes);
    if (channel.send(reply, sizeof reply) != 0) {
        ulog(MSG_FAILED_SEND_ESTIMATION_NUMBERS, kPrefix);
        return 100;
    }
    return 0;
}


}  // namespace tavik::backup
