// Filter items: the 32-byte records that carry a backup's selection filter,
// each name pattern item followed on the wire by its pattern data.
//
// Decoding (the agent's side): addReceivedItem() files one item and its data
// into a ReceivedFilter, refusing data that would overrun the 16384-byte
// pattern text area; readFilterItems() does that for a contiguous stream of
// items. decodePatternItem()/decodeTimeItem() read an item's fields.
// Encoding (the front-end's side): encodeNamePatternItem(), encodeDateItem()
// and encodeWithinItem() give the exact bytes an item and its data travel as.
// All integers are little-endian; nothing here logs.
//
// ReceivedFilter holds the items as the job receives them, before a filter
// is built from them: each 32-byte item exactly as it came off the wire and,
// for name pattern items, where its data lies in the shared pattern text
// area. It owns its bytes; its size is bounded by the request's item count
// and the 16384-byte pattern text area.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "wire/bytes.h"

namespace tavik::protocol {

inline constexpr size_t kFilterItemSize = 32;
inline constexpr size_t kPatternAreaSize = 16384;

struct ReceivedItem {
    std::array<uint8_t, kFilterItemSize> record{};  // the item as on the wire
    uint32_t dataOffset = 0;  // name pattern items: start of the data in patternArea
    uint16_t dataLength = 0;  // name pattern items: bytes of data (0 for others)
};

struct ReceivedFilter {
    std::vector<ReceivedItem> items;
    std::vector<char> patternArea;  // the items' data one after the other; at most kPatternAreaSize bytes
};

// Item types.
inline constexpr uint16_t kFilePatternItem = 2;
inline constexpr uint16_t kDirPatternItem = 3;
inline constexpr uint16_t kTimeItem = 4;

// Offsets within the 32-byte item.
inline constexpr size_t kItemTypeOffset = 0;       // u16
inline constexpr size_t kItemExcludeOffset = 2;    // u16, 0 = include
inline constexpr size_t kItemCountOffset = 4;      // u32, pattern items: number of patterns
inline constexpr size_t kItemAddressOffset = 8;    // u32, pattern items: ignored on the wire
inline constexpr size_t kItemDataLengthOffset = 12;  // u16, pattern items: bytes of data that follow
inline constexpr size_t kItemWhichOffset = 4;      // u8, time items: 0 ctime, 1 mtime, 2 atime
inline constexpr size_t kItemKindOffset = 6;       // time items: kind, read from its first byte
inline constexpr size_t kItemFirstDateOffset = 8;  // s32, time items: first date, or N for "within"
inline constexpr size_t kItemSecondDateOffset = 12;  // s32, time items: second date ("between")
inline constexpr size_t kItemUnitOffset = 16;      // u16, time items: unit of N
static_assert(kFilterItemSize == 32, "a filter item is 32 bytes on the wire");
static_assert(kItemUnitOffset + 2 <= kFilterItemSize);

// Time item fields.
inline constexpr uint8_t kWhichChanged = 0;   // st_ctime, shown as "created"
inline constexpr uint8_t kWhichModified = 1;  // st_mtime
inline constexpr uint8_t kWhichAccessed = 2;  // st_atime
inline constexpr uint8_t kOnOrBefore = 0;
inline constexpr uint8_t kOnOrAfter = 1;
inline constexpr uint8_t kBetween = 2;
inline constexpr uint8_t kWithin = 3;
inline constexpr uint16_t kUnitDays = 0;
inline constexpr uint16_t kUnitMonths = 1;
inline constexpr uint16_t kUnitYears = 2;

using ItemRecord = std::span<const uint8_t, kFilterItemSize>;

struct PatternItem {
    uint16_t type = 0;
    bool exclude = false;
    uint32_t count = 0;       // patterns in the data
    uint16_t dataLength = 0;  // bytes of data following the item
};

struct TimeItem {
    bool exclude = false;
    uint8_t which = 0;
    uint8_t kind = 0;
    int32_t first = 0;   // first date, or N for "within"
    int32_t second = 0;  // second date for "between"
    uint16_t unit = 0;   // unit of N for "within"
};

uint16_t itemType(ItemRecord record);
PatternItem decodePatternItem(ItemRecord record);
TimeItem decodeTimeItem(ItemRecord record);

// The bytes of data that follow an item on the wire: its data length for a
// name pattern item, 0 for every other type.
uint16_t itemDataLength(ItemRecord record);

// Files one received item and its data (which must be itemDataLength() bytes)
// into `out`. False, with `out` unchanged, when the data would not fit in the
// pattern text area: the caller treats that as a failed receive.
[[nodiscard]] bool addReceivedItem(ReceivedFilter& out, ItemRecord record, std::span<const uint8_t> data);

// Reads `count` items, each with its data, from a contiguous stream. False
// when the stream ends early or the data overruns the pattern text area;
// what was read before stays in `out`.
[[nodiscard]] bool readFilterItems(wire::ByteReader& in, uint32_t count, ReceivedFilter& out);

// A file (isDirectory false) or directory name pattern item followed by its
// data: the patterns, each with its NUL. Empty when the data does not fit a
// 16-bit length or the pattern text area, or a pattern holds a NUL.
std::optional<std::vector<uint8_t>> encodeNamePatternItem(bool isDirectory, bool exclude,
                                                          std::span<const std::string> patterns);
// An "on or before" (kOnOrBefore), "on or after" or "between" date item. A
// date is seconds since 1970 whose UTC calendar fields name the local day
// meant; `second` is used by "between" only.
std::vector<uint8_t> encodeDateItem(bool exclude, uint8_t which, uint8_t kind, int32_t first, int32_t second = 0);
// A "within the last n days/months/years" item.
std::vector<uint8_t> encodeWithinItem(bool exclude, uint8_t which, uint32_t n, uint16_t unit);

}  // namespace tavik::protocol
