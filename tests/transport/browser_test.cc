// The browser where the real daemon cannot be steered: the header's bytes,
// entries at their bounds, 64-bit stat fields in 32 bits; and, over a
// socket pair in a child process (it changes its working directory), an
// entry that vanishes before its lstat and mount tables that cannot be
// opened or name what cannot be examined. Listings, links, the mount list
// and every broken request are made on the real daemon
// (tests/e2e/browse_test.cc).
#include "transport/browser.h"

#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <fstream>
#include <thread>
#include <utility>
#include <vector>

#include "daemon/mount_table.h"
#include "daemon/scratch_home.h"

namespace {

using namespace tavik;
using namespace tavik::transport;
using tavik::testing::recvWithin;

// The header's bytes are checked raw below (the LOGIN packet, the answer
// 101) and every entry's bytes on the real daemon
// (BrowseTest.ListingsForEachVersionAndSelectionMatchLstatAndStatAndLinksRead):
// here, what no agent sends.
TEST(BrowseCodec, HeaderAndEntryGoldenBytes) {
    // Every truncation of an entry fails to decode: no NUL, or no fixed part.
    protocol::BrowseEntry e{.size = 7, .fsDev = 9, .name = "/ab"};
    for (int version : {20, 22}) {
        std::vector<uint8_t> bytes = protocol::encodeBrowseEntry(e, version);
        for (size_t n = 0; n < bytes.size(); ++n)
            EXPECT_FALSE(protocol::decodeBrowseEntry(std::span(bytes.data(), n), version)) << n;
    }
    // A name of 256 bytes with its "/" fills the largest entry; longer
    // names and names with a NUL are not encoded.
    e.name = "/" + std::string(255, 'n');
    EXPECT_EQ(protocol::encodeBrowseEntry(e, 22).size(), protocol::browse::kMaxEntrySize);
    for (const std::string& name : {e.name + "n", std::string("a\0b", 3)}) {
        e.name = name;
        EXPECT_TRUE(protocol::encodeBrowseEntry(e, 22).empty());
    }
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
    EXPECT_EQ((std::vector<uint32_t>{e.links, e.rdev, e.fsDev, e.atime, e.mtime, e.ctime, e.size, e.mounted}),
              (std::vector<uint32_t>{UINT32_MAX, (136u << 18) | 5u, (254u << 18) | 1u, 0u, UINT32_MAX, 1700000000u,
                                     7u, 0u}));
}

class BrowserTest : public ::testing::Test {
protected:
    void SetUp() override {
        startupSettings() = Settings{};
        startupSettings().verbose = true;
        publishSettings();
        dir_ = home_.dir() + "/tree";
        ASSERT_EQ(mkdir(dir_.c_str(), 0755), 0);
    }
    void TearDown() override {
        if (child_ > 0) ::kill(child_, SIGKILL);
        if (child_ > 0) ::waitpid(child_, nullptr, 0);
    }
    // Runs Browser on the agent's end in a child with the mount table
    // `table`, takes its LOGIN packet and sends a READ_DIR of `path`.
    void startBrowser(const std::string& table, const std::string& path, uint16_t select = 3) {
        child_ = ::fork();
        ASSERT_GE(child_, 0);
        if (child_ == 0) {
            sp_.closeServer();
            MountTable mountTable(table);
            MountPoints mounts(mountTable, home_.dir());
            _exit(Browser({.fd = sp_.agent}, mounts));
        }
        sp_.closeAgent();
        ASSERT_EQ(nextHeader(), (protocol::BrowseHeaderBytes{0, 0, 14, 22, 0, 50, 0, 0}));
        std::vector<uint8_t> request(path.begin(), path.end());
        request.push_back(0);
        protocol::BrowseHeaderBytes h = protocol::encodeBrowseHeader({select, 15, 22, 0, uint16_t(request.size())});
        request.insert(request.begin(), h.begin(), h.end());
        ASSERT_EQ(::send(sp_.server, request.data(), request.size(), 0), ssize_t(request.size()));
    }
    // The header of the next packet (its payload read past); all 0xFF when
    // none came.
    protocol::BrowseHeaderBytes nextHeader() {
        protocol::BrowseHeaderBytes raw;
        raw.fill(0xFF);
        if (!recvWithin(sp_.server, raw.data(), raw.size())) return raw;
        lastPayload_.resize(protocol::decodeBrowseHeader(raw).length);
        if (!recvWithin(sp_.server, lastPayload_.data(), lastPayload_.size())) raw.fill(0xFF);
        return raw;
    }
    // The names listed up to the end of listing.
    std::vector<std::string> listing() {
        std::vector<std::string> names;
        for (protocol::BrowseHeaderBytes h; (h = nextHeader())[2] == 15;)
            names.push_back(protocol::decodeBrowseEntry(lastPayload_, 22)->name);
        return names;
    }
    std::string path(const std::string& name) const { return dir_ + "/" + name; }

    tavik::testing::ScratchHome home_;
    tavik::testing::SocketPair sp_;
    std::string dir_;
    std::vector<uint8_t> lastPayload_;
    pid_t child_ = -1;
};

TEST_F(BrowserTest, EntryRemovedBeforeItsLstatIsSkipped) {
    // The agent's sends block on a small buffer after the directory has
    // been read; the files it has not reached yet are then removed.
    constexpr int kFiles = 150;
    for (int i = 0; i < kFiles; ++i) std::ofstream(path("f" + std::to_string(1000 + i)));
    int small = 4096;
    ASSERT_EQ(::setsockopt(sp_.agent, SOL_SOCKET, SO_SNDBUF, &small, sizeof small), 0);
    ASSERT_NO_FATAL_FAILURE(startBrowser(kMountTablePath, dir_));
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
    const int listed = int(listing().size());
    EXPECT_GT(listed, 0);
    EXPECT_LT(listed, kFiles);
    const std::string log = home_.log(), skip = "(SendDirData) Failed to get the attributes (lstat) of ./f";
    int skipped = 0;
    for (size_t at = log.find(skip); at != std::string::npos; at = log.find(skip, at + 1)) ++skipped;
    EXPECT_EQ(listed + skipped, kFiles);
    EXPECT_TRUE(home_.logHas(" (No such file or directory)"));
}

TEST_F(BrowserTest, MountListFromTheTable) {
    std::string table = path("mounts");
    std::ofstream(table) << "/dev/root / ext4 rw 0 0\n"
                         << "none /no/such/dir tmpfs rw 0 0\n";
    ASSERT_NO_FATAL_FAILURE(startBrowser(table, "", 0));
    EXPECT_EQ(listing(), std::vector<std::string>{"/"});
    EXPECT_TRUE(home_.logHas(
        "(SendFSData) Failed to get the attributes (stat) of /no/such/dir (No such file or directory)"));
}

TEST_F(BrowserTest, MountTableThatCannotBeOpenedAnswers101) {
    ASSERT_NO_FATAL_FAILURE(startBrowser(path("no-table"), ""));
    EXPECT_EQ(nextHeader(), (protocol::BrowseHeaderBytes{0, 0, 101, 22, 0, 0, 0, 0}));
    EXPECT_TRUE(home_.logHas(") - Failed to open mnttab\n"));
}

}  // namespace
