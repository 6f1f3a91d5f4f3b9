// The archive file: golden header and trailer bytes, a round trip through
// the writer and the reader, the tree rebuilt from the stream, breaches of
// the stream's structure, and damage (truncation at every length, every
// flipped byte) caught by the reader and by `tavikctl list --verify`.
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "frontend/archive.h"
#include "frontend/stream_builder.h"
#include "platform/tempfile.h"
#include "wire/bytes.h"

namespace {

using namespace tavik::frontend;
using tavik::test::StreamBuilder;
using tavik::test::archiveBytes;
using tavik::test::archiveOf;
using tavik::test::archiveVerifies;
namespace code = tavik::protocol::code;
namespace protocol = tavik::protocol;

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
    ArchiveHeader h;
    h.created = 0x11223344;
    h.serverVersion = 52;
    h.host = "h1";
    h.source = "/s";
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

    h.source = std::string("/a\0b", 4);
    EXPECT_TRUE(encodeArchiveHeader(h).empty());
    h.source = std::string(archive_layout::kMaxSource + 1, 'x');
    EXPECT_TRUE(encodeArchiveHeader(h).empty());
    // A stated header length that disagrees with the texts' lengths.
    expected[10] = 0x1B;
    EXPECT_FALSE(decodeArchiveHeaderFixed(expected, back, needed, error));
}

TEST(ArchiveFormat, TrailerGoldenLayoutWithStandardCrc32) {
    const uint8_t check[] = {'1', '2', '3', '4', '5', '6', '7', '8', '9'};
    EXPECT_EQ(crc32Update(0, check), 0xCBF43926u);  // the CRC-32 check value
    // Continued over pieces, as the archive writer feeds it packet by packet.
    EXPECT_EQ(crc32Update(crc32Update(0, std::span(check).first(4)), std::span(check).subspan(4)), 0xCBF43926u);
    std::vector<uint8_t> large(100000);
    for (size_t i = 0; i < large.size(); ++i) large[i] = uint8_t(i * 131 + 7);
    EXPECT_EQ(crc32Update(crc32Update(0, std::span(large).first(33333)), std::span(large).subspan(33333)),
              crc32Update(0, large));

    ArchiveTrailer t;
    t.crc = 0xA1B2C3D4;
    t.bodyLength = 0x0000000500000010ull;
    t.packetCount = 7;
    t.complete = true;
    std::vector<uint8_t> bytes = encodeArchiveTrailer(t);
    ASSERT_EQ(bytes.size(), 32u);
    std::vector<uint8_t> head = {'T', 'A', 'V', 'I', 'K', 'E', 'N', 'D', 0xD4, 0xC3, 0xB2, 0xA1, 0x10, 0, 0, 0,
                                 0x05, 0, 0, 0, 7, 0, 0, 0, 1, 0, 0, 0};
    EXPECT_EQ(std::vector<uint8_t>(bytes.begin(), bytes.begin() + 28), head);
    EXPECT_EQ(tavik::wire::loadLe32(&bytes[28]), crc32Update(0, head));
    ArchiveTrailer back;
    std::string error;
    ASSERT_TRUE(decodeArchiveTrailer(bytes, back, error)) << error;
    EXPECT_EQ(back.bodyLength, t.bodyLength);
    EXPECT_TRUE(back.complete);
}

TEST(ArchiveRoundTrip, WriterOutputReadsBackPacketForPacket) {
    StreamBuilder s = sampleStream();
    tavik::platform::TempFile file("/tmp/tavik-archive-");
    ASSERT_TRUE(file.valid());
    ArchiveHeader h;
    h.created = 1700000001;
    h.serverVersion = 51;
    h.host = "agent.example";
    h.source = "/data";
    ArchiveWriter writer;
    ASSERT_TRUE(writer.open(file.path(), h)) << writer.error();
    // Body bytes in uneven pieces, as a receiver hands them over.
    const std::vector<uint8_t>& body = s.bytes();
    for (size_t at = 0; at < body.size(); at += 777)
        ASSERT_TRUE(writer.writeBody({body.data() + at, std::min<size_t>(777, body.size() - at)}));
    ASSERT_TRUE(writer.finish(uint32_t(s.packets().size()), true)) << writer.error();

    ArchiveReader reader;
    ASSERT_TRUE(reader.open(file.path())) << reader.error();
    EXPECT_EQ(reader.header().host, "agent.example");
    EXPECT_EQ(reader.header().source, "/data");
    EXPECT_EQ(reader.header().serverVersion, 51);
    EXPECT_EQ(reader.header().created, 1700000001u);
    size_t i = 0;
    ArchivePacket p;
    ArchiveReader::Next n;
    while ((n = reader.next(p)) == ArchiveReader::Next::kPacket) {
        ASSERT_LT(i, s.packets().size());
        std::vector<uint8_t> got(protocol::kHeaderSize + p.payload.size());
        protocol::HeaderBytes hb = protocol::encodeHeader(p.header);
        std::copy(hb.begin(), hb.end(), got.begin());
        std::copy(p.payload.begin(), p.payload.end(), got.begin() + 8);
        EXPECT_EQ(got, s.packets()[i]) << "packet " << i;
        ++i;
    }
    EXPECT_EQ(n, ArchiveReader::Next::kEnd) << reader.error();
    EXPECT_EQ(i, s.packets().size());
    EXPECT_TRUE(reader.checksumGood());
    EXPECT_TRUE(reader.trailer().complete);
}

