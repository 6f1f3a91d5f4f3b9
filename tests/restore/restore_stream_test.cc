// The front-end's restore stream encoder: how data is cut into MOF and ENDF
// payloads, the record translation, refusals, and a round trip from files on
// disk through their backup records, the encoder and ws_restore.
#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "daemon/scratch_home.h"
#include "frontend/restore_stream.h"
#include "platform/wire_stat.h"
#include "restore/ws_restore.h"
#include "transport/packet.h"

namespace tavik::frontend {
namespace {

struct Packet {
    int code;
    std::vector<uint8_t> payload;
};

std::vector<Packet> split(const std::vector<uint8_t>& stream) {
    std::vector<Packet> out;
    size_t at = 0;
    while (at + 8 <= stream.size()) {
        transport::HeaderBytes h{};
        std::copy(stream.begin() + static_cast<long>(at), stream.begin() + static_cast<long>(at + 8), h.begin());
        transport::PacketHeader header = transport::decodeHeader(h);
        at += 8;
        out.push_back({header.code, std::vector<uint8_t>(stream.begin() + static_cast<long>(at),
                                                         stream.begin() + static_cast<long>(at + header.length))});
        at += header.length;
    }
    return out;
}

backup::BackupAttributes regular(uint32_t size) {
    backup::BackupAttributes b;
    b.dev = 7;
    b.ino = 99;
    b.mode = 0100640;
    b.nlink = 1;
    b.uid = 12;
    b.gid = 34;
    b.rdev = 5;
    b.atime = 111;
    b.mtime = 222;
    b.dosTime = 0x1234;
    b.dosDate = 0x5678;
    b.size = size;
    b.name = "f";
    return b;
}

TEST(RestoreStreamEncoder, DataIsCutInto2048BytePayloadsWithTheRestInEndf) {
    const std::vector<std::pair<size_t, std::vector<size_t>>> cases = {
        {0, {0}}, {1, {1}}, {2048, {2048}}, {2049, {2048, 1}}, {4096, {2048, 2048}}, {5000, {2048, 2048, 904}},
    };
    for (const auto& [size, pieces] : cases) {
        for (size_t feed : {size_t(7), size_t(3000)}) {
            std::vector<uint8_t> stream;
            RestoreStreamEncoder enc([&](std::span<const uint8_t> p) {
                stream.insert(stream.end(), p.begin(), p.end());
                return true;
            });
            std::vector<uint8_t> data(size, 'd');
            ASSERT_TRUE(enc.beginFile(regular(uint32_t(size)), "/r/f"));
            for (size_t at = 0; at < size; at += feed) {
                size_t n = std::min(feed, size - at);
                ASSERT_TRUE(enc.data(std::span<const uint8_t>(data.data() + at, n)));
            }
            ASSERT_TRUE(enc.endFile());
            std::vector<Packet> packets = split(stream);
            ASSERT_EQ(packets.size(), pieces.size() + 1) << size;
            EXPECT_EQ(packets[0].code, restore::command::kOpenFile);
            for (size_t i = 0; i < pieces.size(); ++i) {
                EXPECT_EQ(packets[i + 1].code, i + 1 == pieces.size() ? restore::command::kEndf : restore::command::kMof);
                EXPECT_EQ(packets[i + 1].payload.size(), pieces[i]) << size << " piece " << i;
            }
        }
    }
}

TEST(RestoreStreamEncoder, TheRecordIsTranslatedWithTheFullName) {
    std::vector<uint8_t> stream;
    RestoreStreamEncoder enc([&](std::span<const uint8_t> p) {
        stream.insert(stream.end(), p.begin(), p.end());
        return true;
    });
    backup::BackupAttributes dir = regular(0);
    dir.mode = 040755;
    dir.kind = backup::kKindDirectory;
    ASSERT_TRUE(enc.entry(dir, restorePathFor("/restore/", "/home/u"), {}));
    ASSERT_TRUE(enc.entry(regular(3), "/restore/home/u/f", std::vector<uint8_t>{1, 2, 3}));
    ASSERT_TRUE(enc.end());
    std::vector<Packet> packets = split(stream);
    ASSERT_EQ(packets.size(), 4u);
    EXPECT_EQ(packets[0].code, restore::command::kMkdir);
    EXPECT_EQ(packets[3].code, restore::command::kEnd);
    EXPECT_TRUE(packets[3].payload.empty());
    restore::RestoreAttributes r;
    ASSERT_EQ(restore::decodeRestoreAttributes(packets[0].payload, r), restore::RecordError::None);
    EXPECT_EQ(r.name, "/restore/home/u");
    EXPECT_EQ(r.mode, 040755u);
    std::vector<uint8_t> expected = {7, 0, 0, 0, 99, 0, 0, 0, 0xA0, 0x81, 0, 0, 1, 0, 0, 0,  // dev ino mode nlink
                                     12, 0, 0, 0, 34, 0, 0, 0, 5, 0, 0, 0,                   // uid gid rdev
                                     111, 0, 0, 0, 222, 0, 0, 0, 0, 0, 0, 0,                 // atime mtime 36
                                     3, 0, 0, 0, 0, 0, 0, 0};                                // size 44
    for (char c : std::string("/restore/home/u/f")) expected.push_back(uint8_t(c));
    expected.push_back(0);
    EXPECT_EQ(packets[1].payload, expected);
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

TEST(RestoreStreamEncoder, RestorePathJoinsWithOneSlash) {
    EXPECT_EQ(restorePathFor("/r", "a/b"), "/r/a/b");
    EXPECT_EQ(restorePathFor("/r/", "/a"), "/r/a");
    EXPECT_EQ(restorePathFor("/", "a"), "/a");
    EXPECT_EQ(restorePathFor("/r//", ""), "/r");
}

std::string readAll(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

TEST(RestoreStreamEncoder, FilesOnDiskComeBackThroughTheAgent) {
    testing::ScratchHome home;
    std::string src = home.dir() + "/src", dst = home.dir() + "/dst";
    ::mkdir(src.c_str(), 0750);
    std::string content(9000, '\0');
    for (size_t i = 0; i < content.size(); ++i) content[i] = char(i * 7 + 3);
    std::ofstream(src + "/data", std::ios::binary) << content;
    ::chmod((src + "/data").c_str(), 0604);
    timespec t[2] = {{1000000, 0}, {2000000, 0}};
    ::utimensat(AT_FDCWD, (src + "/data").c_str(), t, 0);

    std::vector<uint8_t> stream;
    RestoreStreamEncoder enc([&](std::span<const uint8_t> p) {
        stream.insert(stream.end(), p.begin(), p.end());
        return true;
    });
    platform::InodeNumbering inodes;
    struct stat st {};
    ASSERT_EQ(::stat(src.c_str(), &st), 0);
    ASSERT_TRUE(enc.entry(backup::attributesFromStat(st, "src", backup::kKindDirectory, inodes), dst, {}));
    ASSERT_EQ(::stat((src + "/data").c_str(), &st), 0);
    ASSERT_TRUE(enc.entry(backup::attributesFromStat(st, "data", backup::kKindEntry, inodes),
                          restorePathFor(dst, "data"),
                          std::span<const uint8_t>(reinterpret_cast<const uint8_t*>(content.data()), content.size())));
    ASSERT_TRUE(enc.end());

    int fds[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
    ::signal(SIGCHLD, SIG_DFL);
    pid_t child = ::fork();
    if (child == 0) {
        ::close(fds[1]);
        JobContext ctx;
        restore::HardLinkTable links;
        links.reset();
        ::_exit(restore::ws_restore(fds[0], dst, ctx, links, {::geteuid(), ::getegid()}));
    }
    ::close(fds[0]);
    ASSERT_EQ(::send(fds[1], stream.data(), stream.size(), MSG_NOSIGNAL), static_cast<ssize_t>(stream.size()));
    std::vector<uint8_t> answers(16);
    ASSERT_EQ(::recv(fds[1], answers.data(), answers.size(), MSG_WAITALL), 16);
    EXPECT_EQ(answers[2], 0);  // the file
    EXPECT_EQ(answers[10], 3);  // END
    ::close(fds[1]);
    int status = 0;
    ::waitpid(child, &status, 0);
    EXPECT_EQ(WEXITSTATUS(status), 0);

    EXPECT_EQ(readAll(dst + "/data"), content);
    ASSERT_EQ(::stat((dst + "/data").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode, static_cast<mode_t>(0100604));
    EXPECT_EQ(st.st_mtime, 2000000);
    ASSERT_EQ(::stat(dst.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode, static_cast<mode_t>(040750));
}

}  // namespace
}  // namespace tavik::frontend
