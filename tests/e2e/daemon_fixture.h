// A real tavikd for end-to-end tests, and the small helpers every
// end-to-end test shares (scratch trees, file contents, times, records).
//
// The built binary is copied into a scratch home directory (the daemon's
// home is derived from its own path), started on a port that is free for
// both TCP and UDP, and stopped with SIGTERM. The test process makes itself
// a child subreaper, so the detached daemon is re-parented to it and its exit
// status can be collected.
#pragma once

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "wire/bytes.h"

#ifndef TAVIKD_PATH
#error "TAVIKD_PATH must name the built daemon"
#endif

namespace tavik::test {

inline bool has(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

// An IPv4 socket address (the loopback address unless `host` is given).
inline sockaddr_in inetAddress(uint16_t port, uint32_t host = INADDR_LOOPBACK) {
    return {.sin_family = AF_INET, .sin_port = htons(port), .sin_addr = {htonl(host)}, .sin_zero = {}};
}

inline std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

// The same bytes for the same size and seed.
inline std::string pattern(size_t n, unsigned seed = 1) {
    std::string s(n, '\0');
    for (size_t i = 0; i < n; ++i) s[i] = char((i * 131 + seed * 7 + i / 251) & 0xFF);
    return s;
}

// lstat of `path`; st_mode 0 when there is nothing.
inline struct stat statOf(const std::string& path) {
    struct stat st {};
    if (lstat(path.c_str(), &st) != 0) st.st_mode = 0;
    return st;
}

// Access and modification times of `path` itself (a link is not followed).
inline void setTimes(const std::string& path, time_t atime, time_t mtime, long atimeNsec = 0) {
    timespec t[2] = {{atime, atimeNsec}, {mtime, 0}};
    utimensat(AT_FDCWD, path.c_str(), t, AT_SYMLINK_NOFOLLOW);
}

// Writes `data` to `path`; with `mtime` its access and modification times.
inline void writeFile(const std::string& path, const std::string& data, time_t mtime = 0) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << data;
    if (mtime != 0) setTimes(path, mtime, mtime);
}

inline std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> out;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) out.push_back(line);
    return out;
}

inline size_t countOf(const std::string& text, const std::string& needle) {
    size_t n = 0;
    for (size_t at = text.find(needle); at != std::string::npos; at = text.find(needle, at + 1)) ++n;
    return n;
}

// A whole-file write lock (F_WRLCK) or read lock held through the returned
// descriptor (-1 when it could not be taken).
inline int holdLock(const std::string& path, short type = F_WRLCK) {
    int fd = open(path.c_str(), O_RDWR);
    struct flock lock {};
    lock.l_type = type;
    if (fd >= 0 && fcntl(fd, F_SETLK, &lock) != 0) {
        close(fd);
        fd = -1;
    }
    return fd;
}

// The backup options record: lock attempts, seconds between them, flags.
inline std::vector<uint8_t> optionsRecord(uint16_t attempts, uint16_t interval, uint8_t flags = 0) {
    std::vector<uint8_t> r(512, 0);
    wire::storeLe16(r.data(), attempts);
    wire::storeLe16(r.data() + 2, interval);
    r[4] = flags;
    return r;
}

// The GROOMING command's record: months, one copy, options (0x02 rotation
// set, 0x04 delete), the set name.
inline std::vector<uint8_t> groomingRecord(uint32_t options, uint16_t months = 0, const std::string& set = "") {
    std::vector<uint8_t> g(24, 0);
    wire::storeLe16(&g[0], months);
    wire::storeLe16(&g[2], 1);
    wire::storeLe32(&g[12], options);
    set.copy(reinterpret_cast<char*>(&g[16]), 8);
    return g;
}

// A scratch directory (mode 0755), removed with all it holds at the end.
class Tree {
public:
    explicit Tree(std::string tmpl = "/tmp/tavik-e2e-tree-XXXXXX") {
        if (mkdtemp(tmpl.data())) root_ = tmpl;
        chmod(root_.c_str(), 0755);
    }
    ~Tree() {
        if (!root_.empty()) std::system(("rm -rf '" + root_ + "'").c_str());
    }
    Tree(const Tree&) = delete;
    Tree& operator=(const Tree&) = delete;
    // The root with its final "/".
    std::string root() const { return root_ + "/"; }
    const std::string& dir() const { return root_; }
    std::string path(const std::string& rel) const { return root_ + "/" + rel; }
    // A file with `data`; with `mtime` its access and modification times.
    void file(const std::string& rel, const std::string& data, mode_t mode = 0644, time_t mtime = 0) const {
        writeFile(path(rel), data, mtime);
        chmod(path(rel).c_str(), mode);
    }
    void dir(const std::string& rel, mode_t mode = 0755) const {
        mkdir(path(rel).c_str(), mode);
        chmod(path(rel).c_str(), mode);
    }
    // The names of a directory in readdir order.
    std::vector<std::string> order(const std::string& rel = "") const {
        std::vector<std::string> names;
        for (const auto& e : std::filesystem::directory_iterator(path(rel))) names.push_back(e.path().filename());
        return names;
    }

private:
    std::string root_;
};