TEST(ArchiveRoundTrip, DevNullTakesAWholeArchive) {
    ArchiveWriter writer;
    ArchiveHeader h;
    h.host = "x";
    h.source = "/";
    ASSERT_TRUE(writer.open("/dev/null", h)) << writer.error();
    std::vector<uint8_t> big(3 << 20, 0x5A);
    EXPECT_TRUE(writer.writeBody(big));
    EXPECT_TRUE(writer.finish(1, true)) << writer.error();
}

TEST(TreeWalk, FullPathsFromTheDirectoryStructure) {
    std::vector<uint8_t> bytes = archiveOf(sampleStream());
    ArchiveReader reader;
    ASSERT_TRUE(reader.openMemory(bytes)) << reader.error();
    ArchiveWalker walker(reader);
    std::vector<std::string> seen;
    size_t dataBytes = 0;
    TreeEvent e;
    ArchiveWalker::Next n;
    while ((n = walker.next(e)) == ArchiveWalker::Next::kEvent) {
        switch (e.type) {
        case TreeEvent::Type::kEntry: seen.push_back((e.isDirectory ? "D " : "F ") + e.path); break;
        case TreeEvent::Type::kData: dataBytes += e.data.size(); break;
        case TreeEvent::Type::kProblem: seen.push_back(std::string(statusName(e.code)) + " " + e.path); break;
        case TreeEvent::Type::kDirClose: seen.push_back(std::string(statusName(e.code)) + " " + e.path); break;
        case TreeEvent::Type::kEnd: seen.push_back("END"); break;
        case TreeEvent::Type::kGroomCount: break;
        }
    }
    ASSERT_EQ(n, ArchiveWalker::Next::kEnd) << walker.error();
    std::vector<std::string> expected = {"D ",           "F a.txt",      "F link",         "NOFILE secret",
                                         "D sub",        "F sub/b",      "D sub/deep",     "LOCKED sub/deep/held",
                                         "ENDDIR sub/deep", "D sub/other-fs", "FSSKIP sub/other-fs", "ENDDIR sub",
                                         "ENDDIR ",      "END"};
    EXPECT_EQ(seen, expected);
    EXPECT_EQ(dataBytes, 4097u + 8u + 3u);
    EXPECT_TRUE(reader.checksumGood());
}

TEST(TreeWalk, BreachesOfTheStreamStructureAreRefused) {
    struct Case {
        const char* what;
        StreamBuilder stream;
        const char* error;
    };
    std::vector<Case> cases;
    cases.push_back({"data after a directory header", StreamBuilder().source().dir("d").packet(code::kEndf), "without a file header"});
    cases.push_back({"entry after the source closed", StreamBuilder().source().endDir().file("x", ""), "after the source was closed"});
    cases.push_back({"close with nothing open", StreamBuilder().source().endDir().endDir(), "closes no directory"});
    cases.push_back({"slash in a name", StreamBuilder().source().file("a/b", "").endDir().end(), "bad entry name"});
    cases.push_back({"dot-dot as a name", StreamBuilder().source().dir("..").endDir().endDir().end(), "bad entry name"});
    cases.push_back({"NOFILE escaping upwards", StreamBuilder().source().status(code::kNoFile, "..").endDir().end(), "good entry name"});
    cases.push_back({"END inside a directory", StreamBuilder().source().dir("d").end(), "is open"});
    cases.push_back({"header inside a file's data", StreamBuilder().source().header("f", 0, 0100644).file("g", ""), "inside the data"});
    cases.push_back({"unknown code", StreamBuilder().source().packet(77), "unknown packet code 77"});
    cases.push_back({"packet after END", StreamBuilder().source().endDir().end().packet(code::kWatchDog), "after END"});
    cases.push_back({"no END", StreamBuilder().source().endDir(), "no END"});
    cases.push_back({"short file header", StreamBuilder().source().packet(code::kFileHeader, {1, 2, 3}), "damaged file header"});
    cases.push_back({"source header later", StreamBuilder().source().source(), "not at the start"});
    for (Case& c : cases) {
        std::vector<uint8_t> bytes = archiveOf(c.stream);
        std::string error;
        EXPECT_FALSE(archiveVerifies(bytes, &error)) << c.what;
        EXPECT_NE(error.find(c.error), std::string::npos) << c.what << ": " << error;
    }
}

