#include "wire/bytes.h"

#include <gtest/gtest.h>

#include <array>
#include <vector>

using tavik::wire::ByteReader;
using tavik::wire::ByteWriter;

TEST(ByteCodec, RoundTripBothByteOrders) {
    std::array<uint8_t, 13> buf{};
    ByteWriter w(buf);
    ASSERT_TRUE(w.putU8(0xAB) && w.putLe16(0x1234) && w.putBe16(0x1234) && w.putLe32(0xA1B2C3D4) &&
                w.putBe32(0xA1B2C3D4));
    EXPECT_EQ(buf, (std::array<uint8_t, 13>{0xAB, 0x34, 0x12, 0x12, 0x34, 0xD4, 0xC3, 0xB2, 0xA1, 0xA1, 0xB2, 0xC3,
                                            0xD4}));
    ByteReader r(buf.data(), buf.size());
    uint8_t u8;
    uint16_t a, b;
    uint32_t c, d;
    ASSERT_TRUE(r.getU8(u8) && r.getLe16(a) && r.getBe16(b) && r.getLe32(c) && r.getBe32(d));
    EXPECT_EQ((std::vector<uint32_t>{u8, a, b, c, d}),
              (std::vector<uint32_t>{0xAB, 0x1234, 0x1234, 0xA1B2C3D4, 0xA1B2C3D4}));
    EXPECT_TRUE(r.empty());
}

// A read that does not fit fails and consumes nothing, at every length.
TEST(ByteCodec, TruncationAtEveryLengthConsumesNothing) {
    const std::vector<uint8_t> bytes = {1, 2, 3, 4};
    for (size_t len = 0; len < 4; ++len) {
        ByteReader r(bytes.data(), len);
        uint32_t v;
        uint16_t s;
        std::string text;
        EXPECT_FALSE(r.getLe32(v) || r.getBe32(v) || r.getFixedText(len + 1, text) || r.skip(len + 1)) << len;
        if (len < 2) {
            EXPECT_FALSE(r.getLe16(s) || r.getBe16(s)) << len;
        }
        EXPECT_EQ(r.position(), 0u) << len;
    }
}

TEST(ByteCodec, FixedTextKeepsItsNul) {
    std::array<uint8_t, 8> buf;
    buf.fill(0xEE);
    ByteWriter w(buf);
    EXPECT_FALSE(w.putFixedText("12345678", 8)) << "no room for the NUL";
    EXPECT_EQ(w.position(), 0u);
    EXPECT_EQ(buf[0], 0xEE) << "a failed put writes nothing";
    ASSERT_TRUE(w.putFixedText("1234567", 8));
    EXPECT_EQ(buf[7], 0);

    // A field without a NUL is all text; one with a NUL ends there and is skipped whole.
    const uint8_t fields[10] = {'a', 'b', 'c', 'd', 'x', 'y', 0, 'z', 0, 0};
    ByteReader r(fields, sizeof fields);
    std::string first, second;
    ASSERT_TRUE(r.getFixedText(4, first) && r.getFixedText(6, second));
    EXPECT_EQ(first + "|" + second, "abcd|xy");
    EXPECT_TRUE(r.empty());
}

TEST(ByteCodec, WriterRefusesOverflow) {
    std::array<uint8_t, 3> buf{};
    ByteWriter w(buf);
    EXPECT_FALSE(w.putLe32(1));
    ASSERT_TRUE(w.putLe16(1));
    EXPECT_FALSE(w.putBe16(1) || w.putZeros(2));
    ASSERT_TRUE(w.putU8(9));
    EXPECT_FALSE(w.putU8(9) || w.seek(4));
    EXPECT_TRUE(w.seek(3));
}
