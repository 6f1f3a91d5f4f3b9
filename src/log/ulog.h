// ulog: the one writer of the agent's log.
//
// Every process of the agent appends its lines to the log file that the
// daemon names once at start-up (configureLog), with ulog(); each call opens,
// appends one line with a single write and closes, so processes never share
// an open log. A log that grows past kLogRotateSize bytes is copied to the
// old log's file and emptied. When the log cannot be
// opened or written the line goes to standard output instead; no failure of
// the log ever ends a process. Messages are formatted with bounds: a message
// longer than kLogMessageMax characters is cut. Control characters in the
// formatted message (newline, carriage return, DEL, ...) are written as a
// backslash and three octal digits ("\012"), so that no text from a caller
// can start a line of its own; only a newline that ends the format itself
// stays. Bytes from 0x80 up are written as they are. The files of LOG/ are
// opened with platform::openPlainFile: never through a link.
#pragma once

#include <sys/types.h>

#include <cstdarg>
#include <ctime>
#include <string>

#include "log/messages.h"

namespace tavik {

inline constexpr long kLogRotateSize = 102400;
inline constexpr size_t kLogBufferSize = 2048;
inline constexpr size_t kLogMessageMax = kLogBufferSize - 1;

// Where the log goes and whether the extra lines of the -v option are
// written. The daemon fixes them at start-up, before it forks; every job
// process inherits them.
struct LogSettings {
    std::string logPath;     // LOG/tvk.log of the agent's home
    std::string oldLogPath;  // where a full log is copied before it is emptied
    bool verbose = false;
};
void configureLog(LogSettings settings);
const LogSettings& logSettings();
// Whether the verbose lines are logged (the -v option).
inline bool logVerbose() { return logSettings().verbose; }

// Appends "<date>(<pid>) - <message>\n". Returns 0 when the line was written
// or sent to standard output because the log could not be opened, -1 when
// writing or rotation failed. Callers need not test it.
int ulog(const char* format, ...) __attribute__((format(printf, 1, 2)));
int vulog(const char* format, va_list args) __attribute__((format(printf, 1, 0)));
// Writes a finished text as it is (a "%" in it stays a "%"), every control
// character in it escaped.
int ulogText(const char* text);

// The verbose traces that go to standard output instead of the log (a line
// per entry of a restore or compare): printed and flushed only when
// `verbose` is on.
void traceStdout(bool verbose, const char* format, ...) __attribute__((format(printf, 2, 3)));

// "MM/DD/YY hh:mm:ss" of local time, the year counted from 1900 (three
// digits from 2000 on), by value: two of them can stand in one call.
struct LogDate {
    char text[48];
    const char* c_str() const { return text; }
};
LogDate formatLogDate(time_t when);

// Copies source to destination in 2048-byte reads. Returns 0, or -1 (source
// cannot be opened), -2 (destination cannot be opened), -3 (read failed),
// -4 (write failed). Both descriptors are closed on every path. Both files
// are opened with platform::openPlainFile (`openFlags` may hold O_CREAT,
// O_TRUNC, O_APPEND): a link, FIFO or directory fails the open.
int copyFile(const char* source, const char* destination, int openFlags, mode_t mode);

// A state the code rules out has come about (never bad input, which is
// answered and logged): logs "Internal error in <where>: <what>" and aborts,
// leaving a core for the developer.
[[noreturn]] void invariantBroken(const char* where, const char* what);

// The C library's text for the current errno.
const char* errText();

}  // namespace tavik
