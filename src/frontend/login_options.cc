#include "frontend/login_options.h"

#include <fcntl.h>
#include <pwd.h>
#include <termios.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "platform/secret.h"
#include "protocol/request.h"

namespace tavik::frontend {
namespace {

bool parseNumber(const std::string& text, long low, long high, long& out) {
    if (text.empty() || text.size() > 6) return false;
    for (char c : text)
        if (c < '0' || c > '9') return false;
    out = std::atol(text.c_str());
    return out >= low && out <= high;
}

}  // namespace

bool parseLoginOptions(std::vector<std::string>& args, LoginOptions& out, std::string& error) {
    std::vector<std::string> rest;
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string& a = args[i];
        bool takesValue = a == "--user" || a == "--port" || a == "--server-version";
        if (a == "--password") {
            error = "the password is read from TAVIK_PASSWORD or asked for, never given on the command line";
            return false;
        }
        if (!takesValue) {
            rest.push_back(a);
            continue;
        }
        if (i + 1 >= args.size()) {
            error = a + " needs a value";
            return false;
        }
        const std::string& v = args[++i];
        long n = 0;
        if (a == "--user") {
            if (v.empty()) {
                error = "--user needs a name";
                return false;
            }
            out.user = v;
        } else if (a == "--port") {
            if (!parseNumber(v, 1, 65535, n)) {
                error = "--port must be a number in 1..65535";
                return false;
            }
            out.port = static_cast<uint16_t>(n);
        } else {
            if (!parseNumber(v, 49, 52, n)) {
                error = "--server-version must be 49, 50, 51 or 52";
                return false;
            }
            out.serverVersion = static_cast<int>(n);
        }
    }
    if (out.user.empty()) {
        const passwd* pw = ::getpwuid(::getuid());
        if (!pw) {
            error = "cannot tell the invoking user's name; give --user";
            return false;
        }
        out.user = pw->pw_name;
    }
    args = std::move(rest);
    return true;
}

bool readPassword(LoginOptions& out, std::string& error) {
    if (const char* env = std::getenv("TAVIK_PASSWORD")) {
        out.password = env;
        return true;
    }
    int tty = ::open("/dev/tty", O_RDWR | O_NOCTTY);
    if (tty < 0) {
        error = "no terminal to ask for the password; set TAVIK_PASSWORD";
        return false;
    }
    termios saved{};
    bool restore = ::tcgetattr(tty, &saved) == 0;
    if (restore) {
        termios quiet = saved;
        quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        ::tcsetattr(tty, TCSAFLUSH, &quiet);
    }
    const char prompt[] = "Password: ";
    if (::write(tty, prompt, sizeof prompt - 1) < 0) {
        // The prompt is a courtesy; reading goes on.
    }
    std::string line;
    char c;
    while (::read(tty, &c, 1) == 1 && c != '\n') line.push_back(c);
    if (restore) ::tcsetattr(tty, TCSAFLUSH, &saved);
    if (::write(tty, "\n", 1) < 0) {
        // As above.
    }
    ::close(tty);
    out.password = std::move(line);
    return true;
}

RequestFields loginRequest(const LoginOptions& login, const std::string& root, uint8_t opMode) {
    RequestFields fields;
    fields.root = root;
    fields.login = login.user;
    fields.password = login.password;
    fields.opMode = opMode;
    fields.serverVersion = login.serverVersion;
    return fields;
}

}  // namespace tavik::frontend
