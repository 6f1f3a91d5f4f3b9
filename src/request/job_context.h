// The job's own state: everything the listener prepares for one connection
// and the job process then fills from the request and the command phase.
//
// One record, one owner: the connection process makes it
// (prepareForConnection, from the agent's settings) and passes it down to
// every phase of the job, which read their parameters here. Grooming's record and tape record are kept as the raw
// payload bytes; the grooming library decodes them.
#pragma once

#include <array>
#include <cstdint>
#include <ctime>
#include <forward_list>
#include <string>
#include <sys/types.h>
#include <vector>

#include "protocol/filter_items.h"
#include "platform/file_identity.h"
#include "platform/fs_type.h"
#include "protocol/commands.h"
#include "groom/groom.h"
#include "protocol/request.h"
#include "transport/packet.h"

namespace tavik {

// The login the job runs as (absent in single-user mode).
struct JobUser {
    bool present = false;
    std::string name;
    uid_t uid = 0;
    gid_t gid = 0;
};

// The directories no backup may start in or below, newest first, and the
// modification time of the file they were read from; `identities` holds
// what each name that leads to a directory named when the list was last
// examined (entries ending in "/" and names that lead nowhere have none).
struct DirList {
    std::forward_list<std::string> names;
    std::vector<platform::FileIdentity> identities;
    time_t readTime = 0;
};

// The names a DISK_ITEM (or an estimate) selects: the text as received and
// each name's offset in it.
struct TopList {
    uint32_t nFiles = 0;
    std::vector<char> text;
    std::vector<size_t> names;
    void clear() {
        nFiles = 0;
        text.clear();
        names.clear();
    }
};

inline constexpr uint16_t kOldMaxDirDepth = 19;
inline constexpr uint16_t kNewMaxDirDepth = 51;

// The sizes of one I/O buffer of the packet queue (the -b option) and the
// number of buffers (-m).
inline constexpr int kDefaultIoBufferSize = 2048;
inline constexpr int kMinIoBufferSize = 1024;
inline constexpr int kMaxIoBufferSize = 8192;
inline constexpr uint16_t kDefaultIoBufferCount = 100;
inline constexpr uint16_t kMinIoBufferCount = 10;
inline constexpr uint16_t kMaxIoBufferCount = 1024;

// The agent's settings as one job sees them. The daemon copies its own in at
// each connection (prepareForConnection); the job's request and options
// record may then change the first five, and nothing else changes them.
struct JobSettings {
    bool followLinks = false;
    bool skipNfs = true;
    bool resetAccessTime = true;
    bool noCrossFs = false;
    int ioBufferSize = kDefaultIoBufferSize;

    uint16_t ioBufferCount = kDefaultIoBufferCount;  // as granted at start-up
    int sleepScale = 0;                               // nine tenths of ioBufferCount
    uint16_t waitSleepMs = 0;
    bool boundedWait = false;
    bool checkLocks = false;
    int reconnectKB = 0;
    int reconnectFiles = 0;
    // Test support: every long time-out is divided by this (1 in production).
    int timeDivisor = 1;
    int divisor() const { return timeDivisor > 0 ? timeDivisor : 1; }
};

// The files of the agent's home a job uses.
struct JobPaths {
    std::string logDir;            // where grooming keeps its files
    std::string ipcPath;           // the IPC registry
    std::string followMarkerPath;  // present: old servers' jobs follow links
};

struct JobContext {
    protocol::JobRequest request;
    std::string jobRoot;  // at most protocol::kJobRootSize - 1 characters
    int8_t serverVersion = 0;
    uint8_t conflictPolicy = 3;
    std::array<uint8_t, protocol::options_layout::kSize> jobOptions{};
    uint16_t ackInterval = 0;  // the job's copy: -a, then the start command's value
    JobUser jobUser;
    // Decided in the job process before it touches the file system: the
    // login may have root-level jobs, and this job keeps the agent's
    // identity (single-user mode, or a trusted login that asked for it).
    bool trusted = false;
    bool keepIdentity = false;
    DirList protectedDirs;
    JobSettings jobSettings;
    JobPaths paths;
    // The connection's transport: the daemon's transport settings and the
    // caller's name, the receive deadline, the acknowledgement count.
    transport::TransportState link;

    protocol::ReceivedFilter filterItems;
    uint16_t maxDirDepth = kOldMaxDirDepth;
    TopList topList;
    std::vector<uint8_t> groomRecord;  // empty: no grooming in this job
    groom::Grooming grooming;          // what the job's grooming has recorded
    std::array<uint8_t, protocol::kTapeRecordSize> tapeRecord{};
    std::string groomSet;
    std::vector<uint8_t> dbFileList;
    std::string restartPath;
    int32_t restartOffset = 0;
    mutable platform::NfsProbe nfsProbe;  // a cache: the device last found local

    uint16_t retryCount() const;
    uint16_t retryInterval() const;
    uint8_t optionFlags() const { return jobOptions[protocol::options_layout::kFlagsAt]; }
};

// Whether the directory `path` (on device `dev`) is on NFS: 1 yes, 0 no, -1
// when statfs failed (logged).
int skip_nfs(const JobContext& ctx, const char* path, dev_t dev);

// Resets the job state for a new connection: request, root and options
// cleared, retry count and interval 5, conflict policy 3, server version 0,
// the agent's settings, files and ack interval as given. Nothing of an
// earlier caller's request survives: a request without a record has an
// empty root.
void prepareForConnection(JobContext& ctx, const JobSettings& agent, const JobPaths& files, uint16_t ackInterval);

}  // namespace tavik
