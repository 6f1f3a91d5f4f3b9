// Runs the built tavikctl with a command line and collects its exit status,
// standard output and standard error (the password comes from
// TAVIK_PASSWORD; agents in single-user mode do not check it).
#pragma once

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "e2e/daemon_fixture.h"

namespace tavik::test {

struct Output {
    int status = -1;
    std::string out;
    std::string err;
};

inline Output tavikctl(const std::string& args, const std::string& password = "unused") {
    Output o;
    char errPath[] = "/tmp/tavik-e2e-err-XXXXXX";
    int fd = mkstemp(errPath);
    if (fd < 0) return o;
    close(fd);
    std::string command = "TAVIK_PASSWORD='" + password + "' " + TAVIKCTL_PATH + " " + args + " 2>" + errPath;
    FILE* p = popen(command.c_str(), "r");
    if (!p) return o;
    char buf[65536];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, p)) > 0) o.out.append(buf, n);
    int status = pclose(p);
    o.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    o.err = readFile(errPath);
    unlink(errPath);
    return o;
}

}  // namespace tavik::test
