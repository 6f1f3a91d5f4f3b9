#include "e2e/daemon_fixture.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <thread>

#ifndef TAVIKD_PATH
#error "TAVIKD_PATH must name the built daemon"
#endif

namespace tavik::test {
namespace {

bool bindable(int type, uint16_t port) {
    int fd = socket(AF_INET, type, 0);
    if (fd < 0) return false;
    int one = 1;
    if (type == SOCK_STREAM) setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(port);
    bool ok = bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
    close(fd);
    return ok;
}

// Waits for `pid` to exit, up to timeoutMs; its status or -1.
int waitExit(pid_t pid, int timeoutMs) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
        int status;
        pid_t r = waitpid(pid, &status, WNOHANG);
        if (r == pid) return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        if (r < 0) return -1;
        if (std::chrono::steady_clock::now() > deadline) return -1;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

}  // namespace

uint16_t freePort() {
    static unsigned salt = unsigned(getpid()) * 7919u;
    for (int attempt = 0; attempt < 200; ++attempt) {
        uint16_t port = uint16_t(20000 + (salt++ % 30000));
        if (bindable(SOCK_STREAM, port) && bindable(SOCK_DGRAM, port)) return port;
    }
    return 0;
}

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

Daemon::Daemon() {
    prctl(PR_SET_CHILD_SUBREAPER, 1);
    char tmpl[] = "/tmp/tavik-e2e-XXXXXX";
    if (mkdtemp(tmpl)) {
        home_ = std::string(tmpl) + "/";
        chmod(tmpl, 0755);  // test logins must be able to pass through
        std::string copy = "cp '" TAVIKD_PATH "' '" + home_ + "tavikd'";
        if (std::system(copy.c_str()) != 0) home_.clear();
    }
}

Daemon::~Daemon() {
    if (pid_ > 0) stop();
    if (!home_.empty()) std::system(("rm -rf '" + home_ + "'").c_str());
}

LaunchResult Daemon::launch(const std::vector<std::string>& args, const std::map<std::string, std::string>& env) {
    LaunchResult result;
    std::string outPath = home_ + "launcher.out";
    pid_t child = fork();
    if (child == 0) {
        int out = open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        dup2(out, 1);
        dup2(out, 2);
        for (const auto& [k, v] : env) setenv(k.c_str(), v.c_str(), 1);
        std::vector<std::string> argv0 = {binary()};
        argv0.insert(argv0.end(), args.begin(), args.end());
        std::vector<char*> cargs;
        for (auto& a : argv0) cargs.push_back(a.data());
        cargs.push_back(nullptr);
        execv(cargs[0], cargs.data());
        _exit(127);
    }
    result.status = waitExit(child, 20000);
    result.output = readFile(outPath);
    return result;
}

bool Daemon::start(const std::vector<std::string>& args, const std::map<std::string, std::string>& env) {
    if (home_.empty()) return false;
    std::vector<std::string> all = args;
    bool hasPort = false;
    for (const auto& a : args) hasPort = hasPort || a == "-p";
    if (!hasPort) {
        port_ = freePort();
        all.push_back("-p");
        all.push_back(std::to_string(port_));
    }
    launcher_ = launch(all, env);
    if (launcher_.status != 0) return false;
    std::string pidText = readFile(pidPath());
    pid_ = pid_t(std::atoi(pidText.c_str()));
    return pid_ > 0 && alive();
}

int Daemon::stop() {
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

std::string Daemon::log() const { return readFile(logPath()); }

bool Daemon::waitForLog(const std::string& needle, size_t times) const {
    for (int waited = 0; waited < 5000; waited += 10) {
        if (countOf(log(), needle) >= times) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return countOf(log(), needle) >= times;
}

bool Daemon::alive() const {
    if (pid_ <= 0) return false;
    int status;
    return waitpid(pid_, &status, WNOHANG) == 0;
}

}  // namespace tavik::test
