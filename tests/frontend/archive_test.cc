// The archive file: golden header and trailer bytes, breaches of the
// stream's structure, and damage (truncation at every length, every flipped
// byte, a packet overrunning the body) caught by the reader and by
// `tavikctl list --verify`. Round trips through the writer, the reader and
// the walker are made end to end (tests/e2e/tavikctl_test.cc).
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "e2e/tavikctl_run.h"
#include "frontend/stream_builder.h"
#include "wire/bytes.h"

namespace {

using namespace tavik::frontend;
using tavik::test::StreamBuilder;
using tavik::test::archiveOf;
using tavik::test::archiveVerifies;
namespace code = tavik::protocol::code;

StreamBuilder sampleStream() {
    StreamBuilder s;
    s.source()
        .file("a.txt", std::string(4097, 'a'))
        .header("link", 0, 0120777, 8)
        .packet(code::kEndf, {'/', 'u', 's', 'r', '/', 'l', 'i', 'b'})
        .status(code::kNoFile, "secret")
        .packet(code::kWatchDog)
        .dir("sub")
        .file("b", "bee")
        .dir("deep")
        .status(code::kLocked, "held")
        .endDir()
        .dir("other-fs")
        .status(code::kFsSkip)
        .endDir()
        .endDir()
        .end();
    return s;
}

TEST(ArchiveFormat, HeaderGoldenBytes) {
    ArchiveHeader h{.created = 0x11223344, .host = "h1", .source = "/s"};
    std::vector<uint8_t> expected = {'T', 'A', 'V', 'I', 'K', 'A', 'R', 'C', 0x01, 0x00, 0x1A, 0x00, 0x44,
                                     0x33, 0x22, 0x11, 52, 0x00, 0x02, 0x00, 0x02, 0x00, 'h', '1', '/', 's'};
    EXPECT_EQ(encodeArchiveHeader(h), expected);
    ArchiveHeader back;
    size_t needed = 0;
    std::string error;
    ASSERT_TRUE(decodeArchiveHeaderFixed(expected, back, needed, error)) << error;
    EXPECT_EQ(needed, 26u);
    EXPECT_EQ(back.created, 0x11223344u);
    EXPECT_EQ(back.serverVersion, 52);
    // A stated header length that disagrees with the texts' lengths.
    expected[10] = 0x1B;
    EXPECT_FALSE(decodeArchiveHeaderFixed(expected, back, needed, error));
    for (const std::string& source : {std::string("/a\0b", 4), std::string(archive_layout::kMaxSource + 1, 'x')}) {
        h.source = source;
        EXPECT_TRUE(encodeArchiveHeader(h).empty());
    }
}

TEST(ArchiveFormat, TrailerGoldenLayoutWithStandardCrc32) {
    const uint8_t check[] = {'1', '2', '3', '4', '5', '6', '7', '8', '9'};
    // The CRC-32 check value, also when continued over pieces as the writer
    // feeds it packet by packet.
    EXPECT_EQ(crc32Update(0, check), 0xCBF43926u);
    EXPECT_EQ(crc32Update(crc32Update(0, std::span(check).first(4)), std::span(check).subspan(4)), 0xCBF43926u);

    std::vector<uint8_t> bytes = encodeArchiveTrailer(
        {.crc = 0xA1B2C3D4, .bodyLength = 0x0000000500000010ull, .packetCount = 7, .complete = true});
    ASSERT_EQ(bytes.size(), 32u);
    std::vector<uint8_t> head = {'T', 'A', 'V', 'I', 'K', 'E', 'N', 'D', 0xD4, 0xC3, 0xB2, 0xA1, 0x10, 0, 0, 0,
                                 0x05, 0, 0, 0, 7, 0, 0, 0, 1, 0, 0, 0};
    EXPECT_EQ(std::vector<uint8_t>(bytes.begin(), bytes.begin() + 28), head);
    EXPECT_EQ(tavik::wire::loadLe32(&bytes[28]), crc32Update(0, head));
    ArchiveTrailer back;
    std::string error;
    ASSERT_TRUE(decodeArchiveTrailer(bytes, back, error)) << error;
    EXPECT_EQ(back.bodyLength, 0x0000000500000010ull);
    EXPECT_TRUE(back.complete);
}

TEST(TreeWalk, BreachesOfTheStreamStructureAreRefused) {
    auto stream = [] { return StreamBuilder().source(); };
    const std::pair<StreamBuilder, const char*> cases[] = {
        {stream().dir("d").packet(code::kEndf), "without a file header"},
        {stream().endDir().file("x", ""), "after the source was closed"},
        {stream().endDir().endDir(), "closes no directory"},
        {stream().file("a/b", "").endDir().end(), "bad entry name"},
        {stream().dir("..").endDir().endDir().end(), "bad entry name"},
        {stream().status(code::kNoFile, "..").endDir().end(), "good entry name"},
        {stream().dir("d").end(), "is open"},
        {stream().header("f", 0, 0100644).file("g", ""), "inside the data"},
        {stream().packet(77), "unknown packet code 77"},
        {stream().endDir().end().packet(code::kWatchDog), "after END"},
        {stream().endDir(), "no END"},
        {stream().packet(code::kFileHeader, {1, 2, 3}), "damaged file header"},
        {stream().source(), "not at the start"},
    };
    for (const auto& [breach, reason] : cases) {
        std::string error;
        EXPECT_FALSE(archiveVerifies(archiveOf(breach), &error)) << reason;
        EXPECT_NE(error.find(reason), std::string::npos) << reason << ": " << error;
    }
}

TEST(ArchiveDamage, TruncationOrAFlippedByteAnywhereIsDetected) {
    std::vector<uint8_t> bytes = archiveOf(sampleStream());
    ASSERT_TRUE(archiveVerifies(bytes));
    for (size_t k = 0; k < bytes.size(); ++k) {
        EXPECT_FALSE(archiveVerifies(std::vector<uint8_t>(bytes.begin(), bytes.begin() + long(k)))) << "cut to " << k;
        std::vector<uint8_t> bad = bytes;
        bad[k] ^= 0x20;
        EXPECT_FALSE(archiveVerifies(bad)) << "byte " << k << " flipped";
    }
}

TEST(ArchiveDamage, PacketLengthsBeyondTheBodyAreRefused) {
    std::vector<uint8_t> body = StreamBuilder().source().packet(code::kEndDir).end().bytes();
    // The last packet claims 65535 payload bytes; the trailer agrees with
    // the bytes, so only the length check can catch it.
    tavik::wire::storeLe16(&body[body.size() - 2], 0xFFFF);
    const std::vector<uint8_t> bytes = tavik::test::archiveBytes(body, 3, true);
    ArchiveReader reader;
    ASSERT_TRUE(reader.openMemory(bytes));
    ArchivePacket p;
    EXPECT_EQ(reader.next(p), ArchiveReader::Next::kPacket);
    EXPECT_EQ(reader.next(p), ArchiveReader::Next::kPacket);
    EXPECT_EQ(reader.next(p), ArchiveReader::Next::kError);
    EXPECT_NE(reader.error().find("overruns the body"), std::string::npos) << reader.error();
}

// Every path the walker rebuilds from the directory structure, with the
// problems the agent reported; a flipped data byte or a cut trailer fails
// the verification but not a plain listing.
TEST(TavikctlList, ListsLikeTarAndVerifiesTheChecksum) {
    tavik::test::Tree scratch;
    const std::string path = scratch.path("archive.tvk");
    // tavikctl list of `archive`, its standard error after its standard output.
    auto list = [&path](const std::vector<uint8_t>& archive, const std::string& options) {
        tavik::test::writeFile(path, std::string(archive.begin(), archive.end()));
        tavik::test::Output o = tavik::test::tavikctl("list " + options + path);
        o.out += o.err;
        return o;
    };
    std::vector<uint8_t> bytes = archiveOf(sampleStream(), true, "/data");
    tavik::test::Output o = list(bytes, "--verify ");
    EXPECT_EQ(o.status, 0) << o.out;
    for (const char* line :
         {"drwxr-xr-x 1000/100          0 ", " /data/\n", "-rw-r--r-- 1000/100       4097 ", " /data/a.txt\n",
          " /data/link -> /usr/lib\n", "NOFILE     /data/secret (cannot be opened)\n", " /data/sub/b\n",
          "LOCKED     /data/sub/deep/held (locked by another process)\n", " /data/sub/deep/\n",
          "FSSKIP     /data/sub/other-fs (on another file system, not traversed)\n", "checksum good"})
        EXPECT_NE(o.out.find(line), std::string::npos) << line << " not in\n" << o.out;

    std::vector<uint8_t> bad = bytes;
    bad[bad.size() / 2] ^= 0x01;  // inside file data: only the checksum sees it
    o = list(bad, "--verify ");
    EXPECT_EQ(o.status, 1);
    EXPECT_NE(o.out.find("verify: FAILED"), std::string::npos) << o.out;
    EXPECT_EQ(list(bad, "").status, 0);  // listing alone still works
    bad.resize(bad.size() - 5);
    o = list(bad, "--verify ");
    EXPECT_EQ(o.status, 1);
    EXPECT_NE(o.out.find("truncated"), std::string::npos) << o.out;
}

}  // namespace
