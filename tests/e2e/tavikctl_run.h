// Runs the built tavikctl with a command line and collects its exit status,
// standard output and standard error (the password comes from
// TAVIK_PASSWORD; agents in single-user mode do not check it); and the two
// checks made of every run: its exit status with a part of what it said on
// standard error, or with the whole of its standard output.
#pragma once

#include <gtest/gtest.h>

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

// The run ended with `status` and `part` is in its standard error.
inline ::testing::AssertionResult exited(const Output& run, int status, const std::string& part = "") {
    if (run.status == status && has(run.err, part)) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "exit status " << run.status << ", expected " << status
                                         << (part.empty() ? "" : " with \"" + part + "\" on standard error")
                                         << "\nstandard output:\n" << run.out << "standard error:\n" << run.err;
}

// The run ended with `status` and its standard output is exactly `out`.
inline ::testing::AssertionResult printed(const Output& run, int status, const std::string& out) {
    if (run.status == status && run.out == out) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "exit status " << run.status << ", expected " << status
                                         << "\nstandard output:\n" << run.out << "expected:\n" << out
                                         << "standard error:\n" << run.err;
}

}  // namespace tavik::test
