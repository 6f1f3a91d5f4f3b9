// The job's own state: everything the listener prepares for one connection
// and the job process then fills from the request and the command phase.
//
// One record, one owner: the listener resets it for each connection
// (prepareForConnection), the job process inherits it at the fork and is
// from then on its only user. Every later job phase reads its parameters
// here through job(). Grooming's record and tape record are kept as the raw
// payload bytes; the grooming library decodes them.
#pragma once

#include <array>
#include <cstdint>
#include <ctime>
#include <forward_list>
#include <string>
#include <sys/types.h>
#include <vector>

#include "filter/received.h"
#include "platform/file_identity.h"

namespace tavik {

// JobRequest layout (680 bytes).
namespace request_layout {
inline constexpr size_t kSize = 680;
inline constexpr size_t kRootAt = 0;
inline constexpr size_t kRootWidth = 176;
inline constexpr size_t kLoginAt = 176;
inline constexpr size_t kLoginWidth = 48;
inline constexpr size_t kPasswordAt = 224;
inline constexpr size_t kPasswordWidth = 24;
inline constexpr size_t kTpSizeAt = 248;
inline constexpr size_t kAcceptEaAt = 250;
inline constexpr size_t kOpModeAt = 251;
inline constexpr size_t kTimeThreshAt = 252;
inline constexpr size_t kFileCountAt = 256;
inline constexpr size_t kFileModeAt = 257;
inline constexpr size_t kFileListAt = 258;
inline constexpr size_t kDirCountAt = 466;
inline constexpr size_t kDirModeAt = 467;
inline constexpr size_t kDirListAt = 468;
inline constexpr size_t kListEntries = 16;
inline constexpr size_t kListEntryWidth = 13;
inline constexpr size_t kNoSwitchAt = 674;  // bit 7, servers above version 51
inline constexpr size_t kMethodAt = 676;
inline constexpr size_t kFollowAt = 677;
inline constexpr size_t kVersionAt = 678;
inline constexpr size_t kConflictAt = 679;
static_assert(kFileListAt + kListEntries * kListEntryWidth == kDirCountAt);
static_assert(kDirListAt + kListEntries * kListEntryWidth == 676);
static_assert(kConflictAt + 1 == kSize);
}  // namespace request_layout

// The longest root text a request may carry after its record.
inline constexpr size_t kJobRootSize = 1024;
inline constexpr size_t kMaxRequestLength = request_layout::kSize + kJobRootSize - 1;

// JobOptions layout (512 bytes).
namespace options_layout {
inline constexpr size_t kSize = 512;
inline constexpr size_t kRetryCountAt = 0;
inline constexpr size_t kRetryIntervalAt = 2;
inline constexpr size_t kFlagsAt = 4;
inline constexpr uint8_t kNoCrossFs = 0x01;
inline constexpr uint8_t kWatchDog = 0x02;
inline constexpr uint8_t kReconnect = 0x04;
inline constexpr uint8_t kNoAccessReset = 0x08;
inline constexpr uint8_t kTraverseNfs = 0x20;
inline constexpr uint8_t kKeepIoBuffer = 0x40;
inline constexpr uint8_t kDetailedVerdicts = 0x80;
}  // namespace options_layout

// Job types by opMode.
inline constexpr uint8_t kOpBackup = 0;
inline constexpr uint8_t kOpRestore = 1;
inline constexpr uint8_t kOpCompare = 2;
inline constexpr uint8_t kOpBrowse = 14;

// The request record's fields, decoded. `raw` keeps the record as received
// (the old servers' pattern lists are read from it by the filter).
struct JobRequest {
    std::array<uint8_t, request_layout::kSize> raw{};

    std::string root() const;     // at most 175 characters
    std::string loginID() const;  // at most 47 characters
    const uint8_t* paswd() const { return raw.data() + request_layout::kPasswordAt; }
    uint16_t tpSize() const;
    uint8_t acceptEA() const { return raw[request_layout::kAcceptEaAt]; }
    uint8_t opMode() const { return raw[request_layout::kOpModeAt]; }
    int32_t timeThresh() const;
    uint8_t method() const { return raw[request_layout::kMethodAt]; }
    uint8_t follow() const { return raw[request_layout::kFollowAt]; }
    int8_t version() const { return static_cast<int8_t>(raw[request_layout::kVersionAt]); }
    uint8_t conflict() const { return raw[request_layout::kConflictAt]; }
    bool noSwitchBit() const { return (raw[request_layout::kNoSwitchAt] & 0x80) != 0; }
};

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

inline constexpr size_t kTapeRecordSize = 63;
inline constexpr size_t kGroomSetSize = 16;
inline constexpr uint16_t kOldMaxDirDepth = 19;
inline constexpr uint16_t kNewMaxDirDepth = 51;

struct JobContext {
    JobRequest request;
    std::string jobRoot;  // at most kJobRootSize - 1 characters
    int8_t serverVersion = 0;
    uint8_t conflictPolicy = 3;
    std::array<uint8_t, options_layout::kSize> jobOptions{};
    uint16_t ackInterval = 0;  // the job's copy: -a, then the start command's value
    JobUser jobUser;
    // Decided in the job process before it touches the file system: the
    // login may have root-level jobs, and this job keeps the agent's
    // identity (single-user mode, or a trusted login that asked for it).
    bool trusted = false;
    bool keepIdentity = false;
    DirList protectedDirs;

    filter::ReceivedFilter filterItems;
    uint16_t maxDirDepth = kOldMaxDirDepth;
    TopList topList;
    std::vector<uint8_t> groomRecord;  // empty: no grooming in this job
    std::array<uint8_t, kTapeRecordSize> tapeRecord{};
    std::string groomSet;
    std::vector<uint8_t> dbFileList;
    std::string restartPath;
    int32_t restartOffset = 0;

    uint16_t retryCount() const;
    uint16_t retryInterval() const;
    uint8_t optionFlags() const { return jobOptions[options_layout::kFlagsAt]; }
};

JobContext& job();

// Resets the job state for a new connection: request, root and options
// cleared, retry count and interval 5, conflict policy 3, server version 0,
// the ack interval from the settings. Nothing of an earlier caller's request
// survives: a request without a record has an empty root.
void prepareForConnection(JobContext& ctx);

}  // namespace tavik
