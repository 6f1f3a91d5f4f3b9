// The parameter phase of a job: the command codes the front-end sends
// after the job request, what they carry (the GROOMING command's record and
// the tape record that follows it), the bound on the raw transfers of
// DISK_ITEM and DB_FILE, and the estimate's answer.
//
// GroomingRecord is the GROOMING command's payload (the front-end sends 32
// bytes; the agent keeps the first 24); TapeRecord is the 63-byte raw
// transfer that follows it. Both are decoded through the bounded reader: a
// grooming payload shorter than 24 bytes reads as if padded with zeros, a
// tape record must be whole. Multi-byte fields are little-endian.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "wire/bytes.h"

namespace tavik::protocol {

// Command codes of the parameter phase.
namespace command {
inline constexpr int8_t kStart = 0;
inline constexpr int8_t kDiskItem = 11;
inline constexpr int8_t kOption = 12;
inline constexpr int8_t kGrooming = 13;
inline constexpr int8_t kEstimate = 14;
inline constexpr int8_t kDbFile = 15;
inline constexpr int8_t kContinue = 16;
}  // namespace command

// The largest topList text or database file list a job accepts.
inline constexpr uint32_t kMaxRawTransfer = 16u * 1024 * 1024;

// The estimate's answer: files and kilobytes, 32 bits each.
inline constexpr size_t kEstimateReplySize = 8;

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
GroomingRecord decodeGroomingRecord(wire::ByteReader& in);
// Reads the 63-byte tape record; false (nothing consumed) when it is short.
[[nodiscard]] bool decodeTapeRecord(wire::ByteReader& in, TapeRecord& out);

// The GROOMING record the front-end sends: 32 bytes, of which the agent
// keeps 24.
inline constexpr size_t kGroomRecordSize = 32;
std::vector<uint8_t> encodeGroomingRecord(uint16_t months, uint32_t options, const std::string& rotationSet);

}  // namespace tavik::protocol
