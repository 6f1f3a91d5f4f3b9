// Backups on a real daemon, read packet by packet: the stream order for
// every entry kind, chunking, the records and codes by server version, the
// depth limits, the top-level list and filters, and the estimate.
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <fcntl.h>
#include <sys/un.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "e2e/backup_support.h"
#include "filter/items.h"

#include <algorithm>
#include <fstream>

namespace {

using namespace tavik::test;

class BackupStreamTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (geteuid() != 0) GTEST_SKIP() << "needs root: device nodes and the daemon's identity";
    }
    bool start(std::vector<std::string> args = {"-v", "-S"}) {
        return daemon_.start(args, {{"TAVIK_TIME_DIVISOR", "1000"}});
    }
    // A whole backup of the tree; the stream summary.
    std::vector<std::string> backup(BackupSetup s, std::unique_ptr<BackupStreamReader>* keep = nullptr) {
        if (s.root.empty()) s.root = tree_.root();
        auto reader = beginBackup(daemon_, s);
        if (!reader) return {};
        EXPECT_TRUE(reader->readUntilEnd()) << reader->error();
        std::vector<std::string> out = reader->summary();
        reader->closeAll();
        EXPECT_TRUE(ipcReleased(daemon_));
        if (keep) *keep = std::move(reader);
        return out;
    }

    Daemon daemon_;
    Tree tree_;
};

TEST_F(BackupStreamTest, EveryEntryKindInStreamOrder) {
    tree_.file("empty", "");
    tree_.file("small", "hello");
    std::string big = pattern(4097);
    tree_.file("big", big);
    symlink("target-text", tree_.path("link").c_str());
    mkfifo(tree_.path("fifo").c_str(), 0644);
    mknod(tree_.path("chardev").c_str(), S_IFCHR | 0644, makedev(1, 3));
    int sock = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un sun{};
    sun.sun_family = AF_UNIX;
    std::snprintf(sun.sun_path, sizeof sun.sun_path, "%s", tree_.path("sock").c_str());
    ASSERT_EQ(bind(sock, reinterpret_cast<sockaddr*>(&sun), sizeof sun), 0);
    tree_.dir("sub");
    tree_.file("sub/inner", "abc");
    ASSERT_TRUE(start());

    std::unique_ptr<BackupStreamReader> reader;
    std::vector<std::string> got = backup({}, &reader);
    close(sock);

    std::map<std::string, std::vector<std::string>> data = {
        {"empty", {"6:empty", "8:0"}},
        {"small", {"6:small", "8:5"}},
        {"big", {"6:big", "7:2048", "7:2048", "8:1"}},
        {"link", {"6:link", "8:11"}},
        {"fifo", {"6:fifo", "8:0"}},
        {"chardev", {"6:chardev", "8:0"}},
        {"sock", {}},
        {"sub", {}},
    };
    std::vector<std::string> want = {"6:"};
    for (const std::string& name : tree_.order()) want.insert(want.end(), data[name].begin(), data[name].end());
    for (std::string w : {"6:sub", "6:inner", "8:3", "9", "9", "3"}) want.push_back(w);
    EXPECT_EQ(got, want);

    // Kinds, version bytes, sizes and types in the records.
    for (const StreamPacket& p : reader->packets()) {
        bool status = p.code == 9 || p.code == 3;
        EXPECT_EQ(p.version, status ? 5 : 0) << int(p.code);
        EXPECT_EQ(p.value, 0);
        if (p.code != 6) continue;
        uint8_t kind = p.name().empty() ? 17 : p.name() == "sub" ? 16 : 0;
        EXPECT_EQ(p.kind(), kind) << p.name();
        EXPECT_EQ(p.payload.size(), 49 + p.name().size());
        std::map<std::string, uint32_t> sizes = {{"chardev", 0}, {"big", 4097}, {"link", 11}};
        std::map<std::string, uint32_t> types = {{"link", 0xA000}, {"fifo", 0x1000}, {"chardev", 0x2000}};
        if (sizes.count(p.name())) {
            EXPECT_EQ(p.size(), sizes[p.name()]) << p.name();
        }
        if (types.count(p.name())) {
            EXPECT_EQ(p.mode() & 0xF000, types[p.name()]) << p.name();
        }
    }
    auto files = reader->files();
    EXPECT_EQ(files["big"], big);
    EXPECT_EQ(files["link"], "target-text");
    EXPECT_EQ(files["sub/inner"], "abc");
    EXPECT_TRUE(daemon_.waitForLog("Workstation Backup Ended"));
    EXPECT_NE(daemon_.log().find("SO_SNDBUF = "), std::string::npos);
}

TEST_F(BackupStreamTest, ChunksFollowTheJobsBufferSize) {
    tree_.file("a", pattern(4096));
    ASSERT_TRUE(start({"-v", "-S", "-b", "8192"}));
    // Without option flag 0x40 the job uses 2048 whatever -b says.
    EXPECT_EQ(backup({}), (std::vector<std::string>{"6:", "6:a", "7:2048", "7:2048", "8:0", "9", "3"}));

    tree_.file("a", pattern(8193));
    BackupSetup keep;
    keep.flags = 0x40;
    std::unique_ptr<BackupStreamReader> reader;
    EXPECT_EQ(backup(keep, &reader), (std::vector<std::string>{"6:", "6:a", "7:8192", "8:1", "9", "3"}));
    EXPECT_EQ(reader->files()["a"], pattern(8193));
}

