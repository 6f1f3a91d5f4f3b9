// The backup process's own state: the selection filter, the traversal's
// position (depth, source device, ancestors, restart), the job's inode
// numbering, and the hooks the daemon gives the backup (protected
// directories, the sender's death).
//
// One object per job, made by the job process for its connection and passed
// to the walk, the stream, the estimate and the sender (BackupJob); the
// estimate resets what it uses.
#pragma once

#include <sys/types.h>

#include <csignal>
#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "filter/filter.h"
#include "filter/match.h"
#include "platform/file_identity.h"
#include "platform/wire_stat.h"
#include "backup/queue.h"
#include "request/job_context.h"

namespace tavik::protocol {
struct JobRequest;
}

namespace tavik::backup {

// Paths are built in buffers of this size, the NUL included: a longer path
// is refused.
inline constexpr size_t kPathBuffer = 1024;
// Link targets are read into a buffer of this size; longer ones are cut.
inline constexpr size_t kLinkBuffer = 2048;
// The watchdog's silence period, in seconds (divided by the time divisor).
inline constexpr unsigned kWatchdogSeconds = 30;
// Servers from this version on get NFSSKIP and FSSKIP instead of ENDDIR.
inline constexpr int kSkipCodesVersion = 51;

// The directories on the current path: push reports a loop.
class AncestorStack {
public:
    // 0 pushed, -2 the pair is already on the stack.
    int push(dev_t dev, ino_t ino);
    // Removes the top pair; false (logged) when the stack is empty.
    bool pop();
    size_t size() const { return nodes_.size(); }
    void clear() { nodes_.clear(); }

private:
    std::vector<std::pair<dev_t, ino_t>> nodes_;
};

struct BackupHooks {
    // True when the directory with this identity is listed in tvk.cntl. The
    // walk asks for each directory it meets, with the identity from the
    // stat it already made; below a root found unprotected, a directory
    // that is not listed itself lies in no listed one.
    std::function<bool(platform::FileIdentity)> isProtectedDir;
    // True when the directory `path`, or one of its ancestors, is listed: for
    // a walk from a path the job's checks have not seen (the estimate's).
    std::function<bool(const std::string&)> liesInProtectedDir;
    // The description of the protected list's file, for the log line.
    std::string controlFile;
    // Deferred SIGCHLD action of the backup process: ends the job when the
    // sender has died.
    void (*onChildSignal)(int) = nullptr;
    // Tells that action which child is the sender.
    void (*setChild)(int) = nullptr;
};

struct BackupJob {
    explicit BackupJob(JobContext& job) : ctx(job) {}
    BackupJob(const BackupJob&) = delete;
    BackupJob& operator=(const BackupJob&) = delete;

    JobContext& ctx;
    filter::Filter filter;
    filter::OldSelection oldSelection;
    platform::InodeNumbering inodes;
    uint16_t dirDepth = 0;
    dev_t rootDev = 0;
    AncestorStack ancestors;
    size_t sourceLength = 0;  // the source path's length, for the restart compare
    bool restartFound = false;
    bool grooming = false;
    // The directory whose files the walk is sending: grooming records each
    // file with its directory's identity.
    platform::FileIdentity groomDirectory;
    bool watchdog = false;  // option flag 0x02 in force
    int timeDivisor = 1;    // the job's, for the watchdog's alarm
    // A packet is being built in the queue, and the watchdog fell due
    // meanwhile: its WATCH_DOG is queued when the packet is done.
    bool building = false;
    bool watchdogPending = false;
    BackupHooks hooks;
    PacketQueue queue;
};

// The request's older selection (file and directory lists, date test).
filter::OldSelection decodeOldSelection(const protocol::JobRequest& request);

}  // namespace tavik::backup
