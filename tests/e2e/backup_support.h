// Shared pieces of the backup end-to-end tests: a scratch tree, a job set-up
// that drives the command phase with the front-end's job client and hands
// the connection to a stream reader, and the check that a job left no IPC
// object and no live registry line behind.
#pragma once

#include <dirent.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <array>
#include <fstream>
#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "e2e/backup_stream_reader.h"
#include "e2e/daemon_fixture.h"
#include "frontend/job_client.h"
#include "wire/bytes.h"

namespace tavik::test {

class Tree {
public:
    Tree() {
        char tmpl[] = "/tmp/tavik-e2e-tree-XXXXXX";
        if (mkdtemp(tmpl)) root_ = tmpl;
        chmod(root_.c_str(), 0755);
    }
    ~Tree() { std::system(("rm -rf '" + root_ + "'").c_str()); }
    // The root with its final "/".
    std::string root() const { return root_ + "/"; }
    std::string path(const std::string& rel) const { return root_ + "/" + rel; }
    void file(const std::string& rel, const std::string& data, mode_t mode = 0644) const {
        std::ofstream(path(rel), std::ios::binary) << data;
        chmod(path(rel).c_str(), mode);
    }
    void dir(const std::string& rel, mode_t mode = 0755) const {
        mkdir(path(rel).c_str(), mode);
        chmod(path(rel).c_str(), mode);
    }
    // The names of a directory in readdir order.
    std::vector<std::string> order(const std::string& rel = "") const {
        std::vector<std::string> names;
        DIR* d = opendir(rel.empty() ? root_.c_str() : path(rel).c_str());
        while (dirent* e = d ? readdir(d) : nullptr) {
            std::string n = e->d_name;
            if (n != "." && n != "..") names.push_back(n);
        }
        if (d) closedir(d);
        return names;
    }

private:
    std::string root_;
};

inline std::string pattern(size_t n, unsigned seed = 1) {
    std::string s(n, '\0');
    for (size_t i = 0; i < n; ++i) s[i] = char((i * 131 + seed * 7 + i / 251) & 0xFF);
    return s;
}

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
        std::array<uint8_t, 512> options{};
        wire::storeLe16(options.data(), s.retryCount);
        wire::storeLe16(options.data() + 2, s.retryInterval);
        options[4] = s.flags;
        EXPECT_TRUE(client.sendRaw(options));
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

inline size_t countOf(const std::string& text, const std::string& needle) {
    size_t n = 0;
    for (size_t at = text.find(needle); at != std::string::npos; at = text.find(needle, at + 1)) ++n;
    return n;
}

inline std::vector<std::string> slice(const std::vector<std::string>& v, size_t from, size_t n) {
    if (from >= v.size()) return {};
    return std::vector<std::string>(v.begin() + long(from), v.begin() + long(std::min(v.size(), from + n)));
}

}  // namespace tavik::test
