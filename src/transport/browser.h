// The file-system browser: the browse job's request loop on the job
// connection. The server lists directories (READ_DIR with a selection), the
// mounted file systems (READ_DIR with an empty path, version 22 and later)
// and reads symbolic links (READ_LINK) until it logs out.
//
// Every packet is a big-endian BrowseHeader and its payload, sent and
// received with one usbSend/usbReceive call each. Entries describe a file by
// its lstat (or, for a link's target, stat) status in the layout of the
// server's browse version: from version 22 on the entry carries the device
// of the file system and the name starts at offset 48, below 22 it starts at
// 44; link-target packets exist from version 21 on.
//
// Requires: the process runs as the identity the listing is for; the SIGALRM
// disposition is left as it was after every call. SendDirData changes the
// working directory of the process and leaves it there.
// Fails: Browser ends (always returning 0) on LOGOUT, on a failed receive
// (including a request longer than its 1024-byte buffer or a header that
// arrives in pieces) and on a failed answer. SendDirData, SendFSData and
// SendLinkData return -1 when a packet could not be sent or (SendLinkData)
// the link could not be read; a single entry that cannot be examined is
// logged and left out.
#pragma once

#include <sys/stat.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace tavik::transport {

namespace browse {
// BrowseHeader layout (16-bit fields big-endian).
inline constexpr size_t kHeaderSize = 8;
inline constexpr size_t kSelectAt = 0;
inline constexpr size_t kCodeAt = 2;
inline constexpr size_t kVersionAt = 3;
inline constexpr size_t kLevelAt = 4;
inline constexpr size_t kLengthAt = 6;
static_assert(kLengthAt + 2 == kHeaderSize);

// Browse codes.
inline constexpr uint8_t kLogin = 14;
inline constexpr uint8_t kReadDir = 15;   // server to agent
inline constexpr uint8_t kEntry = 15;     // agent to server
inline constexpr uint8_t kEndOfList = 16;
inline constexpr uint8_t kLogout = 17;
inline constexpr uint8_t kLinkTarget = 20;
inline constexpr uint8_t kReadLink = 21;  // request, and its answer
inline constexpr uint8_t kUnknownRequest = 22;
inline constexpr uint8_t kCannotOpen = 101;

// What the agent puts into its headers.
inline constexpr int8_t kAgentVersion = 22;
inline constexpr uint16_t kLoginLevel = 50;

// Versions from which the entries change.
inline constexpr int kLinkTargetVersion = 21;  // link-target packets
inline constexpr int kDeviceVersion = 22;      // device field, name at 48, mount list

// Selections of READ_DIR.
inline constexpr uint16_t kSelectNone = 0;
inline constexpr uint16_t kSelectFiles = 1;
inline constexpr uint16_t kSelectDirectories = 2;
inline constexpr uint16_t kSelectAll = 3;  // any other non-zero value

// Limits.
inline constexpr size_t kMaxRequest = 1024;  // request payload buffer
inline constexpr size_t kLinkBuffer = 256;   // a link's text and its NUL
inline constexpr size_t kMaxName = 256;      // "/" and a 255-byte entry name

// BrowseEntry layout (32-bit fields big-endian).
inline constexpr size_t kModeAt = 0;
inline constexpr size_t kLinksAt = 4;
inline constexpr size_t kUidAt = 8;
inline constexpr size_t kGidAt = 12;
inline constexpr size_t kRdevAt = 16;
inline constexpr size_t kAtimeAt = 20;
inline constexpr size_t kMtimeAt = 24;
inline constexpr size_t kCtimeAt = 28;
inline constexpr size_t kSizeAt = 32;
inline constexpr size_t kSpareAt = 36;
inline constexpr size_t kMountedAt = 40;
inline constexpr size_t kFsDevAt = 44;     // version 22 and later
inline constexpr size_t kOldNameAt = 44;   // below version 22
inline constexpr size_t kNameAt = 48;      // version 22 and later
static_assert(kMountedAt + 4 == kFsDevAt && kFsDevAt + 4 == kNameAt);
inline constexpr size_t kMaxEntrySize = kNameAt + kMaxName + 1;
static_assert(kMaxEntrySize == 305);
}  // namespace browse

struct BrowseHeader {
    uint16_t select = 0;
    uint8_t code = 0;
    int8_t version = 0;
    uint16_t level = 0;
    uint16_t length = 0;
};

using BrowseHeaderBytes = std::array<uint8_t, browse::kHeaderSize>;
BrowseHeaderBytes encodeBrowseHeader(const BrowseHeader& header);
BrowseHeader decodeBrowseHeader(std::span<const uint8_t, browse::kHeaderSize> bytes);

// The status fields of one listed file as they go on the wire.
struct BrowseEntry {
    uint32_t mode = 0;
    uint32_t links = 0;
    uint32_t uid = 0;
    uint32_t gid = 0;
    uint32_t rdev = 0;
    uint32_t atime = 0;
    uint32_t mtime = 0;
    uint32_t ctime = 0;
    uint32_t size = 0;
    uint8_t mounted = 0;  // 1 in the mounted file-system list
    uint32_t fsDev = 0;   // version 22 and later
    std::string name;
};

// Maps Linux's status (64-bit devices, times, sizes and link counts) to the
// 32-bit wire fields: devices as encodeDev32, times and sizes as wireTime and
// wireSize, link counts above 2^32-1 as 2^32-1.
BrowseEntry entryFromStat(const struct stat& st, std::string name);

// Payload bytes of an entry in the layout for `version`; empty when the name
// is longer than kMaxName.
std::vector<uint8_t> encodeBrowseEntry(const BrowseEntry& entry, int version);
// The entry of a payload in the layout for `version`; none when the payload
// is shorter than the fixed part or its name has no NUL.
std::optional<BrowseEntry> decodeBrowseEntry(std::span<const uint8_t> payload, int version);

// One request as received: its header and the text of its payload (up to
// the first NUL).
struct BrowseRequest {
    BrowseHeader header;
    std::string text;
};

enum class ReceiveStatus {
    kOk,
    kHeaderFailed,   // logged by usbReceive
    kPayloadFailed,  // a short or failed payload, or one longer than kMaxRequest
};
[[nodiscard]] ReceiveStatus receiveRequest(int socket, BrowseRequest& out);

// The mounted file systems, as the browser walks them.
class MountList {
public:
    virtual ~MountList() = default;
    // 0, or -1 when the table cannot be opened.
    virtual int open() = 0;
    // The next mount point; false at the end.
    virtual bool next(std::string& mountPoint) = 0;
    virtual void close() = 0;
};

int Browser(int socket, MountList& mounts);
int SendDirData(int socket, const std::string& directory, uint16_t select, int version);
int SendFSData(int socket, MountList& mounts);
int SendLinkData(int socket, const std::string& path, int version);

}  // namespace tavik::transport
