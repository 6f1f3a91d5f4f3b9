// Decoding the GROOMING command's payload and tape record from wire bytes.
#include "protocol/commands.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

namespace protocol = tavik::protocol;
using tavik::wire::ByteReader;

std::vector<uint8_t> groomingBytes() {
    return {0x03, 0x00,              // nMonths 3
            0x02, 0x00,              // nCopies 2
            0x05, 0x00, 0x00, 0x00,  // nFilterItems 5
            0xAA, 0xBB, 0xCC, 0xDD,  // not read
            0x06, 0x00, 0x00, 0x80,  // fOptions
            'W',  'E',  'E',  'K',  'S', 'E', 'T', '9',  // set name without NUL
            0x11, 0x22};             // beyond the kept 24 bytes
}

TEST(GroomRecord, DecodesGoldenBytes) {
    std::vector<uint8_t> bytes = groomingBytes();
    ByteReader in(bytes.data(), bytes.size());
    protocol::GroomingRecord r = protocol::decodeGroomingRecord(in);
    EXPECT_EQ(r.nMonths, 3);
    EXPECT_EQ(r.nCopies, 2);
    EXPECT_EQ(r.nFilterItems, 5u);
    EXPECT_EQ(r.fOptions, 0x80000006u);
    EXPECT_EQ(r.rotationSet, "WEEKSET9");
    EXPECT_EQ(in.position(), protocol::kGroomKeptSize) << "the rest is the caller's";
    EXPECT_TRUE(std::equal(r.kept.begin(), r.kept.end(), bytes.begin()));
}

TEST(GroomRecord, ShortPayloadReadsAsZeroPadded) {
    std::vector<uint8_t> bytes = groomingBytes();
    for (size_t len = 0; len <= protocol::kGroomKeptSize; ++len) {
        ByteReader in(bytes.data(), len);
        protocol::GroomingRecord r = protocol::decodeGroomingRecord(in);
        EXPECT_EQ(in.position(), len);
        EXPECT_EQ(r.nMonths, len >= 1 ? 3 : 0) << len;
        EXPECT_EQ(r.fOptions, len >= 16 ? 0x80000006u : len >= 13 ? 0x06u : 0u) << len;
        EXPECT_EQ(r.rotationSet.size(), len > 16 ? len - 16 : 0) << len;
    }
}

TEST(GroomRecord, TapeRecordWholeOrNothing) {
    std::vector<uint8_t> bytes(protocol::kTapeRecordSize, 0);
    const char id[] = "TAPE-ID-0123456X";  // all 16 bytes used, no NUL
    std::copy(id, id + 16, bytes.begin());
    const char session[] = "0042";
    std::copy(session, session + 4, bytes.begin() + 16);
    const char name[] = "WEEKLY-07";
    std::copy(name, name + 9, bytes.begin() + 32);
    bytes[62] = 0xFF;
    protocol::TapeRecord t;
    ByteReader in(bytes.data(), bytes.size());
    ASSERT_TRUE(protocol::decodeTapeRecord(in, t));
    EXPECT_EQ(t.tapeID, "TAPE-ID-0123456X");
    EXPECT_EQ(t.sessionNumber, "0042");
    EXPECT_EQ(t.tapeName, "WEEKLY-07");
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