TEST_F(BackupStreamTest, OldServersGetNoSourceRecordAndTheShallowDepthLimit) {
    std::string rel;
    for (int i = 1; i <= 25; ++i) {
        rel += (rel.empty() ? "" : "/") + std::string("d") + std::to_string(i);
        tree_.dir(rel);
        tree_.file(rel + "/f", "x");
    }
    tree_.file("f", "x");
    ASSERT_TRUE(start());

    BackupSetup old;
    old.serverVersion = 49;
    std::vector<std::string> got = backup(old);
    ASSERT_FALSE(got.empty());
    EXPECT_EQ(got.front(), "6:f");  // no record of the source itself
    size_t dirs = 0, files = 0;
    for (const std::string& p : got) {
        if (p.rfind("6:d", 0) == 0) ++dirs;
        if (p == "6:f") ++files;
    }
    EXPECT_EQ(dirs, 18u);   // d1 (depth 2) .. d18 (depth 19)
    EXPECT_EQ(files, 19u);  // the files down to depth 19
    EXPECT_EQ(countOf(daemon_.log(), "(ws_backup) Directory travering exceeds the maximun level 19"), 1u);

    got = backup({});
    dirs = 0;
    for (const std::string& p : got)
        if (p.rfind("6:d", 0) == 0) ++dirs;
    EXPECT_EQ(dirs, 25u);
    EXPECT_EQ(got.front(), "6:");
}

TEST_F(BackupStreamTest, SkippedFileSystemsCloseByVersion) {
    char tmpl[] = "/dev/shm/tavik-e2e-fs-XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    std::string other = tmpl;
    std::ofstream(other + "/hidden") << "x";
    symlink(other.c_str(), tree_.path("other").c_str());
    ASSERT_TRUE(start());
    BackupSetup s;
    s.follow = 1;
    s.flags = 0x01;  // do not cross file systems
    EXPECT_EQ(backup(s), (std::vector<std::string>{"6:", "6:other", "18", "9", "3"}));
    s.serverVersion = 50;
    EXPECT_EQ(backup(s), (std::vector<std::string>{"6:", "6:other", "9", "9", "3"}));
    EXPECT_NE(daemon_.log().find("Skip file system " + tree_.root() + "other/"), std::string::npos);
    // Crossing allowed: the other file system is read.
    s.flags = 0;
    EXPECT_EQ(backup(s), (std::vector<std::string>{"6:", "6:other", "6:hidden", "8:1", "9", "9", "3"}));
    std::system(("rm -rf " + other).c_str());
}

TEST_F(BackupStreamTest, TopListAndFiltersSelect) {
    tree_.file("keep", "k");
    tree_.file("drop", "d");
    tree_.file("x.o", "o");
    tree_.dir("dir");
    tree_.file("dir/keep", "inner");
    tree_.file("dir/y.o", "o");
    ASSERT_TRUE(start());

    BackupSetup top;
    top.commands = [](tavik::frontend::JobClient& c) { EXPECT_EQ(c.diskItem({"keep", "dir"}), 4); };
    std::unique_ptr<BackupStreamReader> listed;
    backup(top, &listed);
    // Only the listed names at the top; deeper levels are not limited.
    EXPECT_EQ(listed->files(), (std::map<std::string, std::string>{{"keep", "k"}, {"dir/keep", "inner"}, {"dir/y.o", "o"}}));

    BackupSetup filtered;
    std::vector<std::string> patterns = {"*.o"};
    filtered.filterItems.push_back(*tavik::filter::encodeNamePatternItem(false, true, patterns));
    std::unique_ptr<BackupStreamReader> reader;
    backup(filtered, &reader);
    auto files = reader->files();
    EXPECT_EQ(files.count("x.o") + files.count("dir/y.o"), 0u);
    EXPECT_EQ(files.size(), 3u);  // keep, drop, dir/keep
}

