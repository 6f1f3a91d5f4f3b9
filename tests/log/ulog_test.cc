#include "log/ulog.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <fstream>
#include <string>

#include "daemon/scratch_home.h"
#include "daemon/state.h"
#include "platform/plain_file.h"

namespace {

using tavik::testing::readFile;

class UlogTest : public ::testing::Test {
protected:
    const std::string& log() const { return tavik::paths().logPath; }
    tavik::testing::ScratchHome home_;
};

TEST_F(UlogTest, LineHasDatePidAndMessage) {
    ASSERT_EQ(tavik::ulog(MSG_FAILED_CREATE, "(cleanup) ", "/x", "No such file"), 0);
    std::string text = readFile(log());
    int mon, day, year, hour, min, sec, pid, consumed = 0;
    ASSERT_EQ(sscanf(text.c_str(), "%2d/%2d/%3d %2d:%2d:%2d(%d) - %n", &mon, &day, &year, &hour, &min, &sec, &pid,
                     &consumed),
              7)
        << text;
    EXPECT_EQ(text.substr(0, 9).find_first_not_of("0123456789/ "), std::string::npos) << "two-digit fields";
    EXPECT_GE(year, 100) << "years from 2000 on have three digits";
    EXPECT_EQ(pid, getpid());
    EXPECT_EQ(text.substr(size_t(consumed)), "(cleanup) Failed to create /x (No such file)\n");
}

TEST_F(UlogTest, PreformattedPercentIsWrittenUnchanged) {
    tavik::ulogText("100% of %s done");
    EXPECT_NE(readFile(log()).find(" - 100% of %s done\n"), std::string::npos);
}

TEST_F(UlogTest, LongMessageIsCutNotOverflowed) {
    std::string huge(10000, 'x');
    tavik::ulog("%s", huge.c_str());
    std::string text = readFile(log());
    EXPECT_LT(text.size(), tavik::kLogBufferSize);
    EXPECT_EQ(text.back(), '\n');
}

TEST_F(UlogTest, RotatesOnlyAbove102400Bytes) {
    // Fill the log so that one more line of known length lands exactly on the limit.
    tavik::ulog("probe");
    const size_t lineLen = readFile(log()).size();  // every "probe" line has this length
    {
        std::ofstream out(log(), std::ios::binary | std::ios::trunc);
        out << std::string(tavik::kLogRotateSize - lineLen, 'a');
    }
    tavik::ulog("probe");
    ASSERT_EQ(readFile(log()).size(), size_t(tavik::kLogRotateSize)) << "exactly at the limit: not rotated";
    EXPECT_EQ(access(tavik::paths().oldLogPath.c_str(), F_OK), -1);

    tavik::ulog("crossing");
    EXPECT_EQ(readFile(log()).size(), 0u) << "the new log begins empty";
    std::string old = readFile(tavik::paths().oldLogPath);
    EXPECT_EQ(old.size(), size_t(tavik::kLogRotateSize) + lineLen + 3);
    EXPECT_NE(old.rfind(" - crossing\n"), std::string::npos) << "the crossing line ends the old log";
    tavik::ulog("after");
    EXPECT_NE(readFile(log()).find(" - after\n"), std::string::npos);
}

TEST_F(UlogTest, UnopenableLogFallsBackToStandardOutput) {
    tavik::paths().deriveFrom(home_.dir() + "/missing/");
    testing::internal::CaptureStdout();
    EXPECT_EQ(tavik::ulog("hello %d%s", 7, "\nforged"), 0);
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(out.rfind("(ulog) Faied to open " + log() + " (No such file or directory)\n", 0), 0u) << out;
    EXPECT_NE(out.find(" - hello 7\\012forged\n"), std::string::npos) << out;
}

// What reaches the file after the date and pid: control characters from any
// caller are escaped; only a newline ending the format itself stays.
TEST_F(UlogTest, ControlCharactersAreEscapedSoNoLineCanBeForged) {
    struct Row {
        const char* format;  // takes a prefix and a text
        const char* text;
        std::string written;
    };
    const Row rows[] = {
        {"%s%s", "x\nEVIL::0:0::/:/bin/sh\n", "x\\012EVIL::0:0::/:/bin/sh\\012\n"},
        {"%s%s", "a\rb\x7f""c\td\x01", "a\\015b\\177c\\011d\\001\n"},
        {"%s%s", "caf\xc3\xa9 \xff", "caf\xc3\xa9 \xff\n"},
        {MSG_STACK_OVERFLOW, "a\nb\n", "Stack overflow (a\\012b\\012)\n\n"},
        {MSG_CANNOT_RECEIVE_DISCONNECT_FROM, "h\nost\n", "Cannot Receive disconnect from h\\012ost\\012\n\n"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.written);
        std::ofstream(log(), std::ios::trunc);
        tavik::ulog(row.format, "", row.text);
        std::string text = readFile(log());
        size_t dash = text.find(") - ");
        ASSERT_NE(dash, std::string::npos) << text;
        EXPECT_EQ(text.substr(dash + 4), row.written);
    }
    std::ofstream(log(), std::ios::trunc);
    tavik::ulogText("text\n");
    EXPECT_NE(readFile(log()).find(" - text\\012\n"), std::string::npos) << "a finished text keeps no newline";

    // A message of newlines only: escaped it is cut, still one line.
    std::ofstream(log(), std::ios::trunc);
    tavik::ulog("%s\n", std::string(1000, '\n').c_str());
    std::string text = readFile(log());
    EXPECT_EQ(text.size(), tavik::kLogBufferSize - 1);
    EXPECT_EQ(text.find('\n'), text.size() - 1);
    EXPECT_NE(text.find(" - \\012\\012\\012"), std::string::npos);
}

// A name in LOG/ that a login replaced with a link to another file: the line
// (or the rotation) fails and the other file keeps its bytes.
TEST_F(UlogTest, PlantedLinkIsNotWrittenThrough) {
    const std::string secret = home_.dir() + "/secret";
    for (const std::string& planted : {log(), tavik::paths().oldLogPath}) {
        SCOPED_TRACE(planted);
        std::ofstream(secret) << "secret\n";
        unlink(log().c_str());
        unlink(tavik::paths().oldLogPath.c_str());
        if (planted == tavik::paths().oldLogPath) std::ofstream(log()) << std::string(tavik::kLogRotateSize, 'a');
        ASSERT_EQ(symlink(secret.c_str(), planted.c_str()), 0);
        testing::internal::CaptureStdout();
        tavik::ulog("line");
        std::string out = testing::internal::GetCapturedStdout();
        EXPECT_EQ(out.rfind("(ulog) Faied to open " + planted + " (Too many levels of symbolic links)", 0), 0u)
            << out;
        EXPECT_EQ(readFile(secret), "secret\n");
    }
}

// The open of a file in LOG/: only a regular file with one link, whatever
// the flags; nothing else is emptied, and a FIFO does not hold the caller.
TEST_F(UlogTest, PlainFileOpenRefusesWhatIsNotAPlainFile) {
    const std::string dir = home_.dir() + "/";
    std::ofstream(dir + "plain") << "data";
    std::ofstream(dir + "target") << "data";
    ASSERT_EQ(symlink("target", (dir + "link").c_str()), 0);
    ASSERT_EQ(mkfifo((dir + "fifo").c_str(), 0666), 0);
    std::ofstream(dir + "linked") << "data";
    ASSERT_EQ(link((dir + "linked").c_str(), (dir + "linked2").c_str()), 0);
    mkdir((dir + "dir").c_str(), 0755);
    struct Row {
        const char* name;
        int flags;
        int error;             // 0: opened
        const char* contents;  // of the name (through a link) afterwards
        bool created = false;
    };
    const int kWrite = O_WRONLY | O_CREAT | O_TRUNC;
    const Row rows[] = {
        {"plain", O_RDONLY, 0, "data"},
        {"plain", kWrite, 0, ""},
        {"link", kWrite, ELOOP, "data"},
        {"fifo", O_RDONLY, EINVAL, ""},
        {"fifo", O_RDWR | O_CREAT | O_TRUNC, EINVAL, ""},
        {"linked", kWrite, EMLINK, "data"},
        {"dir", O_RDONLY, EISDIR, ""},
        {"dir", kWrite, EISDIR, ""},
        {"new", kWrite, 0, "", true},
        {"new", kWrite | O_EXCL, EEXIST, ""},
        {"missing", O_WRONLY, ENOENT, ""},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        bool created = !row.created;
        errno = 0;
        auto fd = tavik::platform::openPlainFile((dir + row.name).c_str(), row.flags, 0600, &created);
        EXPECT_EQ(fd.valid() ? 0 : errno, row.error) << strerror(errno);
        EXPECT_EQ(created, row.created);
        if (std::string(row.name) != "fifo") {
            EXPECT_EQ(readFile(dir + row.name), row.contents);
        }
    }
}

TEST(LogDate, ThreeDigitYearFrom2000) {
    setenv("TZ", "UTC", 1);
    tzset();
    // 7 June 2026 14:05:09 UTC and 7 June 1996 14:05:09 UTC.
    EXPECT_STREQ(tavik::formatLogDate(1780841109).c_str(), "06/07/126 14:05:09");
    EXPECT_STREQ(tavik::formatLogDate(834156309).c_str(), "06/07/96 14:05:09");
}

TEST_F(UlogTest, CopyFileReportsWhichSideFailed) {
    const std::string from = home_.dir() + "/from", to = home_.dir() + "/to";
    EXPECT_EQ(tavik::copyFile("/nonexistent/a", to.c_str(), O_WRONLY | O_CREAT, 0666), -1);
    EXPECT_EQ(tavik::copyFile("/etc/hostname", "/nonexistent/b", O_WRONLY | O_CREAT, 0666), -2);
    std::ofstream(from) << std::string(5000, 'q');
    EXPECT_EQ(tavik::copyFile(from.c_str(), to.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0666), 0);
    EXPECT_EQ(readFile(to), std::string(5000, 'q'));
}

TEST(MessageTable, HoldsTheFormatsInTableOrder) {
    EXPECT_EQ(tavik::kMessageCount, 197);
    EXPECT_STREQ(tavik::logMessage(1), "Tavik stopped");
    EXPECT_STREQ(tavik::logMessage(6), "%sFaied to open %s (%s)");
    EXPECT_STREQ(tavik::logMessage(155), "Tavik v%d.%d%c %sstarted on %s (%s %s %s %s)");
    EXPECT_STREQ(tavik::logMessage(185), "Usage:\n  %s [options]\n");
    EXPECT_STREQ(tavik::logMessage(197), "Dec");
    EXPECT_EQ(tavik::logMessage(0), nullptr);
    EXPECT_EQ(tavik::logMessage(198), nullptr);
}

}  // namespace
