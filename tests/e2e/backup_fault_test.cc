// Backups that meet faults on a real daemon: the front-end drops the
// connection, the sender is killed, entries the login may not read, a
// directory loop, paths longer than the buffers. After each the job's IPC
// objects and registry lines are gone and the daemon serves the next job.
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <fstream>

#include "e2e/backup_support.h"
#include "e2e/test_user.h"

namespace {

using namespace tavik::test;

std::vector<pid_t> childrenOf(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/task/" + std::to_string(pid) + "/children");
    std::vector<pid_t> out;
    pid_t child;
    while (in >> child) out.push_back(child);
    return out;
}

class BackupFaultTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (geteuid() != 0) GTEST_SKIP() << "needs root";
    }
    bool start(std::vector<std::string> args = {"-v", "-S"}) {
        if (!daemon_.start(args, {{"TAVIK_TIME_DIVISOR", "1000"}})) return false;
        chmod(daemon_.home().c_str(), 0755);
        return true;
    }
    std::vector<std::string> backup(BackupSetup s) {
        if (s.root.empty()) s.root = tree_.root();
        auto reader = beginBackup(daemon_, s);
        if (!reader) return {};
        EXPECT_TRUE(reader->readUntilEnd()) << reader->error();
        reader->closeAll();
        EXPECT_TRUE(ipcReleased(daemon_));
        return reader->summary();
    }
    // The next job is served normally.
    void servesNextJob(BackupSetup s = {}) {
        Tree other;
        other.file("next", "n");
        s.root = other.root();
        EXPECT_EQ(backup(s), (std::vector<std::string>{"6:", "6:next", "8:1", "9", "3"}));
    }

    Daemon daemon_;
    Tree tree_;
};

TEST_F(BackupFaultTest, FrontEndDropsTheConnectionMidBackup) {
    tree_.file("huge", pattern(16 << 20));
    ASSERT_TRUE(start());
    BackupSetup s;
    s.root = tree_.root();
    auto reader = beginBackup(daemon_, s);
    ASSERT_TRUE(reader);
    EXPECT_FALSE(reader->readUntilEnd(10000, 5));
    linger hard{1, 0};  // a reset, as a front-end that dies
    setsockopt(reader->fd(), SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
    reader->closeAll();
    EXPECT_TRUE(daemon_.waitForLog("(connrelease) Job aborted by front-end"));
    EXPECT_TRUE(daemon_.waitForLog("(cleanup) Child process ("));
    EXPECT_TRUE(ipcReleased(daemon_));
    servesNextJob();
}

TEST_F(BackupFaultTest, ResetAfterTheLastPacketIsLoggedAsADisconnect) {
    tree_.file("a", "a");
    ASSERT_TRUE(start());
    BackupSetup s;
    s.root = tree_.root();
    auto reader = beginBackup(daemon_, s);
    ASSERT_TRUE(reader);
    EXPECT_TRUE(reader->readUntilEnd());
    linger hard{1, 0};
    setsockopt(reader->fd(), SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
    reader->closeAll();
    EXPECT_TRUE(daemon_.waitForLog("(connrelease) Received disconnect from localhost"));
    EXPECT_TRUE(ipcReleased(daemon_));
}

TEST_F(BackupFaultTest, KilledSenderEndsTheBackupProcess) {
    tree_.file("huge", pattern(16 << 20));
    ASSERT_TRUE(start());
    BackupSetup s;
    s.root = tree_.root();
    auto reader = beginBackup(daemon_, s);  // and never read
    ASSERT_TRUE(reader);
    pid_t sender = -1;
    for (int i = 0; i < 250 && sender < 0; ++i) {
        for (pid_t job : childrenOf(daemon_.pid()))
            for (pid_t c : childrenOf(job)) sender = c;
        if (sender < 0) usleep(20000);
    }
    ASSERT_GT(sender, 0);
    kill(sender, SIGKILL);
    EXPECT_TRUE(daemon_.waitForLog("(cleanup) Child process (" + std::to_string(sender) + ") died"));
    EXPECT_TRUE(ipcReleased(daemon_));
    reader->closeAll();
    servesNextJob();
}

TEST_F(BackupFaultTest, EntriesTheLoginMayNotRead) {
    TestUser user;
    ASSERT_TRUE(user.ok());
    tree_.file("open", "o");
    tree_.file("secret", "s", 0600);
    tree_.dir("private", 0700);
    tree_.file("private/inside", "i");
    mkfifo(tree_.path("fifo").c_str(), 0644);
    ASSERT_TRUE(start({"-v"}));
    BackupSetup s;
    s.login = user.name();
    s.password = kPassword;
    std::vector<std::string> got = backup(s);
    std::map<std::string, std::vector<std::string>> data = {
        {"open", {"6:open", "8:1"}}, {"secret", {"102:secret"}}, {"fifo", {"102:fifo"}}, {"private", {}}};
    std::vector<std::string> want = {"6:"};
    for (const std::string& name : tree_.order()) want.insert(want.end(), data[name].begin(), data[name].end());
    for (std::string w : {"6:private", "101", "9", "3"}) want.push_back(w);
    EXPECT_EQ(got, want);
    std::string log = daemon_.log();
    EXPECT_NE(log.find("(backup_file) Failed to open regular file " + tree_.root() + "secret (Permission denied)"),
              std::string::npos);
    EXPECT_NE(log.find("(backup_file) Failed to access special file " + tree_.root() + "fifo"), std::string::npos);
    EXPECT_NE(log.find("(ws_backup) Failed to Access Directory [" + tree_.root() + "private/] (Permission denied)"),
              std::string::npos);
    servesNextJob(s);
}

TEST_F(BackupFaultTest, DirectoryLoopThroughAFollowedLink) {
    tree_.dir("sub");
    symlink("..", tree_.path("sub/up").c_str());
    ASSERT_TRUE(start());
    BackupSetup s;
    s.follow = 1;
    EXPECT_EQ(backup(s), (std::vector<std::string>{"6:", "6:sub", "6:up", "9", "9", "9", "3"}));
    EXPECT_NE(daemon_.log().find("(ws_backup) Detected link to its ancestor of file " + tree_.root() + "sub/up"),
              std::string::npos);
    // Not followed, the link is sent as a link.
    s.follow = 0;
    EXPECT_EQ(backup(s), (std::vector<std::string>{"6:", "6:sub", "6:up", "8:2", "9", "9", "3"}));
}

TEST_F(BackupFaultTest, PathsLongerThanTheBuffersAreRefusedAndTheWalkGoesOn) {
    std::string rel;
    for (int level = 0; level < 4; ++level) {
        rel += (rel.empty() ? "" : "/") + std::string(200, char('a' + level));
        tree_.dir(rel);
    }
    std::string longFile(250, 'f'), longDir(250, 'g');
    tree_.file(rel + "/" + longFile, "x");
    tree_.dir(rel + "/" + longDir);
    tree_.file(rel + "/ok", "fine");
    tree_.file("last", "z");
    ASSERT_TRUE(start());
    std::vector<std::string> got = backup({});
    EXPECT_NE(std::find(got.begin(), got.end(), "102:" + longFile), got.end());
    EXPECT_NE(std::find(got.begin(), got.end(), "102:" + longDir), got.end());
    EXPECT_NE(std::find(got.begin(), got.end(), "6:ok"), got.end());
    EXPECT_NE(std::find(got.begin(), got.end(), "6:last"), got.end());
    EXPECT_EQ(countOf(daemon_.log(), "(File name too long)"), 2u);
}

}  // namespace
