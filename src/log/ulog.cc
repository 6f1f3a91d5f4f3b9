#include "log/ulog.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "platform/fd.h"
#include "platform/plain_file.h"
#include "platform/whole_io.h"

namespace tavik {
namespace {

constexpr const char* kPrefix = "(ulog) ";

// The log's files and verbosity: written once at start-up, then only read.
LogSettings gLog;

int rotate() {
    const LogSettings& p = gLog;
    int rc = copyFile(p.logPath.c_str(), p.oldLogPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0666);
    if (rc != 0) {
        switch (rc) {
        case -1: printf(MSG_FAIED_OPEN, kPrefix, p.logPath.c_str(), errText()); break;
        case -2: printf(MSG_FAIED_OPEN, kPrefix, p.oldLogPath.c_str(), errText()); break;
        case -3: printf(MSG_FAILED_READING, kPrefix, p.logPath.c_str(), errText()); break;
        default: printf(MSG_FAILED_WRITING, kPrefix, p.oldLogPath.c_str(), errText()); break;
        }
        fflush(stdout);
        return -1;
    }
    platform::UniqueFd emptied = platform::openPlainFile(p.logPath.c_str(), O_WRONLY | O_TRUNC);
    if (!emptied) {
        printf(MSG_FAIED_OPEN, kPrefix, p.logPath.c_str(), errText());
        fflush(stdout);
        return -1;
    }
    return 0;
}

bool isControl(unsigned char c) { return c < 0x20 || c == 0x7f; }

// Copies `message` into `out` (kLogBufferSize bytes, NUL-terminated) with
// every control character written as a backslash and three octal digits, so
// that no text a caller passes on can end the line and forge another. A
// final newline is kept as it is when `keepFinalNewline` (the format put it
// there). An escape that does not fit whole is left out with the rest.
void escapeControls(const char* message, bool keepFinalNewline, char (&out)[kLogBufferSize]) {
    size_t used = 0;
    for (const char* at = message; *at; ++at) {
        unsigned char c = static_cast<unsigned char>(*at);
        bool kept = !isControl(c) || (keepFinalNewline && c == '\n' && at[1] == '\0');
        size_t need = kept ? 1 : 4;
        if (sizeof out - 1 - used < need) break;
        if (kept) {
            out[used++] = char(c);
        } else {
            snprintf(out + used, 5, "\\%03o", unsigned(c));
            used += 4;
        }
    }
    out[used] = '\0';
}

int writeLine(const char* message) {
    char line[kLogBufferSize];
    int len = snprintf(line, sizeof line, "%s(%d) - %s\n", formatLogDate(time(nullptr)).c_str(), int(getpid()), message);
    if (len < 0) return -1;
    if (size_t(len) >= sizeof line) {
        len = int(sizeof line) - 1;
        line[len - 1] = '\n';  // a cut line still ends the line
    }
    const LogSettings& p = gLog;
    platform::UniqueFd fd = platform::openPlainFile(p.logPath.c_str(), O_WRONLY | O_APPEND | O_CREAT, 0666);
    if (!fd) {
        printf(MSG_FAIED_OPEN, kPrefix, p.logPath.c_str(), errText());
        printf("\n%s", line);
        fflush(stdout);
        return 0;
    }
    if (!platform::writeAll(fd.get(), line, size_t(len))) {
        printf(MSG_FAILED_WRITING, kPrefix, p.logPath.c_str(), errText());
        printf("\n%s", line);
        fflush(stdout);
        return -1;
    }
    off_t size = ::lseek(fd.get(), 0, SEEK_END);
    fd.reset();
    if (size <= kLogRotateSize) return 0;
    return rotate();
}

}  // namespace

void configureLog(LogSettings settings) { gLog = std::move(settings); }
const LogSettings& logSettings() { return gLog; }

int vulog(const char* format, va_list args) {
    int savedErrno = errno;
    char message[kLogBufferSize];
    int len = vsnprintf(message, sizeof message, format, args);
    if (len < 0) message[0] = '\0';
    // Only a whole message still ends with the newline of its format.
    size_t formatLen = strlen(format);
    bool formatNewline = len >= 0 && size_t(len) < sizeof message && formatLen > 0 && format[formatLen - 1] == '\n';
    char escaped[kLogBufferSize];
    escapeControls(message, formatNewline, escaped);
    int rc = writeLine(escaped);
    errno = savedErrno;
    return rc;
}

int ulog(const char* format, ...) {
    va_list args;
    va_start(args, format);
    int rc = vulog(format, args);
    va_end(args);
    return rc;
}

int ulogText(const char* text) { return ulog("%s", text); }

void invariantBroken(const char* where, const char* what) {
    ulog("Internal error in %s: %s", where, what);
    std::abort();
}

void traceStdout(bool verbose, const char* format, ...) {
    if (!verbose) return;
    va_list args;
    va_start(args, format);
    vprintf(format, args);
    va_end(args);
    fflush(stdout);
}

LogDate formatLogDate(time_t when) {
    LogDate date{};
    struct tm tm {};
    localtime_r(&when, &tm);
    snprintf(date.text, sizeof date.text, "%02d/%02d/%02d %02d:%02d:%02d", tm.tm_mon + 1, tm.tm_mday,
             tm.tm_year, tm.tm_hour, tm.tm_min, tm.tm_sec);
    return date;
}

int copyFile(const char* source, const char* destination, int openFlags, mode_t mode) {
    platform::UniqueFd in = platform::openPlainFile(source, O_RDONLY);
    if (!in) return -1;
    platform::UniqueFd out = platform::openPlainFile(destination, openFlags, mode);
    if (!out) return -2;
    char buffer[2048];
    for (;;) {
        ssize_t n = ::read(in.get(), buffer, sizeof buffer);
        if (n < 0) {
            if (errno == EINTR) continue;
            return -3;
        }
        if (!platform::writeAll(out.get(), buffer, size_t(n))) return -4;
        if (size_t(n) < sizeof buffer) break;
    }
    return 0;
}

const char* errText() { return strerror(errno); }

}  // namespace tavik
