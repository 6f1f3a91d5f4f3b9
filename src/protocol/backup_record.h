// The backup attribute record: the payload of a file header packet (code 6)
// in the backup stream. The agent builds it for every entry it sends; the
// front-end decodes it to list, restore or compare an archive.
//
// Layout (little-endian, length 49 + n for a name of n bytes):
//   0 dev   4 ino   8 mode   12 nlink   16 uid   20 gid   24 rdev
//   28 atime   32 mtime   36 dosTime (16)   38 dosDate (16)   40 size
//   44 kind (8 bits)   45 name, NUL   46+n three bytes of zeros
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>

namespace tavik::protocol {

inline constexpr size_t kAttrDev = 0;
inline constexpr size_t kAttrIno = 4;
inline constexpr size_t kAttrMode = 8;
inline constexpr size_t kAttrNlink = 12;
inline constexpr size_t kAttrUid = 16;
inline constexpr size_t kAttrGid = 20;
inline constexpr size_t kAttrRdev = 24;
inline constexpr size_t kAttrAtime = 28;
inline constexpr size_t kAttrMtime = 32;
inline constexpr size_t kAttrDosTime = 36;
inline constexpr size_t kAttrDosDate = 38;
inline constexpr size_t kAttrSize = 40;
inline constexpr size_t kAttrKind = 44;
inline constexpr size_t kAttrName = 45;
inline constexpr size_t kAttrFixedSize = 49;  // record length without the name's bytes
// The longest entry name the record carries; a longer one is refused and
// reported like an entry that cannot be opened.
inline constexpr size_t kMaxRecordName = 255;
inline constexpr size_t kMaxAttrRecord = kAttrFixedSize + kMaxRecordName;
static_assert(kAttrName + 1 + 3 == kAttrFixedSize);

// Values of the kind byte.
inline constexpr uint8_t kKindEntry = 0;
inline constexpr uint8_t kKindDirectory = 16;
inline constexpr uint8_t kKindSource = 17;

struct BackupAttributes {
    uint32_t dev = 0, ino = 0, mode = 0, nlink = 0;
    int32_t uid = 0, gid = 0;
    uint32_t rdev = 0, atime = 0, mtime = 0;
    uint16_t dosTime = 0, dosDate = 0;
    uint32_t size = 0;
    uint8_t kind = 0;
    std::string name;
};

// MS-DOS time and date of `mtime` in local time: seconds/2, minutes, hours
// in the time; day, month, year-1980 in the date.
void dosTimeDate(int64_t mtime, uint16_t& dosTime, uint16_t& dosDate);

// Writes the record into `out`; returns its length, or 0 when the name is
// longer than kMaxRecordName or `out` is too small.
size_t encodeBackupAttributes(const BackupAttributes& a, std::span<uint8_t> out);

// Decodes a record; nullopt when it is shorter than its fixed part or its
// name has no NUL within the record.
std::optional<BackupAttributes> decodeBackupAttributes(std::span<const uint8_t> record);

}  // namespace tavik::protocol
