// The GROOMING command's two records as the job receives them.
//
// GroomingRecord is the command's payload (its first 24 bytes are what
// grooming keeps); TapeRecord is the 63-byte raw transfer that follows it.
// Both are decoded from the bytes as received, through the bounded reader:
// a grooming payload shorter than 24 bytes reads as if padded with zeros, a
// tape record must be whole. Multi-byte fields are little-endian.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

#include "wire/bytes.h"

namespace tavik::groom {

// Grooming record offsets.
inline constexpr size_t kGroomMonthsOffset = 0;
inline constexpr size_t kGroomCopiesOffset = 2;
inline constexpr size_t kGroomFilterItemsOffset = 4;
inline constexpr size_t kGroomOptionsOffset = 12;
inline constexpr size_t kGroomSetOffset = 16;
inline constexpr size_t kGroomSetWidth = 8;
inline constexpr size_t kGroomKeptSize = 24;
static_assert(kGroomSetOffset + kGroomSetWidth == kGroomKeptSize);

// fOptions bits.
inline constexpr uint32_t kGroomRotationSet = 0x02;
inline constexpr uint32_t kGroomDelete = 0x04;

// Tape record widths.
inline constexpr size_t kTapeIdWidth = 16;
inline constexpr size_t kSessionNumberWidth = 16;
inline constexpr size_t kTapeNameWidth = 30;
inline constexpr size_t kTapeRecordSize = 63;
static_assert(kTapeIdWidth + kSessionNumberWidth + kTapeNameWidth + 1 == kTapeRecordSize);

// GROOMSET is a 16-byte text; the rotation set name in it has at most 8.
inline constexpr size_t kGroomSetTextSize = 16;

struct GroomingRecord {
    uint16_t nMonths = 0;
    uint16_t nCopies = 0;  // not used by grooming
    uint32_t nFilterItems = 0;
    uint32_t fOptions = 0;
    std::string rotationSet;  // at most 8 characters
    std::array<uint8_t, kGroomKeptSize> kept{};  // the record's first 24 bytes
};

struct TapeRecord {
    std::string tapeID;
    std::string sessionNumber;
    std::string tapeName;
    int8_t tapeSequence = 0;
};

// Reads the grooming payload from `in` (at most 24 bytes are consumed; the
// rest of the payload is left to the caller). Never fails.
GroomingRecord DecodeGroomingRecord(wire::ByteReader& in);
// Reads the 63-byte tape record; false (nothing consumed) when it is short.
[[nodiscard]] bool DecodeTapeRecord(wire::ByteReader& in, TapeRecord& out);

}  // namespace tavik::groom
