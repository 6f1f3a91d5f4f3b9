// File transmission in one process against the real packet queue: entries
// that vanish, shrink or grow between their stat and their reading, names
// too long for the attribute record, the database file list's bounds, long
// link targets and a restart from a file's start; then the attribute
// record's bytes, the 32-bit wire fields and the estimate's overflow units.
// Chunks across the ring's end and listed raw devices are read back end to
// end (BackupFlowTest.ThirtyTwoBackupsAtOnceReassembleExactly,
// BackupStreamTest.ListedRawDeviceIsSentAsData).
#include "backup/stream.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <fstream>

#include "backup/attribute_record.h"
#include "backup/estimate.h"
#include "backup/queue.h"
#include "daemon/scratch_home.h"
#include "platform/fd.h"
#include "platform/wire_stat.h"
#include "protocol/packet.h"
#include "request/job_context.h"

namespace {

using namespace tavik;
using namespace tavik::backup;

struct Packet {
    int code;
    uint8_t version;
    std::vector<uint8_t> payload;
};

class StreamTest : public ::testing::Test {
protected:
    void SetUp() override {
        startupSettings() = Settings{};
        startupSettings().resetAccessTime = false;
        publishSettings();
        prepareJob(ctx_);
        ASSERT_EQ(job_.queue.open(ctx_), 0);
        dir_.reset(::open(home_.dir().c_str(), O_RDONLY | O_DIRECTORY));
    }
    void TearDown() override { static_cast<void>(job_.queue.release()); }
    // Sends the entry at `name` in the scratch directory as lstat shows it
    // now (or as `st` showed it before); returns the codes of the packets
    // queued, MOF and ENDF as 700000 and 800000 plus their length.
    std::vector<int> send(const std::string& name, const std::string& wireName = "") {
        struct stat st {};
        ::lstat(path(name).c_str(), &st);
        return sendAs(name, st, wireName);
    }
    std::vector<int> sendAs(const std::string& name, struct stat st, const std::string& wireName = "") {
        EXPECT_FALSE(backup_file(job_, dir_.get(), path(name), wireName.empty() ? name : wireName, st, 0).isJobOver());
        packets_.clear();
        std::vector<int> codes;
        for (; job_.queue.queuedCount() != 0; job_.queue.countdown()) {
            protocol::HeaderBytes h;
            std::copy(job_.queue.outSlot(), job_.queue.outSlot() + 8, h.begin());
            protocol::PacketHeader header = protocol::decodeHeader(h);
            packets_.push_back({header.code, header.version, {job_.queue.outSlot() + 8, job_.queue.outSlot() + 8 + header.length}});
            bool data = header.code == 7 || header.code == 8;
            codes.push_back(data ? header.code * 100000 + header.length : header.code);
        }
        return codes;
    }
    std::string path(const std::string& name) const { return home_.dir() + "/" + name; }
    std::string file(const std::string& name, size_t size) {
        std::ofstream(path(name)) << std::string(size, 'x');
        return path(name);
    }
    uint32_t sizeInHeader() const { return protocol::decodeBackupAttributes(packets_[0].payload)->size; }
    tavik::testing::ScratchHome home_;
    JobContext ctx_;
    BackupJob job_{ctx_};
    platform::UniqueFd dir_;
    std::vector<Packet> packets_;
};

TEST_F(StreamTest, EntriesThatChangeBetweenStatAndRead) {
    struct stat st {};
    ::stat(file("gone", 10).c_str(), &st);
    ::unlink(path("gone").c_str());
    EXPECT_EQ(sendAs("gone", st), (std::vector<int>{102}));
    EXPECT_EQ(packets_[0].version, 5);
    EXPECT_EQ(packets_[0].payload, (std::vector<uint8_t>{'g', 'o', 'n', 'e', 0}));
    EXPECT_TRUE(home_.logHas("(backup_file) Failed to open regular file " + path("gone") + " (No such file or directory)"));

    // Shrunk: the header keeps the size seen, the data end where the file ends.
    ::stat(file("shrink", 5000).c_str(), &st);
    ::truncate(path("shrink").c_str(), 100);
    EXPECT_EQ(sendAs("shrink", st), (std::vector<int>{6, 800100}));
    EXPECT_EQ(sizeInHeader(), 5000u);

    // Grown: everything there is at reading time is sent.
    ::stat(file("grow", 100).c_str(), &st);
    std::ofstream(path("grow"), std::ios::app) << std::string(4900, 'y');
    EXPECT_EQ(sendAs("grow", st), (std::vector<int>{6, 702048, 702048, 800904}));
}

TEST_F(StreamTest, NameTooLongForTheRecordIsReportedLikeAnUnopenableEntry) {
    file("short", 3);
    std::string name(protocol::kMaxRecordName + 1, 'n');
    EXPECT_EQ(send("short", name), (std::vector<int>{102}));
    EXPECT_EQ(std::string(packets_[0].payload.begin(), packets_[0].payload.end() - 1), name);
    EXPECT_TRUE(home_.logHas("(File name too long)"));
    // The longest name that fits: a record of 49 + 255 bytes.
    file(name.substr(1), 3);
    EXPECT_EQ(send(name.substr(1)), (std::vector<int>{6, 800003}));
    EXPECT_EQ(packets_[0].payload.size(), 49 + protocol::kMaxRecordName);
}

// A list that does not hold whole entries is not walked past its end.
TEST_F(StreamTest, RawDevicesAreLookedUpInTheDatabaseList) {
    std::vector<uint8_t>& list = ctx_.dbFileList;
    uint32_t size = 0;
    list = {0, 0x10, 0, 0, 'a', 0, 0, 0, 2, 0, 0};  // 4096 for "a", then an entry cut short
    EXPECT_TRUE(lookupRawSize(ctx_, "a", size));
    EXPECT_EQ(size, 4096u);
    EXPECT_FALSE(lookupRawSize(ctx_, "b", size));
    list = {1, 0, 0, 0, 'a', 'b'};  // no NUL
    EXPECT_FALSE(lookupRawSize(ctx_, "ab", size));
    list.clear();
    EXPECT_FALSE(lookupRawSize(ctx_, "a", size));
}

TEST_F(StreamTest, LinkTargetsAreCutAndARestartResendsTheNamedFile) {
    ASSERT_EQ(::symlink(std::string(3000, 't').c_str(), path("longlink").c_str()), 0);
    EXPECT_EQ(send("longlink"), (std::vector<int>{6, 802048})) << "the target cut at the link buffer";
    file("again", 3000);
    ctx_.restartOffset = -1;  // resend the named file from its start, without its header
    EXPECT_EQ(send("again"), (std::vector<int>{702048, 800952}));
    EXPECT_EQ(ctx_.restartOffset, 0);
}

TEST(EstimateCount, OverflowUnitsStandFor4194303Kilobytes) {
    EstimateCount c;
    for (uint64_t n : {1000u, 2047u}) c.addBytes(n);
    EXPECT_EQ(c.kilobytes(), 2u);
    c = {};
    c.addBytes(2147483647u);
    c.addBytes(2147483647u);
    EXPECT_EQ(c.bytes, 4294967294u);
    EXPECT_EQ(c.overflows, 0u);
    c.addBytes(2147483647u);
    EXPECT_EQ(c.bytes, 2147483646u);
    EXPECT_EQ(c.overflows, 1u);
    EXPECT_EQ(c.kilobytes(), 6291454u);
    c = {};
    c.addBytes(5ull << 30);  // a file above 4 GiB counts in full
    EXPECT_EQ(c.overflows, 1u);
    EXPECT_EQ(c.bytes, uint32_t((5ull << 30) - 4294967295ull));
}

TEST(AttributeRecord, GoldenBytesAndLengthFortyNinePlusName) {
    protocol::BackupAttributes a{.dev = 0x01020304, .ino = 0x0A0B0C0D, .mode = 0100644, .nlink = 1, .uid = -2,
                                 .gid = 100, .rdev = 0, .atime = 0x11223344, .mtime = 0x55667788,
                                 .dosTime = 0xBEEF, .dosDate = 0xCAFE, .size = 4097,
                                 .kind = protocol::kKindEntry, .name = "hello.c12345"};
    std::array<uint8_t, protocol::kMaxAttrRecord> buf;
    buf.fill(0xEE);
    ASSERT_EQ(protocol::encodeBackupAttributes(a, buf), 61u);
    std::string golden("\x04\x03\x02\x01\x0D\x0C\x0B\x0A\xA4\x81\0\0\1\0\0\0\xFE\xFF\xFF\xFF\x64\0\0\0\0\0\0\0"
                       "\x44\x33\x22\x11\x88\x77\x66\x55\xEF\xBE\xFE\xCA\x01\x10\0\0\0hello.c12345\0\0\0\0\xEE",
                       62);
    EXPECT_EQ(std::string(buf.begin(), buf.begin() + 62), golden) << "NUL, padding, nothing past the record";

    auto back = protocol::decodeBackupAttributes(std::span<const uint8_t>(buf.data(), 61));
    ASSERT_TRUE(back);
    EXPECT_EQ(protocol::encodeBackupAttributes(*back, buf), 61u);
    EXPECT_EQ(std::string(buf.begin(), buf.begin() + 61), golden.substr(0, 61));
}

TEST(AttributeRecord, RefusesLongNamesAndDecodesOnlyWholeRecords) {
    protocol::BackupAttributes a{.name = std::string(protocol::kMaxRecordName + 1, 'n')};
    std::vector<uint8_t> buf(protocol::kMaxAttrRecord + 10);
    EXPECT_EQ(protocol::encodeBackupAttributes(a, buf), 0u) << "256 bytes: refused";
    a.name = "x";
    EXPECT_EQ(protocol::encodeBackupAttributes(a, std::span<uint8_t>(buf.data(), 49)), 0u) << "no room";
    ASSERT_EQ(protocol::encodeBackupAttributes(a, buf), 50u);
    for (size_t len = 0; len < 46; ++len)
        EXPECT_FALSE(protocol::decodeBackupAttributes(std::span<const uint8_t>(buf.data(), len))) << len;
    std::fill(buf.begin() + 45, buf.begin() + 50, 'x');
    EXPECT_FALSE(protocol::decodeBackupAttributes(std::span<const uint8_t>(buf.data(), 50))) << "name without a NUL";
}

TEST(WireStat, DevicesTimesAndSizesInThirtyTwoBits) {
    setenv("TZ", "UTC", 1);
    tzset();
    uint16_t t, d;
    protocol::dosTimeDate(1780841109, t, d);  // 2026-06-07 14:05:09
    EXPECT_EQ(t, (9 / 2) | (5 << 5) | (14 << 11));
    EXPECT_EQ(d, 7 | (6 << 5) | ((2026 - 1980) << 9));
    for (auto [maj, min] : {std::pair{259u, 0x3FFFFu}, {0x3FFFu, 7u}}) {
        EXPECT_TRUE(platform::dev32Exact(makedev(maj, min)));
        EXPECT_EQ(platform::decodeDev32(platform::encodeDev32(makedev(maj, min))), makedev(maj, min)) << maj;
    }
    EXPECT_EQ(platform::encodeDev32(makedev(8, 1)), (8u << 18) | 1u);
    EXPECT_FALSE(platform::dev32Exact(makedev(1, 1u << 18)));
    EXPECT_EQ(platform::wireTime(-5), 0u);
    EXPECT_EQ(platform::wireTime(int64_t(1) << 33), UINT32_MAX);
    EXPECT_EQ(platform::wireTime(3000000000LL), 3000000000u) << "unsigned: past 2038 still right";
    EXPECT_EQ(platform::wireSize((int64_t(5) << 32) + 7), 7u);
}

// Linked files whose inode numbers agree in their low 32 bits, or whose
// small number equals one already given out, never share a wire number.
TEST(WireStat, MultiplyLinkedFilesNeverShareAWirePair) {
    platform::InodeNumbering n;
    dev_t dev = makedev(8, 1);
    ino_t big1 = (ino_t(1) << 40) + 5, big2 = (ino_t(2) << 40) + 5;
    uint32_t a = n.wireInode(dev, big1, 2), b = n.wireInode(dev, big2, 2);
    EXPECT_NE(a, b);
    EXPECT_EQ(n.wireInode(dev, big1, 2), a) << "the same file keeps its number";
    uint32_t c = n.wireInode(dev, ino_t(a), 3);
    EXPECT_NE(c, a);
    EXPECT_NE(c, b);
    EXPECT_NE(n.wireInode(dev, ino_t(b), 1), b) << "nor may a single-link file reuse it";
    EXPECT_EQ(n.wireInode(dev, 1234, 2), 1234u);
}

}  // namespace
