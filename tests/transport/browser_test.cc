// The browser over real socket pairs, run in a child process (it changes
// its working directory): header and entry bytes, the request loop's
// answers, broken and oversized requests, link texts at the buffer's limit,
// an entry that vanishes before lstat, and the mount list from a table file.
#include "transport/browser.h"

#include <poll.h>
#include <sys/ioctl.h>
#include <sys/sysmacros.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <fstream>
#include <set>
#include <thread>
#include <utility>
#include <vector>

#include "daemon/mount_table.h"
#include "daemon/scratch_home.h"
#include "transport/packet.h"
#include "wire/bytes.h"

namespace {

using namespace tavik;
using namespace tavik::transport;
using tavik::testing::ScratchHome;
using tavik::testing::SocketPair;
using tavik::testing::closedWithin;
using tavik::testing::recvWithin;

struct Packet {
    protocol::BrowseHeader header;
    std::vector<uint8_t> payload;
    std::array<uint8_t, 8> raw{};
};

std::optional<Packet> readPacket(int fd) {
    Packet p;
    if (!recvWithin(fd, p.raw.data(), 8)) return std::nullopt;
    p.header = protocol::decodeBrowseHeader(p.raw);
    p.payload.resize(p.header.length);
    if (!recvWithin(fd, p.payload.data(), p.payload.size())) return std::nullopt;
    return p;
}

// The header bytes of the next packet; all 0xFF when none came.
std::array<uint8_t, 8> nextRaw(int fd) {
    auto p = readPacket(fd);
    return p ? p->raw : std::array<uint8_t, 8>{0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
}

// The code of the next packet; -1 when none came.
int nextCode(int fd) {
    auto p = readPacket(fd);
    return p ? p->header.code : -1;
}

// The entries of one listing, without its end (code 16); nullopt when the
// listing broke off.
std::optional<std::vector<Packet>> readListing(int fd) {
    std::vector<Packet> out;
    while (auto p = readPacket(fd)) {
        if (p->header.code == 16) return out;
        out.push_back(*p);
    }
    return std::nullopt;
}

void sendBytes(int fd, const std::vector<uint8_t>& bytes) {
    ASSERT_EQ(::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL), ssize_t(bytes.size()));
}

std::vector<uint8_t> request(uint8_t code, uint16_t select, int8_t version, const std::string& text,
                             bool withNul = true) {
    std::vector<uint8_t> payload(text.begin(), text.end());
    if (withNul) payload.push_back(0);
    protocol::BrowseHeaderBytes h = protocol::encodeBrowseHeader(protocol::BrowseHeader{select, code, version, 0, uint16_t(payload.size())});
    std::vector<uint8_t> bytes(h.size() + payload.size());
    std::copy(h.begin(), h.end(), bytes.begin());
    std::copy(payload.begin(), payload.end(), bytes.begin() + h.size());
    return bytes;
}

class BrowserTest : public ::testing::Test {
protected:
    void SetUp() override {
        startupSettings() = Settings{};
        startupSettings().verbose = true;
        char tmpl[] = "/tmp/tavik-browse-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
    }
    void TearDown() override {
        if (child_ > 0) {
            ::kill(child_, SIGKILL);
            ::waitpid(child_, nullptr, 0);
        }
        std::system(("rm -rf '" + dir_ + "'").c_str());
    }
    // Runs Browser on the agent's end in a child with the mount table
    // `table`; reads and checks its LOGIN packet.
    void startBrowser(const std::string& table = kMountTablePath) {
        child_ = ::fork();
        ASSERT_GE(child_, 0);
        if (child_ == 0) {
            sp_.closeServer();
            MountTable mountTable(table);
            MountPoints mounts(mountTable, home_.dir());
            _exit(Browser(sp_.agent, mounts));
        }
        sp_.closeAgent();
        ASSERT_EQ(nextRaw(sp_.server), (std::array<uint8_t, 8>{0, 0, 14, 22, 0, 50, 0, 0}));
    }
    // Waits for the child; its exit status.
    int finish() {
        return tavik::testing::exitStatusOf(std::exchange(child_, -1));
    }
    std::string path(const std::string& name) const { return dir_ + "/" + name; }

