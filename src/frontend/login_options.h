// The login options every tavikctl job command takes: --user NAME (default:
// the invoking user's name), --port N, --server-version N (49..52, default
// the newest, 52). The password never comes from the command line: it is
// read from the environment variable TAVIK_PASSWORD, or else prompted for on
// the terminal without echo.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "frontend/job_client.h"

namespace tavik::frontend {

struct LoginOptions {
    std::string user;
    std::string password;
    uint16_t port = 6050;
    int serverVersion = 52;
};

// Takes the login options out of `args` (the other arguments stay, in
// order). False with `error` set on a bad or incomplete option.
bool parseLoginOptions(std::vector<std::string>& args, LoginOptions& out, std::string& error);

// Fills out.password from TAVIK_PASSWORD or a prompt without echo.
bool readPassword(LoginOptions& out, std::string& error);

// The request fields every job fills alike from the login options.
RequestFields loginRequest(const LoginOptions& login, const std::string& root, uint8_t opMode = 0);

}  // namespace tavik::frontend
