// The restore and compare streams: the restore attribute record, the
// status bytes the agent answers after each file of a restore, the verdicts
// of a compare, and the conflict policies a restore request names: what the front-end sends in MKDIR and OPENFILE packets and
// the one-byte answers the agent gives after each file's ENDF. The agent
// decodes the record; the front-end encodes it.
//
// Layout (32-bit little-endian words, length 48 + n + 1 for a name of n
// bytes):
//   0 dev   4 ino   8 mode   12 nlink   16 uid   20 gid   24 rdev
//   28 atime   32 mtime   36 (unused)   40 size   44 (unused)
//   48 the complete path name, NUL-terminated, at most 1023 bytes
// Modes use the System V encoding, whose type and permission bits are the
// same numbers as Linux's (0x1000 FIFO ... 0xA000 symbolic link, 07777).
//
// Fails: encodeRestoreAttributes gives 0 when the name does not fit;
// decodeRestoreAttributes says why a record is refused.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "protocol/packet.h"

namespace tavik::protocol {

inline constexpr size_t kRecDev = 0;
inline constexpr size_t kRecIno = 4;
inline constexpr size_t kRecMode = 8;
inline constexpr size_t kRecNlink = 12;
inline constexpr size_t kRecUid = 16;
inline constexpr size_t kRecGid = 20;
inline constexpr size_t kRecRdev = 24;
inline constexpr size_t kRecAtime = 28;
inline constexpr size_t kRecMtime = 32;
inline constexpr size_t kRecUnused36 = 36;
inline constexpr size_t kRecSize = 40;
inline constexpr size_t kRecUnused44 = 44;
inline constexpr size_t kRecName = 48;
static_assert(kRecUnused44 + 4 == kRecName);

// Names travel in and are worked on in 1024-byte buffers.
inline constexpr size_t kPathBufferSize = 1024;
inline constexpr size_t kMaxNameLength = kPathBufferSize - 1;
inline constexpr size_t kMaxRecordSize = kRecName + kPathBufferSize;

// One data payload (MOF, ENDF) carries at most this many bytes.
inline constexpr size_t kMaxDataPayload = 2048;

// Per-file status bytes, answered after ENDF.
namespace status {
inline constexpr uint8_t kRestored = 0;
inline constexpr uint8_t kNoSpace = 'd';
inline constexpr uint8_t kCannotCreate = 'j';
inline constexpr uint8_t kOwnerOrMode = 'k';
inline constexpr uint8_t kTimes = 'l';
inline constexpr uint8_t kWriteFailed = 'm';
inline constexpr uint8_t kHardLinked = 'n';  // internal; answered as 0
inline constexpr uint8_t kLinkFailed = 'o';
inline constexpr uint8_t kSpecialRefused = 'p';
inline constexpr uint8_t kCannotOpen = 'x';
inline constexpr uint8_t kLockTestFailed = 'y';
inline constexpr uint8_t kLocked = 'z';
inline constexpr uint8_t kSkipped = 0xCB;
}  // namespace status

// File types in the record's mode.
inline constexpr uint32_t kTypeMask = 0xF000;
inline constexpr uint32_t kTypeFifo = 0x1000;
inline constexpr uint32_t kTypeCharDevice = 0x2000;
inline constexpr uint32_t kTypeDirectory = 0x4000;
inline constexpr uint32_t kTypeBlockDevice = 0x6000;
inline constexpr uint32_t kTypeRegular = 0x8000;
inline constexpr uint32_t kTypeSymlink = 0xA000;

struct RestoreAttributes {
    uint32_t dev = 0, ino = 0, mode = 0, nlink = 0;
    uint32_t uid = 0, gid = 0, rdev = 0, atime = 0, mtime = 0;
    uint32_t unused36 = 0;
    uint32_t size = 0;
    uint32_t unused44 = 0;
    std::string name;

    uint32_t type() const { return mode & kTypeMask; }
    bool isSpecial() const {
        return type() == kTypeFifo || type() == kTypeCharDevice || type() == kTypeBlockDevice;
    }
};

// The record for `a`; empty when the name is longer than kMaxNameLength or
// holds a NUL.
std::vector<uint8_t> encodeRestoreAttributes(const RestoreAttributes& a);

enum class RecordError { None, Short, NameTooLong };

// Decodes a record. Short: fewer than 48 bytes. NameTooLong: no NUL within
// the first 1024 bytes of the name (the record's end counts as its NUL when
// the name is shorter). On an error `out`'s fields are still set from the
// words that were present and its name is left empty.
[[nodiscard]] RecordError decodeRestoreAttributes(std::span<const uint8_t> record, RestoreAttributes& out);

// Conflict policies of the request's conflict byte (any other value
// overwrites; 5 is taken as 3).
namespace conflict_policy {
inline constexpr uint8_t kSkip = 1;
inline constexpr uint8_t kRename = 2;
inline constexpr uint8_t kOverwrite = 3;
inline constexpr uint8_t kNewer = 4;
}  // namespace conflict_policy

// The compare's verdict codes (one byte, header only), answered for each
// object of a compare stream.
namespace verdict {
inline constexpr uint8_t kSame = 0;
inline constexpr uint8_t kEnd = 3;
inline constexpr uint8_t kGroomCount = 14;
inline constexpr uint8_t kStop = 100;
inline constexpr uint8_t kReadErr = 103;
inline constexpr uint8_t kNoFile = 0xD2;
inline constexpr uint8_t kNoDirectory = 0xD3;
inline constexpr uint8_t kCannotOpen = 0xD4;
inline constexpr uint8_t kSize = 0xD5;
inline constexpr uint8_t kFileDiffers = 0xD6;
inline constexpr uint8_t kDirectoryDiffers = 0xD7;
inline constexpr uint8_t kReadFailed = 0xD8;
inline constexpr uint8_t kLinkUnreadable = 0xD9;
inline constexpr uint8_t kContent = 0xDA;
inline constexpr uint8_t kLockTestFailed = 0xDB;
inline constexpr uint8_t kLocked = 0xDC;
inline constexpr uint8_t kMode = 0xDD;
inline constexpr uint8_t kLinks = 0xDE;
inline constexpr uint8_t kOwner = 0xDF;
inline constexpr uint8_t kGroup = 0xE0;
inline constexpr uint8_t kMtime = 0xE2;
inline constexpr uint8_t kRdev = 0xE3;
}  // namespace verdict

// After code 14 (the grooming count) the count follows as decimal text in
// 16 bytes, in the backup stream and the compare stream alike.
inline constexpr size_t kGroomCountSize = 16;

}  // namespace tavik::protocol
