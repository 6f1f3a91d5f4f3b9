#include "backup/attribute_record.h"

#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <gtest/gtest.h>

#include <array>
#include <cstdlib>
#include <vector>

#include "platform/wire_stat.h"

namespace {

using namespace tavik::backup;
namespace protocol = tavik::protocol;

TEST(AttributeRecord, GoldenBytesAndLengthFortyNinePlusName) {
    protocol::BackupAttributes a;
    a.dev = 0x01020304;
    a.ino = 0x0A0B0C0D;
    a.mode = 0100644;
    a.nlink = 1;
    a.uid = -2;
    a.gid = 100;
    a.rdev = 0;
    a.atime = 0x11223344;
    a.mtime = 0x55667788;
    a.dosTime = 0xBEEF;
    a.dosDate = 0xCAFE;
    a.size = 4097;
    a.kind = protocol::kKindEntry;
    a.name = "hello.c12345";  // 12 bytes: length 61
    std::array<uint8_t, protocol::kMaxAttrRecord> buf;
    buf.fill(0xEE);
    ASSERT_EQ(protocol::encodeBackupAttributes(a, buf), 61u);
    const uint8_t head[] = {0x04, 0x03, 0x02, 0x01, 0x0D, 0x0C, 0x0B, 0x0A, 0xA4, 0x81, 0, 0, 1, 0, 0, 0,
                            0xFE, 0xFF, 0xFF, 0xFF, 100, 0, 0, 0, 0, 0, 0, 0, 0x44, 0x33, 0x22, 0x11,
                            0x88, 0x77, 0x66, 0x55, 0xEF, 0xBE, 0xFE, 0xCA, 0x01, 0x10, 0, 0, 0};
    EXPECT_EQ(std::vector<uint8_t>(buf.begin(), buf.begin() + sizeof head), std::vector<uint8_t>(head, std::end(head)));
    EXPECT_EQ(std::string(reinterpret_cast<char*>(&buf[45]), 12), "hello.c12345");
    for (size_t i = 57; i < 61; ++i) EXPECT_EQ(buf[i], 0) << "NUL and padding at " << i;
    EXPECT_EQ(buf[61], 0xEE) << "nothing written past the record";

    auto back = protocol::decodeBackupAttributes(std::span<const uint8_t>(buf.data(), 61));
    ASSERT_TRUE(back);
    EXPECT_EQ(back->name, a.name);
    EXPECT_EQ(back->uid, -2);
    EXPECT_EQ(back->size, 4097u);
    EXPECT_EQ(back->dosDate, 0xCAFE);
}

TEST(AttributeRecord, RefusesLongNamesAndDecodesOnlyWholeRecords) {
    protocol::BackupAttributes a;
    a.name = std::string(protocol::kMaxRecordName, 'n');
    std::vector<uint8_t> buf(protocol::kMaxAttrRecord + 10);
    EXPECT_EQ(protocol::encodeBackupAttributes(a, buf), protocol::kMaxAttrRecord);
    a.name += 'n';
    EXPECT_EQ(protocol::encodeBackupAttributes(a, buf), 0u) << "256 bytes: refused";
    a.name = "x";
    EXPECT_EQ(protocol::encodeBackupAttributes(a, std::span<uint8_t>(buf.data(), 49)), 0u) << "no room";
    ASSERT_EQ(protocol::encodeBackupAttributes(a, buf), 50u);
    for (size_t len = 0; len < 46; ++len)
        EXPECT_FALSE(protocol::decodeBackupAttributes(std::span<const uint8_t>(buf.data(), len))) << len;
    std::fill(buf.begin() + 45, buf.begin() + 50, 'x');
    EXPECT_FALSE(protocol::decodeBackupAttributes(std::span<const uint8_t>(buf.data(), 50))) << "name without a NUL";
}

TEST(AttributeRecord, DosTimeAndDateInLocalTime) {
    setenv("TZ", "UTC", 1);
    tzset();
    uint16_t t, d;
    protocol::dosTimeDate(1780841109, t, d);  // 2026-06-07 14:05:09
    EXPECT_EQ(t, (9 / 2) | (5 << 5) | (14 << 11));
    EXPECT_EQ(d, 7 | (6 << 5) | ((2026 - 1980) << 9));
}

TEST(WireStat, DevicesTimesAndSizesInThirtyTwoBits) {
    for (auto [maj, min] : {std::pair{8u, 1u}, {1u, 3u}, {259u, 0x3FFFFu}, {0x3FFFu, 7u}, {0u, 0u}}) {
        dev_t dev = makedev(maj, min);
        EXPECT_TRUE(tavik::platform::dev32Exact(dev));
        EXPECT_EQ(tavik::platform::decodeDev32(tavik::platform::encodeDev32(dev)), dev) << maj << ":" << min;
    }
    EXPECT_EQ(tavik::platform::encodeDev32(makedev(8, 1)), (8u << 18) | 1u);
    EXPECT_FALSE(tavik::platform::dev32Exact(makedev(1, 1u << 18)));
    // Times and sizes in 32 bits.
    EXPECT_EQ(tavik::platform::wireTime(-5), 0u);
    EXPECT_EQ(tavik::platform::wireTime(int64_t(1) << 33), UINT32_MAX);
    EXPECT_EQ(tavik::platform::wireTime(3000000000LL), 3000000000u) << "unsigned: past 2038 still right";
    EXPECT_EQ(tavik::platform::wireSize((int64_t(5) << 32) + 7), 7u);
}

TEST(WireStat, MultiplyLinkedFilesNeverShareAWirePair) {
    tavik::platform::InodeNumbering n;
    dev_t dev = makedev(8, 1);
    ino_t big1 = (ino_t(1) << 40) + 5, big2 = (ino_t(2) << 40) + 5;  // same low 32 bits
    uint32_t a = n.wireInode(dev, big1, 2);
    uint32_t b = n.wireInode(dev, big2, 2);
    EXPECT_NE(a, b);
    EXPECT_EQ(n.wireInode(dev, big1, 2), a) << "the same file keeps its number";
    // A real small number that equals a given one is moved aside when linked.
    uint32_t c = n.wireInode(dev, ino_t(a), 3);
    EXPECT_NE(c, a);
    EXPECT_NE(c, b);
    EXPECT_NE(n.wireInode(dev, ino_t(b), 1), b) << "nor may a single-link file reuse it";
    EXPECT_EQ(n.wireInode(dev, 1234, 1), 1234u);
    EXPECT_EQ(n.wireInode(dev, 1234, 2), 1234u);
}

}  // namespace
