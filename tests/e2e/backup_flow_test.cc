// Backups on a real daemon: acknowledgements, connection renewals by files
// and by kilobytes, the restart point, the watchdog, lock tests, and several
// backups at once.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <thread>

#include "e2e/backup_support.h"

namespace {

using namespace tavik::test;

class BackupFlowTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (geteuid() != 0) GTEST_SKIP() << "needs root";
    }
    bool start(std::vector<std::string> args = {"-v", "-S"}) {
        return daemon_.start(args, {{"TAVIK_TIME_DIVISOR", "1000"}});
    }
    std::unique_ptr<BackupStreamReader> backup(BackupSetup s, bool expectEnd = true) {
        if (s.root.empty()) s.root = tree_.root();
        auto reader = beginBackup(daemon_, s);
        if (!reader) return reader;
        EXPECT_EQ(reader->readUntilEnd(), expectEnd) << reader->error();
        reader->closeAll();
        EXPECT_TRUE(ipcReleased(daemon_));
        return reader;
    }
    // Files f1..fn of `size` bytes each.
    void files(int n, size_t size) {
        for (int i = 1; i <= n; ++i) tree_.file("f" + std::to_string(i), pattern(size, unsigned(i)));
    }

    Daemon daemon_;
    Tree tree_;
};

TEST_F(BackupFlowTest, AcknowledgementsEveryNthDataPacket) {
    files(6, 5000);
    ASSERT_TRUE(start());
    BackupSetup s;
    s.ackInterval = 3;
    auto reader = backup(s);
    EXPECT_EQ(reader->files().size(), 6u);
    EXPECT_TRUE(daemon_.waitForLog("RCV_OK: AckCount=3"));

    // An answer other than 0 in place of an acknowledgement ends the sender,
    // and with it the job.
    s.ackInterval = 2;
    s.root = tree_.root();
    auto bad = beginBackup(daemon_, s);
    ASSERT_TRUE(bad);
    bad->acknowledgeEvery(2, 5);
    EXPECT_FALSE(bad->readUntilEnd());
    EXPECT_TRUE(daemon_.waitForLog("(SendDaemon) Protocol error (Acknowledge expected)"));
    EXPECT_TRUE(daemon_.waitForLog("(cleanup) Child process ("));
    bad->closeAll();
    EXPECT_TRUE(ipcReleased(daemon_));
}

TEST_F(BackupFlowTest, RenewalAfterFilesPutsTheLimitingPacketOnTheNewConnection) {
    files(5, 10);
    ASSERT_TRUE(start({"-v", "-S", "-R", "2"}));
    BackupSetup s;
    s.flags = 0x04;
    auto reader = backup(s);
    const auto& p = reader->packets();
    std::vector<size_t> renewals, endfs;
    for (size_t i = 0; i < p.size(); ++i) {
        if (p[i].code == 16) renewals.push_back(i);
        if (p[i].code == 8) endfs.push_back(i);
    }
    ASSERT_EQ(renewals.size(), 2u);
    ASSERT_EQ(endfs.size(), 5u);
    // Before the 2nd and the 4th ENDF, which go first on the new connection.
    EXPECT_EQ(renewals[0] + 1, endfs[1]);
    EXPECT_EQ(renewals[1] + 1, endfs[3]);
    EXPECT_EQ(p[endfs[1]].connection, 1);
    EXPECT_EQ(p[renewals[0]].connection, 0);
    EXPECT_EQ(p.back().connection, 2);
    EXPECT_EQ(p[renewals[0]].payload.size(), 0u);
    EXPECT_NE(p[renewals[0]].value, 0);
    EXPECT_EQ(reader->files().size(), 5u);
    EXPECT_TRUE(daemon_.waitForLog("(reestablishTCP) New TCP fd="));

    // Without option flag 0x04 there is no renewal.
    s.flags = 0;
    reader = backup(s);
    for (const StreamPacket& q : reader->packets()) EXPECT_NE(q.code, 16);
}

