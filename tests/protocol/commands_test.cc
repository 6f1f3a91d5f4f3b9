// Decoding the GROOMING command's payload and tape record from wire bytes.
#include "protocol/commands.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

namespace {

namespace protocol = tavik::protocol;
using tavik::wire::ByteReader;

const std::vector<uint8_t> kGrooming = {
    0x03, 0x00,                              // nMonths 3
    0x02, 0x00,                              // nCopies 2
    0x05, 0x00, 0x00, 0x00,                  // nFilterItems 5
    0xAA, 0xBB, 0xCC, 0xDD,                  // not read
    0x06, 0x00, 0x00, 0x80,                  // fOptions
    'W',  'E',  'E',  'K',  'S', 'E', 'T', '9',  // set name without NUL
    0x11, 0x22};                             // beyond the kept 24 bytes

// Whole, the payload gives its golden fields; cut short at any length it
// reads as zero-padded.
TEST(GroomRecord, ShortPayloadReadsAsZeroPadded) {
    ByteReader in(kGrooming.data(), kGrooming.size());
    protocol::GroomingRecord r = protocol::decodeGroomingRecord(in);
    EXPECT_EQ((std::vector<uint32_t>{r.nMonths, r.nCopies, r.nFilterItems, r.fOptions}),
              (std::vector<uint32_t>{3, 2, 5, 0x80000006u}));
    EXPECT_EQ(r.rotationSet, "WEEKSET9");
    EXPECT_EQ(in.position(), protocol::kGroomKeptSize) << "the rest is the caller's";
    EXPECT_TRUE(std::equal(r.kept.begin(), r.kept.end(), kGrooming.begin()));
    for (size_t len = 0; len <= protocol::kGroomKeptSize; ++len) {
        ByteReader cut(kGrooming.data(), len);
        r = protocol::decodeGroomingRecord(cut);
        EXPECT_EQ(cut.position(), len);
        EXPECT_EQ(r.nMonths, len >= 1 ? 3 : 0) << len;
        EXPECT_EQ(r.fOptions, len >= 16 ? 0x80000006u : len >= 13 ? 0x06u : 0u) << len;
        EXPECT_EQ(r.rotationSet.size(), len > 16 ? len - 16 : 0) << len;
    }
}

TEST(GroomRecord, TapeRecordWholeOrNothing) {
    // Every field full, without its NUL; the sequence byte signed.
    std::string text = "TAPE-ID-0123456X0042" + std::string(12, '\0') + "WEEKLY-07";
    std::vector<uint8_t> bytes(text.begin(), text.end());
    bytes.resize(protocol::kTapeRecordSize);
    bytes[62] = 0xFF;
    protocol::TapeRecord t;
    ByteReader in(bytes.data(), bytes.size());
    ASSERT_TRUE(protocol::decodeTapeRecord(in, t));
    EXPECT_EQ(t.tapeID + "|" + t.sessionNumber + "|" + t.tapeName, "TAPE-ID-0123456X|0042|WEEKLY-07");
    EXPECT_EQ(t.tapeSequence, -1);
    EXPECT_TRUE(in.empty());
    for (size_t len = 0; len < protocol::kTapeRecordSize; ++len) {
        ByteReader cut(bytes.data(), len);
        protocol::TapeRecord u;
        u.tapeName = "untouched";
        EXPECT_FALSE(protocol::decodeTapeRecord(cut, u)) << len;
        EXPECT_EQ(cut.position(), 0u);
        EXPECT_EQ(u.tapeName, "untouched");
    }
}

}  // namespace
