#include "log/ulog.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <fstream>
#include <string>

#include "daemon/scratch_home.h"
#include "daemon/state.h"

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
    EXPECT_EQ(tavik::ulog("hello %d", 7), 0);
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(out.rfind("(ulog) Faied to open " + log() + " (No such file or directory)\n", 0), 0u) << out;
    EXPECT_NE(out.find(" - hello 7\n"), std::string::npos);
}

TEST(LogDate, ThreeDigitYearFrom2000) {
    setenv("TZ", "UTC", 1);
    tzset();
    // 7 June 2026 14:05:09 UTC and 7 June 1996 14:05:09 UTC.
    EXPECT_STREQ(tavik::formatLogDate(1780841109), "06/07/126 14:05:09");
    EXPECT_STREQ(tavik::formatLogDate(834156309), "06/07/96 14:05:09");
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
