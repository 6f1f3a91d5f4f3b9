// File transmission in one process against the real packet queue: entries
// that vanish, shrink or grow between their stat and their reading, names
// too long for the attribute record, listed raw devices and the database
// file list's bounds, long link targets; and the estimate's arithmetic.
#include "backup/stream.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <fstream>

#include "backup/attribute_record.h"
#include "backup/backup_state.h"
#include "backup/estimate.h"
#include "backup/queue.h"
#include "daemon/scratch_home.h"
#include "daemon/state.h"
#include "platform/fd.h"
#include "platform/fs_type.h"
#include "request/job_context.h"
#include "transport/packet.h"
#include "wire/bytes.h"

namespace {

using namespace tavik;
using namespace tavik::backup;

struct Packet {
    int code;
    uint8_t version;
    std::vector<uint8_t> payload;
    std::string text() const { return std::string(payload.begin(), payload.end() - (payload.empty() ? 0 : 1)); }
};

class StreamTest : public ::testing::Test {
protected:
    void SetUp() override {
        startupSettings() = Settings{};
        startupSettings().resetAccessTime = false;
        prepareForConnection(job());
        ASSERT_EQ(GetIPC(), 0);
    }
    void TearDown() override { ReleaseIPC(); }
    // The entries' directory, which backup_file opens them in by name.
    int dir() {
        if (!dir_) dir_.reset(::open(home_.dir().c_str(), O_RDONLY | O_DIRECTORY));
        return dir_.get();
    }
    std::vector<Packet> drain() {
        std::vector<Packet> out;
        while (queuedCount() != 0) {
            const uint8_t* slot = outSlot();
            protocol::HeaderBytes h;
            std::copy(slot, slot + 8, h.begin());
            protocol::PacketHeader header = protocol::decodeHeader(h);
            out.push_back({header.code, header.version, std::vector<uint8_t>(slot + 8, slot + 8 + header.length)});
            countdown();
        }
        return out;
    }
    std::string file(const std::string& name, size_t size) {
        std::string path = home_.dir() + "/" + name;
        std::ofstream(path) << std::string(size, 'x');
        return path;
    }
    std::vector<int> codes(const std::vector<Packet>& ps) {
        std::vector<int> out;
        for (const Packet& p : ps) out.push_back(p.code == 7 || p.code == 8 ? p.code * 100000 + int(p.payload.size()) : p.code);
        return out;
    }
    tavik::testing::ScratchHome home_;
    platform::UniqueFd dir_;
};

TEST_F(StreamTest, EntriesThatChangeBetweenStatAndRead) {
    struct stat st;
    std::string gone = file("gone", 10);
    stat(gone.c_str(), &st);
    unlink(gone.c_str());
    EXPECT_EQ(backup_file(dir(), gone, "gone", st, 0), 0);
    auto ps = drain();
    ASSERT_EQ(ps.size(), 1u);
    EXPECT_EQ(ps[0].code, 102);
    EXPECT_EQ(ps[0].version, 5);
    EXPECT_EQ(ps[0].text(), "gone");
    EXPECT_TRUE(home_.logHas("(backup_file) Failed to open regular file " + gone + " (No such file or directory)"));

    // Shrunk: the header keeps the size seen, the data end where the file ends.
    std::string shrink = file("shrink", 5000);
    stat(shrink.c_str(), &st);
    truncate(shrink.c_str(), 100);
    EXPECT_EQ(backup_file(dir(), shrink, "shrink", st, 0), 0);
    ps = drain();
    EXPECT_EQ(codes(ps), (std::vector<int>{6, 800100}));
    EXPECT_EQ(protocol::decodeBackupAttributes(ps[0].payload)->size, 5000u);

    // Grown: everything there is at reading time is sent.
    std::string grow = file("grow", 100);
    stat(grow.c_str(), &st);
    std::ofstream(grow, std::ios::app) << std::string(4900, 'y');
    EXPECT_EQ(backup_file(dir(), grow, "grow", st, 0), 0);
    EXPECT_EQ(codes(drain()), (std::vector<int>{6, 702048, 702048, 800904}));
}

// Data chunks are read several slots at a time: every size around a slot
// boundary, and a file longer than one read takes, still gives full MOF
// packets and one ENDF with the rest, in order, also across the ring's end.
TEST_F(StreamTest, ChunksReadTogetherKeepSlotBoundariesAndOrder) {
    const size_t sizes[] = {0, 1, 2047, 2048, 2049, 4096, 40 * 2048, 40 * 2048 + 7, 33 * 2048};
    for (int round = 0; round < 3; ++round) {  // the ring wraps more than once
        for (size_t size : sizes) {
            std::string path = home_.dir() + "/data";
            std::string bytes(size, '\0');
            for (size_t i = 0; i < size; ++i) bytes[i] = char('a' + (i * 7 + i / 2048) % 26);
            std::ofstream(path, std::ios::trunc) << bytes;
            struct stat st;
            ASSERT_EQ(stat(path.c_str(), &st), 0);
            ASSERT_EQ(backup_file(dir(), path, "data", st, 0), 0);
            auto ps = drain();
            std::vector<int> expected{6};
            for (size_t i = 0; i < size / 2048; ++i) expected.push_back(702048);
            expected.push_back(800000 + int(size % 2048));
            EXPECT_EQ(codes(ps), expected) << "size " << size;
            std::string got;
            for (size_t i = 1; i < ps.size(); ++i) got.append(ps[i].payload.begin(), ps[i].payload.end());
            EXPECT_EQ(got, bytes) << "size " << size;
        }
    }
}

TEST_F(StreamTest, NameTooLongForTheRecordIsReportedLikeAnUnopenableEntry) {
    std::string path = file("short", 3);
    struct stat st;
    stat(path.c_str(), &st);
    std::string name(protocol::kMaxRecordName + 1, 'n');
    EXPECT_EQ(backup_file(dir(), path, name, st, 0), 0);
    auto ps = drain();
    ASSERT_EQ(ps.size(), 1u);
    EXPECT_EQ(ps[0].code, 102);
    EXPECT_EQ(ps[0].text(), name);
    EXPECT_TRUE(home_.logHas("(File name too long)"));
    // The longest name that fits: a record of 49 + 255 bytes.
    std::string longest = file(std::string(protocol::kMaxRecordName, 'n'), 3);
    EXPECT_EQ(backup_file(dir(), longest, std::string(protocol::kMaxRecordName, 'n'), st, 0), 0);
    ps = drain();
    ASSERT_EQ(ps.size(), 2u);
    EXPECT_EQ(ps[0].payload.size(), 49 + protocol::kMaxRecordName);
}

// A listed raw device is sent as its listed size of data (the end-to-end
// backup test shows it); an unlisted one as an empty file.
TEST_F(StreamTest, RawDevicesAreLookedUpInTheDatabaseList) {
    std::string dev = home_.dir() + "/rawzero";
    ASSERT_EQ(mknod(dev.c_str(), S_IFCHR | 0600, makedev(1, 5)), 0);  // the zero device
    std::string other = home_.dir() + "/rawnull";
    ASSERT_EQ(mknod(other.c_str(), S_IFCHR | 0600, makedev(1, 3)), 0);
    // One entry: size, path, NUL, padding to a multiple of 4.
    std::vector<uint8_t>& list = job().dbFileList;
    list.assign(4, 0);
    wire::storeLe32(list.data(), 4096);
    list.insert(list.end(), dev.begin(), dev.end());
    list.push_back(0);
    while (list.size() % 4) list.push_back(0);
    uint32_t size = 0;
    EXPECT_TRUE(lookupRawSize(dev.c_str(), size));
    EXPECT_EQ(size, 4096u);
    EXPECT_FALSE(lookupRawSize(other.c_str(), size));

    struct stat st;
    stat(other.c_str(), &st);
    EXPECT_EQ(backup_file(dir(), other, "rawnull", st, 0), 0);
    auto ps = drain();
    EXPECT_EQ(codes(ps), (std::vector<int>{6, 800000}));
    EXPECT_EQ(protocol::decodeBackupAttributes(ps[0].payload)->size, 0u);
    EXPECT_EQ(protocol::decodeBackupAttributes(ps[0].payload)->kind, 0);

    // A list that does not hold whole entries is not walked past its end.
    list = {1, 0, 0, 0, 'a', 'b'};  // no NUL
    EXPECT_FALSE(lookupRawSize("ab", size));
    list = {1, 0, 0, 0, 'a', 0, 0, 0, 2, 0, 0};  // a second entry cut short
    EXPECT_TRUE(lookupRawSize("a", size));
    EXPECT_FALSE(lookupRawSize("b", size));
    list.clear();
    EXPECT_FALSE(lookupRawSize("a", size));
}

TEST_F(StreamTest, LinkTargetsAreCutAndARestartResendsTheNamedFile) {
    std::string link = home_.dir() + "/longlink";
    ASSERT_EQ(symlink(std::string(3000, 't').c_str(), link.c_str()), 0);
    struct stat st;
    lstat(link.c_str(), &st);
    EXPECT_EQ(backup_file(dir(), link, "longlink", st, 0), 0);
    EXPECT_EQ(codes(drain()), (std::vector<int>{6, 802048})) << "the target cut at the link buffer";

    std::string path = file("again", 3000);
    stat(path.c_str(), &st);
    job().restartOffset = -1;  // resend the named file from its start, without its header
    EXPECT_EQ(backup_file(dir(), path, "again", st, 0), 0);
    EXPECT_EQ(codes(drain()), (std::vector<int>{702048, 800952}));
    EXPECT_EQ(job().restartOffset, 0);
}

TEST(EstimateCount, OverflowUnitsStandFor4194303Kilobytes) {
    EstimateCount c;
    c.addBytes(1023);
    EXPECT_EQ(c.kilobytes(), 0u);
    c = {};
    for (uint64_t n : {1000u, 2048u, 0u}) c.addBytes(n);
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
    // A file above 4 GiB counts in full.
    c = {};
    c.addBytes(5ull << 30);
    EXPECT_EQ(c.overflows, 1u);
    EXPECT_EQ(c.bytes, uint32_t((5ull << 30) - 4294967295ull));
}

TEST(FileSystemType, NfsTestByMagicNumber) {
    EXPECT_EQ(platform::isNfsPath("/tmp"), 0);
    EXPECT_EQ(platform::isNfsPath("/no/such/path"), -1);
}

}  // namespace