TEST(TreeWalk, RestartedAndOldServerStreamsAreAccepted) {
    // A restart: the stream begins inside a file and closes directories it
    // never opened. An old server sends no source header.
    StreamBuilder restarted, old;
    restarted.packet(code::kMof, std::vector<uint8_t>(2048, 1)).packet(code::kEndf, {1}).file("next", "n").endDir().endDir().end();
    old.file("f", "data").status(code::kNoDir, "", false).end();
    for (StreamBuilder* s : {&restarted, &old}) {
        std::string error;
        EXPECT_TRUE(archiveVerifies(archiveOf(*s), &error)) << error;
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
    StreamBuilder s;
    s.source().packet(code::kEndDir).end();
    std::vector<uint8_t> body = s.bytes();
    // The last packet claims 65535 payload bytes; the trailer agrees with
    // the bytes, so only the length check can catch it.
    tavik::wire::storeLe16(&body[body.size() - 2], 0xFFFF);
    std::vector<uint8_t> bytes = archiveBytes(body, 3, true);
    ArchiveReader reader;
    ASSERT_TRUE(reader.openMemory(bytes));
    ArchivePacket p;
    EXPECT_EQ(reader.next(p), ArchiveReader::Next::kPacket);
    EXPECT_EQ(reader.next(p), ArchiveReader::Next::kPacket);
    EXPECT_EQ(reader.next(p), ArchiveReader::Next::kError);
    EXPECT_NE(reader.error().find("overruns the body"), std::string::npos) << reader.error();
}

#ifdef TAVIKCTL_PATH
// Runs tavikctl with `args`; its exit status, standard output and error.
int runTavikctl(const std::string& args, std::string& out, std::string& err) {
    tavik::platform::TempFile outFile("/tmp/tavik-list-out-"), errFile("/tmp/tavik-list-err-");
    int status = std::system((std::string(TAVIKCTL_PATH) + " " + args + " >" + outFile.path() + " 2>" +
                              errFile.path()).c_str());
    std::ifstream o(outFile.path()), e(errFile.path());
    out.assign(std::istreambuf_iterator<char>(o), {});
    err.assign(std::istreambuf_iterator<char>(e), {});
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(TavikctlList, ListsLikeTarAndVerifiesTheChecksum) {
    std::vector<uint8_t> bytes = archiveOf(sampleStream(), true, "/data");
    tavik::platform::TempFile file("/tmp/tavik-archive-");
    ASSERT_TRUE(file.valid());
    auto save = [&](const std::vector<uint8_t>& b) {
        std::ofstream(file.path(), std::ios::binary | std::ios::trunc).write(reinterpret_cast<const char*>(b.data()),
                                                                              long(b.size()));
    };
    save(bytes);
    std::string out, err;
    ASSERT_EQ(runTavikctl("list --verify " + file.path(), out, err), 0) << err;
    for (const char* line :
         {"drwxr-xr-x 1000/100          0 ", " /data/\n", "-rw-r--r-- 1000/100       4097 ", " /data/link -> /usr/lib\n",
          "NOFILE     /data/secret (cannot be opened)\n",
          "LOCKED     /data/sub/deep/held (locked by another process)\n", " /data/sub/deep/\n",
          "FSSKIP     /data/sub/other-fs (on another file system, not traversed)\n"})
        EXPECT_NE(out.find(line), std::string::npos) << line << " not in\n" << out;
    EXPECT_NE(err.find("checksum good"), std::string::npos) << err;

    std::vector<uint8_t> bad = bytes;
    bad[bad.size() / 2] ^= 0x01;  // inside file data: only the checksum sees it
    save(bad);
    EXPECT_EQ(runTavikctl("list --verify " + file.path(), out, err), 1);
    EXPECT_NE(err.find("verify: FAILED"), std::string::npos) << err;
    EXPECT_EQ(runTavikctl("list " + file.path(), out, err), 0) << err;  // listing alone still works

    bad.resize(bad.size() - 5);
    save(bad);
    EXPECT_EQ(runTavikctl("list --verify " + file.path(), out, err), 1);
    EXPECT_NE(err.find("truncated"), std::string::npos) << err;
}
#endif

}  // namespace
