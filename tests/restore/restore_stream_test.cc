// The front-end's restore stream encoder: how data is cut into MOF and ENDF
// payloads, the record translation and refusals. Files on disk coming back
// through the encoder and the agent are the end-to-end round trip's part;
// the record's bytes are the record tests'.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "frontend/restore_stream.h"
#include "protocol/packet.h"
#include "protocol/restore_record.h"

namespace tavik::frontend {
namespace {

protocol::BackupAttributes regular(uint32_t size) {
    return {.dev = 7, .ino = 99, .mode = 0100640, .nlink = 1, .uid = 12, .gid = 34, .rdev = 5, .atime = 111,
            .mtime = 222, .dosTime = 0x1234, .dosDate = 0x5678, .size = size, .name = "f"};
}

// One packet handed to the sink: its code byte and payload.
struct Packet {
    int code;
    std::vector<uint8_t> data;
};

// An encoder that keeps each packet its sink is given, checking that the
// header's length is the payload's.
struct Encoded {
    std::vector<Packet> packets;
    RestoreStreamEncoder enc{[this](std::span<const uint8_t> p) {
        protocol::HeaderBytes h{};
        std::copy_n(p.begin(), h.size(), h.begin());
        protocol::PacketHeader header = protocol::decodeHeader(h);
        EXPECT_EQ(header.length, p.size() - h.size());
        packets.push_back({uint8_t(header.code), {p.begin() + long(h.size()), p.end()}});
        return true;
    }};
};

// The data's sizes, fed in pieces of 7 and of 3000 bytes, and the payloads
// that carry them: full MOF payloads, the rest (even none) in ENDF.
TEST(RestoreStreamEncoder, DataIsCutInto2048BytePayloadsWithTheRestInEndf) {
    const std::vector<std::pair<size_t, std::vector<size_t>>> cases = {
        {0, {0}}, {1, {1}}, {2048, {2048}}, {2049, {2048, 1}}, {4096, {2048, 2048}}, {5000, {2048, 2048, 904}},
    };
    for (const auto& [size, pieces] : cases) {
        for (size_t feed : {size_t(7), size_t(3000)}) {
            Encoded e;
            std::vector<uint8_t> data(size, 'd');
            ASSERT_TRUE(e.enc.beginFile(regular(uint32_t(size)), "/r/f"));
            for (size_t at = 0; at < size; at += feed)
                ASSERT_TRUE(e.enc.data(std::span<const uint8_t>(data).subspan(at, std::min(feed, size - at))));
            ASSERT_TRUE(e.enc.endFile());
            ASSERT_EQ(e.packets.size(), pieces.size() + 1) << size;
            EXPECT_EQ(e.packets[0].code, protocol::code::kOpenFile);
            for (size_t i = 0; i < pieces.size(); ++i) {
                const int code = i + 1 < pieces.size() ? protocol::code::kMof : protocol::code::kEndf;
                EXPECT_EQ(e.packets[i + 1].code, code);
                EXPECT_EQ(e.packets[i + 1].data, std::vector<uint8_t>(pieces[i], 'd')) << size << " piece " << i;
            }
        }
    }
}

// The record carries the archive's attributes (not its DOS times) and the
// full name; a directory goes as MKDIR; END has no payload.
TEST(RestoreStreamEncoder, TheRecordIsTranslatedWithTheFullName) {
    Encoded e;
    protocol::BackupAttributes dir = regular(0);
    dir.mode = 040755;
    dir.kind = protocol::kKindDirectory;
    ASSERT_TRUE(e.enc.entry(dir, restorePathFor("/restore/", "/home/u"), {}));
    ASSERT_TRUE(e.enc.entry(regular(3), "/restore/home/u/f", std::vector<uint8_t>{1, 2, 3}));
    ASSERT_TRUE(e.enc.end());
    ASSERT_EQ(e.packets.size(), 4u);
    EXPECT_EQ(e.packets[0].code, protocol::code::kMkdir);
    EXPECT_EQ(e.packets[3].code, protocol::code::kEnd);
    EXPECT_TRUE(e.packets[3].data.empty());
    protocol::RestoreAttributes file = {.dev = 7, .ino = 99, .mode = 0100640, .nlink = 1, .uid = 12, .gid = 34,
                                        .rdev = 5, .atime = 111, .mtime = 222, .size = 3, .name = "/restore/home/u/f"};
    EXPECT_EQ(e.packets[1].data, protocol::encodeRestoreAttributes(file));
    protocol::RestoreAttributes directory = file;
    directory.mode = 040755;
    directory.size = 0;
    directory.name = "/restore/home/u";
    EXPECT_EQ(e.packets[0].data, protocol::encodeRestoreAttributes(directory));

    EXPECT_EQ(restorePathFor("/r", "a/b"), "/r/a/b");
    EXPECT_EQ(restorePathFor("/", "a"), "/a");
    EXPECT_EQ(restorePathFor("/r//", ""), "/r");
}

TEST(RestoreStreamEncoder, RefusalsSendNothing) {
    int sent = 0;
    RestoreStreamEncoder enc([&](std::span<const uint8_t>) {
        ++sent;
        return true;
    });
    EXPECT_FALSE(enc.beginFile(regular(0), std::string(1024, 'n')));
    EXPECT_FALSE(enc.data(std::vector<uint8_t>{1}));  // no file open
    EXPECT_FALSE(enc.endFile());
    EXPECT_EQ(sent, 0);
    ASSERT_TRUE(enc.beginFile(regular(0), std::string(1023, 'n')));
    EXPECT_FALSE(enc.beginFile(regular(0), "/x"));  // one file at a time
    EXPECT_FALSE(enc.end());
    ASSERT_TRUE(enc.endFile());
    RestoreStreamEncoder refusing([](std::span<const uint8_t>) { return false; });
    EXPECT_FALSE(refusing.entry(regular(1), "/x", std::vector<uint8_t>{1}));
}

}  // namespace
}  // namespace tavik::frontend