TEST_F(BackupFlowTest, RenewalAfterKilobytes) {
    tree_.file("a", pattern(3000));
    ASSERT_TRUE(start({"-v", "-S", "-r", "1"}));
    BackupSetup s;
    s.flags = 0x04;
    s.ackInterval = 1;  // acknowledgements follow the renewal
    auto reader = backup(s);
    EXPECT_EQ(reader->summary(), (std::vector<std::string>{"6:", "6:a", "16", "7:2048", "8:952", "9", "3"}));
    EXPECT_EQ(reader->packets()[3].connection, 1);
    EXPECT_EQ(reader->files()["a"], pattern(3000));
}

TEST_F(BackupFlowTest, RestartPointWithAndWithoutOffset) {
    tree_.dir("d");
    for (const char* n : {"f1", "f2", "f3"}) tree_.file(std::string("d/") + n, n);
    ASSERT_TRUE(start());
    std::vector<std::string> order = tree_.order("d");
    std::string named = order[1];

    // Offset 0: everything up to the named file is skipped.
    BackupSetup s;
    s.commands = [&](tavik::frontend::JobClient& c) { EXPECT_EQ(c.continueAt(0, tree_.root() + "d/" + named), 4); };
    auto reader = backup(s);
    EXPECT_EQ(reader->summary(),
              (std::vector<std::string>{"6:" + order[2], "8:2", "9", "9", "3"}));
    EXPECT_TRUE(daemon_.waitForLog("Continue on file next to " + tree_.root() + "d/" + named));

    // An offset: the file's data from there on, without its file header.
    std::string big = pattern(10000);
    tree_.file("d/" + named, big);
    s.commands = [&](tavik::frontend::JobClient& c) { EXPECT_EQ(c.continueAt(6000, tree_.root() + "d/" + named), 4); };
    reader = backup(s);
    EXPECT_EQ(reader->summary(), (std::vector<std::string>{"7:2048", "8:1952", "6:" + order[2], "8:2", "9", "9", "3"}));
    std::string tail;
    for (size_t i = 0; i < 2; ++i)
        tail.append(reinterpret_cast<const char*>(reader->packets()[i].payload.data()), reader->packets()[i].payload.size());
    EXPECT_EQ(tail, big.substr(6000));

    // A restart file that is never reached: no END, the job ends at once.
    s.commands = [&](tavik::frontend::JobClient& c) { EXPECT_EQ(c.continueAt(0, tree_.root() + "nowhere"), 4); };
    reader = backup(s, false);
    EXPECT_TRUE(reader->packets().empty());
}

TEST_F(BackupFlowTest, WatchdogAndLockTests) {
    tree_.file("locked", "data");
    int fd = open(tree_.path("locked").c_str(), O_RDWR);
    struct flock lock {};
    lock.l_type = F_WRLCK;
    ASSERT_EQ(fcntl(fd, F_SETLK, &lock), 0);
    ASSERT_TRUE(start({"-v", "-S", "-l"}));

    // Four tries 100 s apart (0.1 s here) with a 30 s (30 ms) watchdog.
    BackupSetup s;
    s.flags = 0x02;
    s.retryCount = 4;
    s.retryInterval = 100;
    auto reader = backup(s);
    std::vector<std::string> got = reader->summary();
    size_t dogs = 0;
    for (const std::string& w : got) dogs += w == "47";
    EXPECT_GE(dogs, 2u);
    ASSERT_GE(got.size(), 4u);
    EXPECT_EQ(got[got.size() - 3], "201:locked");
    EXPECT_EQ(got[got.size() - 2], "9");
    EXPECT_EQ(got[got.size() - 1], "3");
    EXPECT_TRUE(daemon_.waitForLog("(SendDaemon) WATCH_DOG sent"));
    EXPECT_TRUE(daemon_.waitForLog("(backup_file) File " + tree_.root() + "locked is locked by another process"));

    // No watchdog without flag 0x02; no retries with a count of 0.
    s.flags = 0;
    s.retryCount = 0;
    reader = backup(s);
    EXPECT_EQ(reader->summary(), (std::vector<std::string>{"6:", "201:locked", "9", "3"}));
    // Released: the file is sent (the count of 0 still refuses without trying).
    close(fd);
    s.retryCount = 1;
    reader = backup(s);
    EXPECT_EQ(reader->summary(), (std::vector<std::string>{"6:", "6:locked", "8:4", "9", "3"}));
}

