// The packet framing of every job connection: the 8-byte header in front
// of each packet, and the one-byte codes that every job's packets carry
// (the backup stream's, the restore and compare streams' commands, and the
// answers and refusals of the job session).
//
// Layout (little-endian): 0 flags, 1 reserved, 2 code, 3 version, 4 value
// (16 bits), 6 payload length (16 bits).
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace tavik::protocol {

// PacketHeader layout.
inline constexpr size_t kHeaderSize = 8;
inline constexpr size_t kHeaderFlagsAt = 0;
inline constexpr size_t kHeaderReservedAt = 1;
inline constexpr size_t kHeaderCodeAt = 2;
inline constexpr size_t kHeaderVersionAt = 3;
inline constexpr size_t kHeaderValueAt = 4;
inline constexpr size_t kHeaderLengthAt = 6;
static_assert(kHeaderLengthAt + 2 == kHeaderSize);

struct PacketHeader {
    uint8_t flags = 0;
    uint8_t reserved = 0;
    int8_t code = 0;
    uint8_t version = 0;
    uint16_t value = 0;
    uint16_t length = 0;
};

using HeaderBytes = std::array<uint8_t, kHeaderSize>;
HeaderBytes encodeHeader(const PacketHeader& header);
PacketHeader decodeHeader(const HeaderBytes& bytes);

// The packet codes shared by every job.
namespace code {
inline constexpr int8_t kOk = 0;
inline constexpr int8_t kAbort = 2;
inline constexpr int8_t kEnd = 3;
inline constexpr int8_t kReady = 4;
inline constexpr int8_t kRejected = 5;
inline constexpr int8_t kFileHeader = 6;
inline constexpr int8_t kMof = 7;
inline constexpr int8_t kEndf = 8;
inline constexpr int8_t kEndDir = 9;
inline constexpr int8_t kNfsSkip = 13;
inline constexpr int8_t kGroomCount = 14;
inline constexpr int8_t kUnlink = 15;
inline constexpr int8_t kNewPort = 16;
inline constexpr int8_t kFsSkip = 18;
inline constexpr int8_t kMkdir = 20;
inline constexpr int8_t kOpenFile = 22;
inline constexpr int8_t kWatchDog = 47;
inline constexpr int8_t kNoDir = 101;
inline constexpr int8_t kNoFile = 102;
inline constexpr int8_t kReadErr = 103;
inline constexpr int8_t kPathFailed = 105;      // root could not be made or entered
inline constexpr int8_t kLoginFailed = 113;     // wrong password (or unknown login, old servers)
inline constexpr int8_t kProtectedDir = 114;
inline constexpr int8_t kUnknownUser = 115;     // servers of version 50 or more
inline constexpr int8_t kNotAbsolute = 116;
inline constexpr int8_t kNoAccess = 118;
inline constexpr int8_t kIdentityFailed = 119;
inline constexpr int8_t kLinkErr = static_cast<int8_t>(200);
inline constexpr int8_t kLocked = static_cast<int8_t>(201);
inline constexpr int8_t kLockErr = static_cast<int8_t>(202);
}  // namespace code

// The version byte of the newer servers starts at the digit "2".
inline constexpr int kNewServerVersion = 50;
inline constexpr uint8_t kOldReadyVersion = 5;

}  // namespace tavik::protocol
