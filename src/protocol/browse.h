// The browse protocol's framing: the big-endian BrowseHeader in front of
// every packet of a browse job, its codes and selections, and the entry
// that describes one listed file, in the layout of the server's browse
// version (from version 22 on the entry carries the device of the file
// system and the name starts at offset 48; below 22 it starts at 44;
// link-target packets exist from version 21 on).
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace tavik::protocol {

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

// Whether entries of `version` carry the file system's device, and where
// their name starts.
bool hasDeviceField(int version);
size_t entryNameOffset(int version);

// Payload bytes of an entry in the layout for `version`; empty when the name
// is longer than kMaxName.
std::vector<uint8_t> encodeBrowseEntry(const BrowseEntry& entry, int version);
// The entry of a payload in the layout for `version`; none when the payload
// is shorter than the fixed part or its name has no NUL.
std::optional<BrowseEntry> decodeBrowseEntry(std::span<const uint8_t> payload, int version);

}  // namespace tavik::protocol