TEST_F(BackupFlowTest, MandatoryLockModeIsTestedWithoutTheOption) {
    tree_.file("sgid", "data", 02644);
    tree_.file("sgidx", "data", 02754);
    for (const char* n : {"sgid", "sgidx"}) chmod(tree_.path(n).c_str(), std::string(n) == "sgid" ? 02644 : 02754);
    ASSERT_TRUE(start());
    BackupSetup s;
    s.retryCount = 0;
    auto reader = backup(s);
    std::vector<std::string> got = reader->summary();
    EXPECT_NE(std::find(got.begin(), got.end(), "201:sgid"), got.end());
    EXPECT_NE(std::find(got.begin(), got.end(), "6:sgidx"), got.end());
}

TEST_F(BackupFlowTest, TapeChangeStallPutsTheBackupProcessToSleepAndWakesIt) {
    tree_.file("huge", pattern(8 << 20));
    ASSERT_TRUE(start());
    BackupSetup s;
    s.root = tree_.root();
    auto reader = beginBackup(daemon_, s);
    ASSERT_TRUE(reader);
    EXPECT_FALSE(reader->readUntilEnd(10000, 3));
    // The server stops reading for longer than the 180 s (0.18 s) stall.
    EXPECT_TRUE(daemon_.waitForLog("Put Backup Process("));
    EXPECT_TRUE(daemon_.waitForLog("(span_tape_sleep) Received SIGUSR1 from child process"));
    EXPECT_TRUE(reader->readUntilEnd()) << reader->error();
    // The sender wakes it at its first progress (a wake-up signal that
    // follows the sleep signal at once may merge with it; the backup process
    // then goes on when slots are freed).
    EXPECT_TRUE(daemon_.waitForLog("Wake Backup Process("));
    EXPECT_TRUE(reader->files()["huge"] == pattern(8 << 20));
    reader->closeAll();
    EXPECT_TRUE(ipcReleased(daemon_));
}

TEST_F(BackupFlowTest, SeveralBackupsAtOnceReassembleExactly) {
    std::vector<std::unique_ptr<Tree>> trees;
    for (int t = 0; t < 3; ++t) {
        trees.push_back(std::make_unique<Tree>());
        for (int i = 0; i < 8; ++i) trees[t]->file("f" + std::to_string(i), pattern(3000 * i + t, unsigned(t * 10 + i)));
        trees[t]->dir("sub");
        trees[t]->file("sub/g", pattern(70000, unsigned(t)));
    }
    // A ring of ten slots that fills often, with the bounded full-ring wait.
    ASSERT_TRUE(start({"-v", "-S", "-m", "10", "-c", "5"}));
    std::vector<std::map<std::string, std::string>> got(3);
    std::vector<std::thread> jobs;
    for (int t = 0; t < 3; ++t) {
        jobs.emplace_back([&, t] {
            BackupSetup s;
            s.root = trees[t]->root();
            s.ackInterval = uint16_t(t);  // none, every packet, every second
            auto reader = beginBackup(daemon_, s);
            if (!reader) return;
            EXPECT_TRUE(reader->readUntilEnd()) << reader->error();
            got[t] = reader->files();
            reader->closeAll();
        });
    }
    for (auto& j : jobs) j.join();
    EXPECT_TRUE(ipcReleased(daemon_));
    for (int t = 0; t < 3; ++t) {
        ASSERT_EQ(got[t].size(), 9u);
        for (int i = 0; i < 8; ++i) EXPECT_EQ(got[t]["f" + std::to_string(i)], pattern(3000 * i + t, unsigned(t * 10 + i)));
        EXPECT_EQ(got[t]["sub/g"], pattern(70000, unsigned(t)));
    }
}

}  // namespace