TEST_F(BackupStreamTest, ProtectedDirectoriesAreLeftOutAndAccessTimesRestored) {
    tree_.dir("prot");
    tree_.file("prot/inside", "p");
    tree_.file("read", "r");
    tree_.dir("kept");
    tree_.file("kept/f", "k");
    struct timespec old[2] = {{1000000, 0}, {0, UTIME_OMIT}};  // accessed long before its change
    utimensat(AT_FDCWD, tree_.path("read").c_str(), old, 0);
    utimensat(AT_FDCWD, tree_.path("kept").c_str(), old, 0);
    struct stat before, dirBefore;
    stat(tree_.path("read").c_str(), &before);
    stat(tree_.path("kept").c_str(), &dirBefore);
    ASSERT_TRUE(start());
    std::ofstream(daemon_.home() + "tvk.cntl") << tree_.path("prot") << "\n";
    EXPECT_EQ(backup({}), (std::vector<std::string>{"6:", "6:read", "8:1", "6:kept", "6:f", "8:1", "9", "9", "3"}));
    EXPECT_NE(daemon_.log().find("(ws_backup) Protected Directory [" + tree_.path("prot") + "] in " + daemon_.home() +
                                 "tvk.cntl"),
              std::string::npos);
    struct stat st;
    stat(tree_.path("read").c_str(), &st);
    EXPECT_EQ(st.st_atime, 1000000);
    // Read without touching the access time, so the file does not look changed either.
    EXPECT_EQ(st.st_ctim.tv_sec, before.st_ctim.tv_sec);
    EXPECT_EQ(st.st_ctim.tv_nsec, before.st_ctim.tv_nsec);
    stat(tree_.path("kept").c_str(), &st);
    EXPECT_EQ(st.st_atime, 1000000);
    EXPECT_EQ(st.st_ctim.tv_nsec, dirBefore.st_ctim.tv_nsec);
}

TEST_F(BackupStreamTest, ListedRawDeviceIsSentAsData) {
    mknod(tree_.path("raw").c_str(), S_IFCHR | 0600, makedev(1, 5));  // reads as zeros
    ASSERT_TRUE(start());
    std::string path = tree_.path("raw");
    std::string entry = std::string("\0\x10\0\0", 4) + path + '\0';  // size 4096, path, NUL
    entry.resize((entry.size() + 3) / 4 * 4, '\0');
    std::vector<uint8_t> list(entry.begin(), entry.end());
    BackupSetup s;
    s.commands = [&](tavik::frontend::JobClient& c) { EXPECT_EQ(c.dbFile(list), 4); };
    std::unique_ptr<BackupStreamReader> reader;
    EXPECT_EQ(backup(s, &reader), (std::vector<std::string>{"6:", "6:raw", "7:2048", "8:2048", "9", "3"}));
    EXPECT_EQ(reader->packets()[1].size(), 4096u);
    EXPECT_EQ(reader->files()["raw"], std::string(4096, '\0'));
}

TEST_F(BackupStreamTest, DeletingGroomingReportsAndRemovesTheBackedUpFiles) {
    tree_.dir("old");
    tree_.file("old/one", "1");
    tree_.file("old/two", "22");
    ASSERT_TRUE(start());
    std::vector<uint8_t> record(24, 0);
    tavik::wire::storeLe32(record.data() + 12, 0x04);  // delete the recorded files
    std::vector<uint8_t> tape(63, 0);
    BackupSetup s;
    s.commands = [&](tavik::frontend::JobClient& c) { EXPECT_EQ(c.grooming(record, tape), 4); };
    std::unique_ptr<BackupStreamReader> reader;
    std::vector<std::string> got = backup(s, &reader);
    // After the source's ENDDIR: the count, then the work file as data.
    auto at = std::find(got.begin(), got.end(), "14:2");
    ASSERT_NE(at, got.end()) << ::testing::PrintToString(got);
    EXPECT_EQ(*(at - 1), "9");
    EXPECT_EQ((at + 1)->rfind("8:", 0), 0u);
    EXPECT_EQ(got.back(), "3");
    EXPECT_NE(access(tree_.path("old/one").c_str(), F_OK), 0);
    EXPECT_NE(access(tree_.path("old/two").c_str(), F_OK), 0);
    EXPECT_TRUE(daemon_.waitForLog("Total 2 files were deleted"));
}

TEST_F(BackupStreamTest, EstimateCountsWhatABackupWouldSend) {
    tree_.file("a", pattern(1000));
    tree_.file("b", pattern(2048));
    tree_.file("c", "");
    mkfifo(tree_.path("fifo").c_str(), 0644);
    tree_.dir("sub");
    tree_.file("sub/d", pattern(3000));
    ASSERT_TRUE(start());
    auto ask = [&](const std::string& source, const std::vector<std::string>& names) {
        tavik::frontend::JobClient c;
        EXPECT_TRUE(c.connect("127.0.0.1", daemon_.port()));
        tavik::frontend::RequestFields f;
        f.root = tree_.root();
        f.login = "root";
        f.opMode = 7;  // a job of commands only
        EXPECT_EQ(c.request(f), 4);
        std::vector<uint8_t> payload(source.begin(), source.end());
        payload.push_back(0);
        for (const std::string& n : names) {
            payload.insert(payload.end(), n.begin(), n.end());
            payload.push_back(0);
        }
        EXPECT_EQ(c.command(14, payload), 4);
        std::array<uint8_t, 8> reply{};
        EXPECT_TRUE(c.recvRaw(reply));
        return std::make_pair(tavik::wire::loadLe32(reply.data()), tavik::wire::loadLe32(reply.data() + 4));
    };
    EXPECT_EQ(ask(tree_.root(), {}), std::make_pair(5u, 5u));  // 6048 bytes
    EXPECT_EQ(ask(tree_.root(), {"a", "b", "c", "fifo"}), std::make_pair(4u, 2u));
    EXPECT_EQ(ask(tree_.path("nothing-here"), {}), std::make_pair(0u, 0u));
}

}  // namespace
