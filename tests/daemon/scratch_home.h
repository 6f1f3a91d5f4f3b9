// Test support: a scratch home directory with its LOG folder, made the
// agent's paths() for the test's lifetime, and a reader for its log; socket
// pairs and bounded reads for the network tests.
#pragma once

#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "daemon/state.h"
#include "scratch_base.h"

namespace tavik::testing {

// The file's bytes; empty for what cannot be read (a directory, say).
inline std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

// The agent log's messages, without their date and process id.
inline std::vector<std::string> logMessages() {
    std::istringstream in(readFile(paths().logPath));
    std::vector<std::string> messages;
    for (std::string line; std::getline(in, line);) {
        const size_t dash = line.find(") - ");
        messages.push_back(dash == std::string::npos ? line : line.substr(dash + 4));
    }
    return messages;
}

class ScratchHome {
public:
    ScratchHome() {
        std::string tmpl = std::string(scratchBase()) + "/tavik-job-XXXXXX";
        if (::mkdtemp(tmpl.data())) dir_ = tmpl;
        ::chmod(dir_.c_str(), 0755);
        paths().deriveFrom(dir_ + "/");
        publishSettings();
        ::mkdir(paths().logDir.c_str(), 0777);
    }
    ~ScratchHome() {
        if (!dir_.empty()) std::system(("rm -rf '" + dir_ + "'").c_str());
    }
    ScratchHome(const ScratchHome&) = delete;
    ScratchHome& operator=(const ScratchHome&) = delete;

    const std::string& dir() const { return dir_; }
    std::string log() const { return readFile(paths().logPath); }
    bool logHas(const std::string& text) const { return log().find(text) != std::string::npos; }

private:
    std::string dir_;
};

// A connected pair of stream sockets; both ends closed on destruction.
struct SocketPair {
    int agent = -1;
    int server = -1;
    SocketPair() {
        int fds[2];
        if (::socketpair(AF_UNIX, SOCK_STREAM, 0, fds) == 0) {
            agent = fds[0];
            server = fds[1];
        }
    }
    ~SocketPair() {
        closeAgent();
        closeServer();
    }
    void closeAgent() {
        if (agent >= 0) ::close(agent);
        agent = -1;
    }
    void closeServer() {
        if (server >= 0) ::close(server);
        server = -1;
    }
};

// Waits for the child `pid`: its exit status, or -1 when it did not exit.
inline int exitStatusOf(pid_t pid) {
    int status = 0;
    if (::waitpid(pid, &status, 0) != pid) return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Reads exactly n bytes, waiting at most five seconds for each part; false
// on time-out or end of stream.
inline bool recvWithin(int fd, uint8_t* out, size_t n) {
    for (size_t got = 0; got < n;) {
        pollfd p{fd, POLLIN, 0};
        ssize_t r = ::poll(&p, 1, 5000) == 1 ? ::recv(fd, out + got, n - got, 0) : -1;
        if (r <= 0) return false;
        got += size_t(r);
    }
    return true;
}

}  // namespace tavik::testing