// A TCP call to `port` from the loopback address `source` (-1 when refused).
inline int callFrom(uint16_t port, const char* source = "127.0.0.1") {
    int s = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in from = inetAddress(0), to = inetAddress(port);
    inet_pton(AF_INET, source, &from.sin_addr);
    if (bind(s, reinterpret_cast<sockaddr*>(&from), sizeof from) == 0 &&
        connect(s, reinterpret_cast<sockaddr*>(&to), sizeof to) == 0)
        return s;
    close(s);
    return -1;
}

// A port on which nothing listens for TCP or UDP right now.
inline uint16_t freePort() {
    auto bindable = [](int type, uint16_t port) {
        int fd = socket(AF_INET, type, 0), one = 1;
        if (type == SOCK_STREAM) setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
        sockaddr_in addr = inetAddress(port, INADDR_ANY);
        bool ok = fd >= 0 && bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
        close(fd);
        return ok;
    };
    static unsigned salt = unsigned(getpid()) * 7919u;
    for (int attempt = 0; attempt < 200; ++attempt) {
        uint16_t port = uint16_t(20000 + (salt++ % 30000));
        if (bindable(SOCK_STREAM, port) && bindable(SOCK_DGRAM, port)) return port;
    }
    return 0;
}

// Waits for the child `pid` to exit, up to timeoutMs: its exit status (128 +
// the signal when killed), or -1.
inline int waitExit(pid_t pid, int timeoutMs) {
    for (int waited = 0; waited <= timeoutMs; waited += 5) {
        int status;
        pid_t r = waitpid(pid, &status, WNOHANG);
        if (r == pid) return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        if (r < 0) return -1;
        usleep(5000);
    }
    return -1;
}

struct LaunchResult {
    int status = -1;     // exit status of the launching process (-1: did not exit)
    std::string output;  // what it printed on standard output and error
};

class Daemon {
public:
    Daemon() : home_(dir_.root()) {
        prctl(PR_SET_CHILD_SUBREAPER, 1);
        if (std::system(("cp '" TAVIKD_PATH "' '" + binary() + "'").c_str()) != 0) home_.clear();
    }
    ~Daemon() { stop(); }
    Daemon(const Daemon&) = delete;
    Daemon& operator=(const Daemon&) = delete;

    // Starts the daemon with `args` (a "-p PORT" is added unless args hold
    // "-p") and the environment additions `env` (by default every long
    // time-out divided by 1000). True when the launcher exited 0 and the pid
    // file names a live daemon.
    bool start(const std::vector<std::string>& args = {"-v"},
               const std::map<std::string, std::string>& env = {{"TAVIK_TIME_DIVISOR", "1000"}}) {
        if (home_.empty()) return false;
        std::vector<std::string> all = args;
        if (std::find(args.begin(), args.end(), "-p") == args.end()) {
            port_ = freePort();
            all.insert(all.end(), {"-p", std::to_string(port_)});
        }
        launcher_ = launch(all, env);
        pid_ = launcher_.status == 0 ? pid_t(std::atoi(readFile(pidPath()).c_str())) : -1;
        return pid_ > 0 && alive();
    }
    // Runs the copied binary once more with `args` and waits for the
    // launching process (for tests of start-up failures).
    LaunchResult launch(const std::vector<std::string>& args, const std::map<std::string, std::string>& env = {}) {
        std::string command = "timeout 20 " + through_ + " env";
        for (const auto& [k, v] : env) command += " '" + k + "=" + v + "'";
        command += " '" + binary() + "'";
        for (const std::string& a : args) command += " '" + a + "'";
        int status = std::system((command + " >'" + home_ + "launcher.out' 2>&1").c_str());
        return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, readFile(home_ + "launcher.out")};
    }
    // Launches through `command`, shell words that end by running the words
    // after them (a mount namespace that shows the daemon other system
    // files, say).
    void runThrough(const std::string& command) { through_ = command; }
    // SIGTERM, then waits for the daemon; returns its exit status (-1 if it
    // had to be killed).
    int stop() {
        if (pid_ <= 0) return -1;
        kill(pid_, SIGTERM);
        int status = waitExit(pid_, 10000);
        if (status == -1) {
            kill(pid_, SIGKILL);
            waitExit(pid_, 5000);
        }
        pid_ = -1;
        return status;
    }

    const std::string& home() const { return home_; }  // ends in "/"
    std::string logPath() const { return home_ + "LOG/tvk.log"; }
    std::string pidPath() const { return home_ + "LOG/tavikd.pid"; }
    std::string binary() const { return home_ + "tavikd"; }
    uint16_t port() const { return port_; }
    pid_t pid() const { return pid_; }
    const LaunchResult& launcher() const { return launcher_; }
    std::string log() const { return readFile(logPath()); }
    // Waits until the log holds `needle` `times` times (polling); false
    // after 5 seconds.
    bool waitForLog(const std::string& needle, size_t times = 1) const {
        for (int waited = 0; waited < 5000; waited += 10) {
            if (countOf(log(), needle) >= times) return true;
            usleep(10000);
        }
        return countOf(log(), needle) >= times;
    }
    bool alive() const {
        int status;
        return pid_ > 0 && waitpid(pid_, &status, WNOHANG) == 0;
    }

private:
    Tree dir_;
    std::string home_;
    std::string through_;
    uint16_t port_ = 0;
    pid_t pid_ = -1;
    LaunchResult launcher_;
};

}  // namespace tavik::test
