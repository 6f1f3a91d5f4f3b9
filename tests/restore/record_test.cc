// The restore attribute record: golden bytes both ways, every truncation
// and the name bounds.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "protocol/restore_record.h"

namespace tavik::restore {
namespace {

protocol::RestoreAttributes sample() {
    return {.dev = 0x01020304, .ino = 0x05060708, .mode = 0100644, .nlink = 2, .uid = 1001, .gid = 100,
            .rdev = 0x00400003, .atime = 0x5F5E1000, .mtime = 0x499602D2, .unused36 = 0xAABBCCDD, .size = 70000,
            .unused44 = 0x11223344, .name = "/home/u/f"};
}

TEST(RestoreRecord, GoldenBytesBothWays) {
    std::vector<uint8_t> expected = {
        0x04, 0x03, 0x02, 0x01, 0x08, 0x07, 0x06, 0x05, 0xA4, 0x81, 0x00, 0x00,  // dev ino mode
        0x02, 0x00, 0x00, 0x00, 0xE9, 0x03, 0x00, 0x00, 0x64, 0x00, 0x00, 0x00,  // nlink uid gid
        0x03, 0x00, 0x40, 0x00, 0x00, 0x10, 0x5E, 0x5F, 0xD2, 0x02, 0x96, 0x49,  // rdev atime mtime
        0xDD, 0xCC, 0xBB, 0xAA, 0x70, 0x11, 0x01, 0x00, 0x44, 0x33, 0x22, 0x11,  // 36 size 44
        '/', 'h', 'o', 'm', 'e', '/', 'u', '/', 'f', 0};
    protocol::RestoreAttributes a = sample(), b;
    EXPECT_EQ(protocol::encodeRestoreAttributes(a), expected);
    ASSERT_EQ(protocol::decodeRestoreAttributes(expected, b), protocol::RecordError::None);
    EXPECT_EQ(protocol::encodeRestoreAttributes(b), expected);  // every field came back to its place
}

TEST(RestoreRecord, EveryTruncation) {
    std::vector<uint8_t> full = protocol::encodeRestoreAttributes(sample());
    for (size_t n = 0; n < full.size(); ++n) {
        protocol::RestoreAttributes out;
        protocol::RecordError e = protocol::decodeRestoreAttributes(std::span<const uint8_t>(full.data(), n), out);
        if (n < protocol::kRecName) {
            EXPECT_EQ(e, protocol::RecordError::Short) << n;
            EXPECT_TRUE(out.name.empty());
        } else {
            // The record's end stands for the NUL of a name cut short.
            ASSERT_EQ(e, protocol::RecordError::None) << n;
            EXPECT_EQ(out.name, sample().name.substr(0, n - protocol::kRecName));
        }
    }
}

TEST(RestoreRecord, NamesOf1023BytesPassAnd1024AreRefused) {
    protocol::RestoreAttributes a = sample();
    a.name = std::string(1023, 'n');
    std::vector<uint8_t> record = protocol::encodeRestoreAttributes(a);
    ASSERT_EQ(record.size(), protocol::kRecName + 1024);
    protocol::RestoreAttributes out;
    ASSERT_EQ(protocol::decodeRestoreAttributes(record, out), protocol::RecordError::None);
    EXPECT_EQ(out.name.size(), 1023u);

    a.name.push_back('n');
    EXPECT_TRUE(protocol::encodeRestoreAttributes(a).empty());
    record.back() = 'n';  // 1024 name bytes, no NUL
    EXPECT_EQ(protocol::decodeRestoreAttributes(record, out), protocol::RecordError::NameTooLong);
    record.push_back(0);
    EXPECT_EQ(protocol::decodeRestoreAttributes(record, out), protocol::RecordError::NameTooLong);
    EXPECT_TRUE(out.name.empty());

    a.name = std::string("a\0b", 3);
    EXPECT_TRUE(protocol::encodeRestoreAttributes(a).empty());
}

}  // namespace
}  // namespace tavik::restore
