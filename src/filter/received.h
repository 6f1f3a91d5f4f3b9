// The selection filter's items as the job receives them, before a filter is
// built from them.
//
// The receiving side (the job's parameter phase) fills this record: each
// 32-byte item exactly as it came off the wire and, for file and directory
// name pattern items, where its pattern data lies in the shared pattern text
// area. The filter model decodes the items from here. The record owns its
// bytes; its size is bounded by the request's item count and the 16384-byte
// pattern text area.
#pragma once

#include <array>
#include <cstdint>
#include <vector>

namespace tavik::filter {

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

}  // namespace tavik::filter