    ScratchHome home_;
    SocketPair sp_;
    std::string dir_;
    pid_t child_ = -1;
};

TEST(BrowseCodec, HeaderAndEntryGoldenBytes) {
    EXPECT_EQ(protocol::encodeBrowseHeader(protocol::BrowseHeader{0x0102, 15, -3, 0x0304, 0x0506}),
              (protocol::BrowseHeaderBytes{1, 2, 15, 0xFD, 3, 4, 5, 6}));
    protocol::BrowseHeader h = protocol::decodeBrowseHeader(protocol::BrowseHeaderBytes{0xFF, 0xFE, 101, 0x80, 0, 50, 0x04, 0x01});
    EXPECT_EQ((std::vector<int>{h.select, h.code, h.version, h.level, h.length}),
              (std::vector<int>{0xFFFE, 101, -128, 50, 0x0401}));

    protocol::BrowseEntry e{.mode = 0x000041ED, .links = 2, .uid = 0x01020304, .gid = 5, .rdev = 0x00040003,
                  .atime = 0x11223344, .mtime = 0x55667788, .ctime = 0x99AABBCC, .size = 0xDDEEFF00,
                  .mounted = 1, .fsDev = 0x03F80001, .name = "/ab"};
    std::vector<uint8_t> v22 = protocol::encodeBrowseEntry(e, 22);
    std::vector<uint8_t> expected{0, 0, 0x41, 0xED, 0, 0, 0, 2, 1, 2, 3, 4, 0, 0, 0, 5,
                                  0, 4, 0, 3, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77, 0x88,
                                  0x99, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0xFF, 0, 0, 0, 0, 0,
                                  1, 0, 0, 0, 0x03, 0xF8, 0, 1, '/', 'a', 'b', 0};
    EXPECT_EQ(v22, expected);
    // Below version 22 the device field is gone and the name moves to 44.
    std::vector<uint8_t> v21 = protocol::encodeBrowseEntry(e, 21);
    std::vector<uint8_t> old(expected.begin(), expected.begin() + 44);
    old.insert(old.end(), {'/', 'a', 'b', 0});
    EXPECT_EQ(v21, old);
    EXPECT_EQ(protocol::encodeBrowseEntry(e, -5), old);

    for (int version : {20, 22}) {
        std::vector<uint8_t> bytes = protocol::encodeBrowseEntry(e, version);
        auto back = protocol::decodeBrowseEntry(bytes, version);
        ASSERT_TRUE(back);
        EXPECT_EQ(back->name, "/ab");
        EXPECT_EQ(back->size, e.size);
        EXPECT_EQ(back->fsDev, version == 22 ? e.fsDev : 0u);
        // Every truncation fails: no NUL, or no fixed part.
        for (size_t n = 0; n < bytes.size(); ++n)
            EXPECT_FALSE(protocol::decodeBrowseEntry(std::span(bytes.data(), n), version)) << n;
    }

    e.name = "/" + std::string(255, 'n');
    EXPECT_EQ(protocol::encodeBrowseEntry(e, 22).size(), protocol::browse::kMaxEntrySize);
    e.name += "n";
    EXPECT_TRUE(protocol::encodeBrowseEntry(e, 22).empty());
    e.name = std::string("a\0b", 3);
    EXPECT_TRUE(protocol::encodeBrowseEntry(e, 22).empty());
}

TEST(BrowseCodec, StatFieldsInThirtyTwoBits) {
    struct stat st {};
    st.st_mode = S_IFCHR | 0620;
    st.st_nlink = nlink_t(1) << 40;
    st.st_rdev = makedev(136, 5);
    st.st_dev = makedev(254, 1);
    st.st_atime = -5;
    st.st_mtime = int64_t(1) << 33;
    st.st_ctime = 1700000000;
    st.st_size = (int64_t(1) << 32) + 7;
    protocol::BrowseEntry e = entryFromStat(st, "x");
    EXPECT_EQ(e.links, UINT32_MAX);
    EXPECT_EQ(e.rdev, (136u << 18) | 5u);
    EXPECT_EQ(e.fsDev, (254u << 18) | 1u);
    EXPECT_EQ(e.atime, 0u);
    EXPECT_EQ(e.mtime, UINT32_MAX);
    EXPECT_EQ(e.ctime, 1700000000u);
    EXPECT_EQ(e.size, 7u);
    EXPECT_EQ(e.mounted, 0);
}

TEST_F(BrowserTest, SelectZeroUnknownCodesAndLogout) {
    ASSERT_NO_FATAL_FAILURE(startBrowser());
    sendBytes(sp_.server, request(15, 0, 22, "/nonexistent"));
    EXPECT_EQ(nextRaw(sp_.server), (std::array<uint8_t, 8>{0, 0, 16, 22, 0, 0, 0, 0}));
    sendBytes(sp_.server, request(30, 0, 22, std::string(10, 'q'), false));
    EXPECT_EQ(nextRaw(sp_.server), (std::array<uint8_t, 8>{0, 0, 22, 22, 0, 50, 0, 0}));
    // A LOGOUT's payload is never read.
    sendBytes(sp_.server, request(17, 0, 22, "ignored"));
    EXPECT_TRUE(closedWithin(sp_.server));
    EXPECT_EQ(finish(), 0);
    EXPECT_TRUE(home_.logHas("(Browser) READ_DIR:version=22, directory=[/nonexistent]"));
    EXPECT_TRUE(home_.logHas("(Browser) LOGOUT"));
    EXPECT_FALSE(home_.logHas("(SendDirData)"));  // select 0 changes no directory
}

TEST_F(BrowserTest, BrokenRequestsEndTheBrowseCleanly) {
    struct Case {
        const char* name;
        std::vector<uint8_t> bytes;
        bool shutWrite;
        std::vector<std::string> lines;
    };
    std::vector<uint8_t> midRequest = request(15, 1, 22, std::string(19, 'p'));
    midRequest.resize(8 + 5);
    std::vector<uint8_t> oversized = request(21, 0, 22, std::string(1024, 'l'));
    const std::vector<Case> cases{
        {"part of a header, then closed", {0, 1, 15}, true, {"(usbReceive) Failed to recv 8 bytes, length = 3"}},
        {"closed after the header", {0, 1, 15, 22, 0, 0, 0, 9}, true,
         {"(usbReceive) Failed to recv 9 bytes, length = 0", "(Browser) Failed in Receive"}},
        {"closed mid-request", midRequest, true,
         {"(usbReceive) Failed to recv 20 bytes, length = 5", "(Browser) Failed in Receive"}},
        {"longer than 1024", oversized, false, {"(Browser) Failed in Receive"}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        std::ofstream(paths().logPath, std::ios::trunc).flush();
        SocketPair fresh;
        std::swap(sp_.agent, fresh.agent);
        std::swap(sp_.server, fresh.server);
        ASSERT_NO_FATAL_FAILURE(startBrowser());
        sendBytes(sp_.server, c.bytes);
        if (c.shutWrite) ::shutdown(sp_.server, SHUT_WR);
        EXPECT_TRUE(closedWithin(sp_.server));
        EXPECT_EQ(finish(), 0);
        for (const std::string& line : c.lines) EXPECT_TRUE(home_.logHas(line)) << line;
    }
    EXPECT_FALSE(home_.logHas("READ_LINK"));  // the oversized request was never taken
}

TEST_F(BrowserTest, RequestOfExactly1024BytesIsTakenWhateverPiecesItArrivesIn) {
    ASSERT_NO_FATAL_FAILURE(startBrowser());
    std::vector<uint8_t> bytes = request(15, 3, 22, "/" + std::string(1023, 'd'), false);
    for (size_t cut : {size_t(0), size_t(5), size_t(8 + 100)}) {
        size_t next = cut == 0 ? 5 : cut == 5 ? 8 + 100 : bytes.size();
        sendBytes(sp_.server, {bytes.begin() + long(cut), bytes.begin() + long(next)});
        ::usleep(20000);
    }
    EXPECT_EQ(nextCode(sp_.server), 16);
    EXPECT_TRUE(home_.logHas("(File name too long), Job Abort"));
}

TEST_F(BrowserTest, LinkTextsAtTheBufferLimit) {
    std::string text255(255, 't');
    std::string text256(256, 't');
    ASSERT_EQ(symlink(text255.c_str(), path("fits").c_str()), 0);
    ASSERT_EQ(symlink(text256.c_str(), path("full").c_str()), 0);
    ASSERT_NO_FATAL_FAILURE(startBrowser());

    sendBytes(sp_.server, request(15, 3, 22, dir_));
    auto entry = readPacket(sp_.server);
    ASSERT_TRUE(entry);
    EXPECT_EQ(entry->header.code, 15);
    EXPECT_EQ(protocol::decodeBrowseEntry(entry->payload, 22)->name, "/fits");
    auto target = readPacket(sp_.server);
    ASSERT_TRUE(target);
    EXPECT_EQ(target->header.code, 20);
    EXPECT_EQ(target->header.length, 48 + 255 + 1);
    EXPECT_EQ(protocol::decodeBrowseEntry(target->payload, 22)->name, text255);
    EXPECT_EQ(nextCode(sp_.server), 16);
    EXPECT_TRUE(home_.logHas("(SendDirData) Failed to read the contents of the symbolic link file ./full (File name too long)"));

    // Version 20 reads no link texts: both links are listed.
    sendBytes(sp_.server, request(15, 3, 20, dir_));
    auto listing = readListing(sp_.server);
    ASSERT_TRUE(listing);
    std::set<std::string> names;
    for (const Packet& p : *listing) {
        EXPECT_EQ(p.header.code, 15);
        names.insert(protocol::decodeBrowseEntry(p.payload, 20)->name);
    }
    EXPECT_EQ(names, (std::set<std::string>{"/fits", "/full"}));

    // READ_LINK of the full one ends the job without an answer.
    sendBytes(sp_.server, request(21, 0, 22, path("full")));
    EXPECT_TRUE(closedWithin(sp_.server));
    EXPECT_TRUE(home_.logHas("(SendLinkData) Failed to read the contents of the symbolic link file " + path("full") +
                             " (File name too long)"));
    EXPECT_TRUE(home_.logHas("(Browser) Failed in SendDirData"));
}

TEST_F(BrowserTest, EntryRemovedBeforeItsLstatIsSkipped) {
    // The agent's sends block on a small buffer after the directory has
    // been read; the files it has not reached yet are then removed.
    constexpr int kFiles = 150;
    for (int i = 0; i < kFiles; ++i) std::ofstream(path("f" + std::to_string(1000 + i)));
    int small = 4096;
    ASSERT_EQ(::setsockopt(sp_.agent, SOL_SOCKET, SO_SNDBUF, &small, sizeof small), 0);
    ASSERT_NO_FATAL_FAILURE(startBrowser());
    sendBytes(sp_.server, request(15, 3, 22, dir_));
    // Wait until the first entries are queued (the directory has been read)
    // and the queue stops growing (the agent is blocked).
    int queued = -1;
    for (int stable = 0, i = 0; stable < 3 && i < 500; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        int now = 0;
        ASSERT_EQ(::ioctl(sp_.server, FIONREAD, &now), 0);
        stable = (now > 0 && now == queued) ? stable + 1 : 0;
        queued = now;
    }
    ASSERT_GT(queued, 0);
    for (int i = 0; i < kFiles; ++i) ::unlink(path("f" + std::to_string(1000 + i)).c_str());
    auto listing = readListing(sp_.server);
    ASSERT_TRUE(listing);
    const int listed = int(listing->size());
    EXPECT_GT(listed, 0);
    EXPECT_LT(listed, kFiles);
    std::string log = home_.log();
    int skipped = 0;
    for (size_t at = 0; (at = log.find("(SendDirData) Failed to get the attributes (lstat) of ./f", at)) !=
                        std::string::npos;
         ++at)
        ++skipped;
    EXPECT_EQ(listed + skipped, kFiles);
    EXPECT_TRUE(home_.logHas(" (No such file or directory)"));
}

TEST_F(BrowserTest, MountListFromTheTable) {
    ASSERT_EQ(mkdir(path("with space").c_str(), 0755), 0);
    std::string table = path("mounts");
    std::ofstream(table) << "/dev/root / ext4 rw 0 0\n"
                         << "proc /proc PROC rw 0 0\n"
                         << "none /no/such/dir tmpfs rw 0 0\n"
                         << "spaced " << dir_ << "/with\\040space tmpfs rw 0 0\n";
    ASSERT_NO_FATAL_FAILURE(startBrowser(table));
    sendBytes(sp_.server, request(15, 0, 22, ""));
    auto listing = readListing(sp_.server);
    ASSERT_TRUE(listing);
    std::vector<std::string> names;
    for (const Packet& p : *listing) {
        EXPECT_EQ(p.header.code, 15);
        ASSERT_GE(p.payload.size(), 49u);
        EXPECT_EQ(p.payload[40], 1);
        names.push_back(protocol::decodeBrowseEntry(p.payload, 22)->name);
    }
    EXPECT_EQ(names, (std::vector<std::string>{"/", dir_ + "/with space"}));
    EXPECT_TRUE(home_.logHas(
        "(SendFSData) Failed to get the attributes (stat) of /no/such/dir (No such file or directory)"));
}

TEST_F(BrowserTest, MountTableThatCannotBeOpenedAnswers101) {
    ASSERT_NO_FATAL_FAILURE(startBrowser(path("no-table")));
    sendBytes(sp_.server, request(15, 3, 22, ""));
    EXPECT_EQ(nextRaw(sp_.server), (std::array<uint8_t, 8>{0, 0, 101, 22, 0, 0, 0, 0}));
    EXPECT_TRUE(home_.logHas(") - Failed to open mnttab\n"));
}

TEST_F(BrowserTest, PeerGoneWhileListingEndsTheJob) {
    for (int i = 0; i < 400; ++i) std::ofstream(path("g" + std::to_string(i)));
    ASSERT_NO_FATAL_FAILURE(startBrowser());
    sendBytes(sp_.server, request(15, 3, 22, dir_));
    sp_.closeServer();
    EXPECT_EQ(finish(), 0);
    EXPECT_TRUE(home_.logHas("(usbSend) Failed in send(), "));
    EXPECT_TRUE(home_.logHas("(SendDirData) Failed in usbSend()"));
    EXPECT_TRUE(home_.logHas("(Browser) Failed in SendDirData"));
}

}  // namespace
