// Runs the built tavikctl with a command line and collects its exit status,
// standard output and standard error (the password comes from
// TAVIK_PASSWORD; agents in single-user mode do not check it).
#pragma once

#include "e2e/daemon_fixture.h"

#ifndef TAVIKCTL_PATH
#error "TAVIKCTL_PATH must name the built tavikctl"
#endif

namespace tavik::test {

struct Output {
    int status = -1;
    std::string out;
    std::string err;
};

inline Output tavikctl(const std::string& args, const std::string& password = "unused") {
    Tree scratch;
    std::string command = "TAVIK_PASSWORD='" + password + "' " TAVIKCTL_PATH " " + args + " >" + scratch.path("out") +
                          " 2>" + scratch.path("err");
    int status = std::system(command.c_str());
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, readFile(scratch.path("out")), readFile(scratch.path("err"))};
}

}  // namespace tavik::test
