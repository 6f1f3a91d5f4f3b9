// Test support: a scratch home directory with its LOG folder, made the
// agent's paths() for the test's lifetime, and a reader for its log.
#pragma once

#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <utility>

#include "daemon/state.h"

namespace tavik::testing {

class ScratchHome {
public:
    ScratchHome() {
        char tmpl[] = "/tmp/tavik-job-XXXXXX";
        if (::mkdtemp(tmpl)) dir_ = tmpl;
        ::chmod(dir_.c_str(), 0755);
        paths().deriveFrom(dir_ + "/");
        ::mkdir(paths().logDir.c_str(), 0777);
    }
    ~ScratchHome() {
        if (!dir_.empty()) std::system(("rm -rf '" + dir_ + "'").c_str());
    }
    ScratchHome(const ScratchHome&) = delete;
    ScratchHome& operator=(const ScratchHome&) = delete;

    const std::string& dir() const { return dir_; }
    std::string log() const {
        std::ifstream in(paths().logPath, std::ios::binary);
        std::stringstream s;
        s << in.rdbuf();
        return s.str();
    }
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

}  // namespace tavik::testing
