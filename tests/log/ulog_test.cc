// The log line's exact form, its bounds and rotation, the escaping that
// keeps caller text from forging a line, and the refusal to write through
// anything in LOG/ that is not a plain file. A planted tvk.log link, newline
// forging by a login name and the fallback to standard output are attacked
// on the real daemon by SecurityTest.LinksPlantedInLogAreNotWrittenThrough
// and SecurityTest.CallerTextCannotStartALogLine.
#include "log/ulog.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <fstream>
#include <string>

#include "daemon/scratch_home.h"
#include "platform/plain_file.h"

namespace {

using tavik::testing::readFile;

class UlogTest : public ::testing::Test {
protected:
    const std::string& log() const { return tavik::paths().logPath; }
    // What the one line in the log says after its date and pid.
    std::string message() const {
        std::string text = readFile(log());
        size_t dash = text.find(") - ");
        return dash == std::string::npos ? "no line: " + text : text.substr(dash + 4);
    }
    tavik::testing::ScratchHome home_;
};

TEST_F(UlogTest, LineHasDatePidAndMessage) {
    setenv("TZ", "UTC", 1);
    tzset();
    EXPECT_STREQ(tavik::formatLogDate(1780841109).c_str(), "06/07/126 14:05:09");
    EXPECT_STREQ(tavik::formatLogDate(834156309).c_str(), "06/07/96 14:05:09");
    // The line in full: the date of its writing (the second may turn while
    // it is written), the pid and the message.
    const time_t before = time(nullptr);
    ASSERT_EQ(tavik::ulog(MSG_FAILED_CREATE, "(cleanup) ", "/x", "No such file"), 0);
    const std::string rest = "(" + std::to_string(getpid()) + ") - (cleanup) Failed to create /x (No such file)\n";
    const std::string text = readFile(log());
    EXPECT_TRUE(text == tavik::formatLogDate(before).c_str() + rest ||
                text == tavik::formatLogDate(time(nullptr)).c_str() + rest)
        << text;
}

TEST_F(UlogTest, RotatesOnlyAbove102400Bytes) {
    // Fill the log so that one more line of known length lands exactly on the limit.
    tavik::ulog("probe");
    const size_t lineLen = readFile(log()).size();
    std::ofstream(log(), std::ios::binary | std::ios::trunc) << std::string(tavik::kLogRotateSize - lineLen, 'a');
    tavik::ulog("probe");
    ASSERT_EQ(readFile(log()).size(), size_t(tavik::kLogRotateSize)) << "exactly at the limit: not rotated";
    EXPECT_EQ(access(tavik::paths().oldLogPath.c_str(), F_OK), -1);
    tavik::ulog("crossing");
    EXPECT_EQ(readFile(log()).size(), 0u) << "the new log begins empty";
    std::string old = readFile(tavik::paths().oldLogPath);
    EXPECT_EQ(old.size(), size_t(tavik::kLogRotateSize) + lineLen + 3);
    EXPECT_NE(old.rfind(" - crossing\n"), std::string::npos) << "the crossing line ends the old log";
}

// Control characters from any caller are escaped; only a newline ending the
// format itself stays; percent signs of a finished text are kept; a message
// too long for the buffer is cut, still one line.
TEST_F(UlogTest, ControlCharactersAreEscapedSoNoLineCanBeForged) {
    const struct {
        const char* format;  // takes a prefix and a text
        std::string text, written;
    } rows[] = {
        {"%s%s", "a\rb\x7f""c\td\x01\n", "a\\015b\\177c\\011d\\001\\012\n"},
        {"%s%s", "caf\xc3\xa9 \xff", "caf\xc3\xa9 \xff\n"},
        {MSG_STACK_OVERFLOW, "a\nb\n", "Stack overflow (a\\012b\\012)\n\n"},
    };
    for (const auto& row : rows) {
        std::ofstream(log(), std::ios::trunc);
        tavik::ulog(row.format, "", row.text.c_str());
        EXPECT_EQ(message(), row.written);
    }
    std::ofstream(log(), std::ios::trunc);
    tavik::ulog("%s\n", std::string(1000, '\n').c_str());
    std::string text = readFile(log());
    EXPECT_EQ(text.size(), tavik::kLogBufferSize - 1);
    EXPECT_EQ(text.find('\n'), text.size() - 1);
    EXPECT_NE(text.find(" - \\012\\012\\012"), std::string::npos);
    for (auto [finished, written] : {std::pair{"text\n", "text\\012\n"}, {"100% of %s done", "100% of %s done\n"}}) {
        std::ofstream(log(), std::ios::trunc);
        tavik::ulogText(finished);
        EXPECT_EQ(message(), written);
    }
}

// A name in LOG/ that a login replaced with a link to another file: the
// rotation fails and the other file keeps its bytes.
TEST_F(UlogTest, PlantedLinkIsNotWrittenThrough) {
    const std::string secret = home_.dir() + "/secret", old = tavik::paths().oldLogPath;
    std::ofstream(secret) << "secret\n";
    std::ofstream(log()) << std::string(tavik::kLogRotateSize, 'a');
    ASSERT_EQ(symlink(secret.c_str(), old.c_str()), 0);
    testing::internal::CaptureStdout();
    tavik::ulog("line");
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(out.rfind("(ulog) Faied to open " + old + " (Too many levels of symbolic links)", 0), 0u) << out;
    EXPECT_EQ(readFile(secret), "secret\n");
}

// The open of a file in LOG/: only a regular file with one link, whatever
// the flags; nothing else is emptied, and a FIFO does not hold the caller.
TEST_F(UlogTest, PlainFileOpenRefusesWhatIsNotAPlainFile) {
    const std::string dir = home_.dir() + "/";
    for (const char* name : {"plain", "target", "linked"}) std::ofstream(dir + name) << "data";
    ASSERT_EQ(symlink("target", (dir + "link").c_str()), 0);
    ASSERT_EQ(mkfifo((dir + "fifo").c_str(), 0666), 0);
    ASSERT_EQ(link((dir + "linked").c_str(), (dir + "linked2").c_str()), 0);
    mkdir((dir + "dir").c_str(), 0755);
    const int kWrite = O_WRONLY | O_CREAT | O_TRUNC;
    const struct {
        const char* name;
        int flags;
        int error;             // 0: opened
        const char* contents;  // of the name (through a link) afterwards
        bool created = false;
    } rows[] = {
        {"plain", kWrite, 0, ""},
        {"link", kWrite, ELOOP, "data"},
        {"fifo", O_RDONLY, EINVAL, ""},
        {"fifo", O_RDWR | O_CREAT | O_TRUNC, EINVAL, ""},
        {"linked", kWrite, EMLINK, "data"},
        {"dir", kWrite, EISDIR, ""},
        {"new", kWrite, 0, "", true},
    };
    for (const auto& row : rows) {
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

}  // namespace
