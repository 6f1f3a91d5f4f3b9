// Shared pieces of the backup end-to-end tests: a job set-up that drives the
// command phase with the front-end's job client and hands the connection to
// a stream reader, the check that a job left no IPC object and no live
// registry line behind, and a fixture with a daemon and a scratch tree.
#pragma once

#include <sys/sem.h>
#include <sys/shm.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <functional>
#include <memory>

#include "e2e/backup_stream_reader.h"
#include "e2e/daemon_fixture.h"
#include "frontend/job_client.h"

namespace tavik::test {

struct BackupSetup {
    std::string root;
    int serverVersion = frontend::kNewestServerVersion;
    uint8_t follow = 0;
    uint8_t flags = 0;
    uint16_t retryCount = 5;
    uint16_t retryInterval = 5;
    std::vector<std::vector<uint8_t>> filterItems;
    std::function<void(frontend::JobClient&)> commands;
    uint16_t ackInterval = 0;
    std::string login = "root";
    std::string password;
};

// Runs the request and the command phase; the reader then owns the
// connection. Null (with a test failure) when the agent refused.
inline std::unique_ptr<BackupStreamReader> beginBackup(const Daemon& daemon, const BackupSetup& s) {
    frontend::JobClient client;
    if (!client.connect("127.0.0.1", daemon.port())) {
        ADD_FAILURE() << client.lastError();
        return nullptr;
    }
    frontend::RequestFields f;
    f.root = s.root;
    f.login = s.login;
    f.password = s.password;
    f.opMode = 0;
    f.serverVersion = s.serverVersion;
    f.follow = s.follow;
    f.tpSize = uint16_t(s.filterItems.size());
    if (!s.password.empty()) f.acceptEA = 'e';
    int answer = client.request(f);
    if (answer != 4) {
        ADD_FAILURE() << "request answered " << answer;
        return nullptr;
    }
    if (s.serverVersion >= 50) {
        EXPECT_TRUE(client.sendRaw(optionsRecord(s.retryCount, s.retryInterval, s.flags)));
        for (const auto& item : s.filterItems) EXPECT_TRUE(client.sendRaw(item));
    }
    if (s.commands) s.commands(client);
    EXPECT_TRUE(client.start(s.ackInterval));
    auto reader = std::make_unique<BackupStreamReader>(dup(client.fd()));
    reader->acknowledgeEvery(s.ackInterval);
    return reader;
}

// Waits until the registry holds no live line and every object it named is
// gone from the kernel.
inline bool ipcReleased(const Daemon& daemon, int timeoutMs = 5000) {
    for (int waited = 0; waited <= timeoutMs; waited += 20) {
        std::ifstream in(daemon.home() + "LOG/tvk.ipc");
        std::string line;
        bool live = false, objects = false;
        while (std::getline(in, line)) {
            if (line.empty()) continue;
            if (line[0] == 'm' || line[0] == 's' || line[0] == 'q') live = true;
            if (line[0] == '#' && line.size() > 2) {
                int id = std::atoi(line.c_str() + 2);
                shmid_ds ds{};
                if (line[1] == 'm' && shmctl(id, IPC_STAT, &ds) == 0) objects = true;
                if (line[1] == 's' && semctl(id, 0, GETVAL) >= 0) objects = true;
            }
        }
        if (!live && !objects) return true;
        usleep(20000);
    }
    return false;
}

// A daemon (single-user mode by default, time-outs divided by 1000) and a
// scratch tree to back up.
class BackupTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (geteuid() != 0) GTEST_SKIP() << "needs root: device nodes, test logins and the daemon's identity";
    }
    bool start(const std::vector<std::string>& args = {"-v", "-S"}) {
        // Job processes of a test login still write the shared log.
        return daemon_.start(args, {{"TAVIK_TIME_DIVISOR", "1000"}}) && chmod(daemon_.home().c_str(), 0755) == 0;
    }
    // A whole backup (of the tree unless `s` names a root) read up to END
    // (or, without `expectEnd`, until the agent stops); afterwards the job's
    // IPC objects must be gone.
    std::unique_ptr<BackupStreamReader> backup(BackupSetup s, bool expectEnd = true) {
        if (s.root.empty()) s.root = tree_.root();
        auto reader = beginBackup(daemon_, s);
        if (!reader) return std::make_unique<BackupStreamReader>(-1);
        EXPECT_EQ(reader->readUntilEnd(), expectEnd) << reader->error();
        reader->closeAll();
        EXPECT_TRUE(ipcReleased(daemon_));
        return reader;
    }
    std::vector<std::string> summary(const BackupSetup& s) { return backup(s)->summary(); }

    Daemon daemon_;
    Tree tree_;
};

}  // namespace tavik::test
