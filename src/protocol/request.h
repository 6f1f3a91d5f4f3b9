// The job request: the first packet of every job connection, a header and
// the 680-byte JobRequest record (and, for a long root, the root text after
// it); the options record a backup's server sends next; the job types; and
// the scrambling of the request's password field.
//
// The password field holds the login's password with its NUL, each byte
// XORed with the key byte at the same position (24 bytes at most). The
// agent descrambles it for the password check; the front-end scrambles.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

namespace tavik::protocol {

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

inline constexpr size_t kPasswordSize = 24;
// Only the first 24 characters of the key take part.
inline constexpr const char kScrambleKey[] = "Kemub7,rd(5,90);QGBcnn_cHc[r];NBSdhuUSBssmBHBreJ";

// `scrambled` is the request's 24-byte field; `plain` is cleared first and
// always ends in a NUL. A password character equal to the key character at
// its position scrambles to NUL and ends the password there.
void descramblePassword(char (&plain)[kPasswordSize], const uint8_t* scrambled);
// A password of at most 23 characters (longer ones are cut).
std::array<uint8_t, kPasswordSize> scramblePassword(const char* plain);

}  // namespace tavik::protocol
