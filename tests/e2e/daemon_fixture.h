// A real tavikd for end-to-end tests.
//
// The built binary is copied into a scratch home directory (the daemon's
// home is derived from its own path), started on a port that is free for
// both TCP and UDP, and stopped with SIGTERM. The test process makes itself
// a child subreaper, so the detached daemon is re-parented to it and its exit
// status can be collected.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace tavik::test {

// A port on which nothing listens for TCP or UDP right now.
uint16_t freePort();

struct LaunchResult {
    int status = -1;     // exit status of the launching process (-1: did not exit)
    std::string output;  // what it printed on standard output and error
};

class Daemon {
public:
    Daemon();
    ~Daemon();
    Daemon(const Daemon&) = delete;
    Daemon& operator=(const Daemon&) = delete;

    // Starts the daemon with `args` (a "-p PORT" is added unless args hold
    // "-p"); environment additions in `env`. True when the launcher exited 0
    // and the pid file names a live daemon.
    bool start(const std::vector<std::string>& args = {"-v"}, const std::map<std::string, std::string>& env = {});
    // Runs the copied binary once more with `args` and waits for the
    // launching process (for tests of start-up failures).
    LaunchResult launch(const std::vector<std::string>& args, const std::map<std::string, std::string>& env = {});

    // SIGTERM, then waits for the daemon; returns its exit status (-1 if it
    // had to be killed).
    int stop();

    const std::string& home() const { return home_; }  // ends in "/"
    std::string logPath() const { return home_ + "LOG/tvk.log"; }
    std::string pidPath() const { return home_ + "LOG/tavikd.pid"; }
    std::string binary() const { return home_ + "tavikd"; }
    uint16_t port() const { return port_; }
    pid_t pid() const { return pid_; }
    const LaunchResult& launcher() const { return launcher_; }

    std::string log() const;
    // Waits until the log holds `needle` (polling); false after timeoutMs.
    bool waitForLog(const std::string& needle, int timeoutMs = 5000) const;
    bool alive() const;

private:
    std::string home_;
    uint16_t port_ = 0;
    pid_t pid_ = -1;
    LaunchResult launcher_;
};

std::string readFile(const std::string& path);

}  // namespace tavik::test
