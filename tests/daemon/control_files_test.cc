// The protected-directory list from a real tvk.cntl: which lines count, the
// matching rules, re-reading only when the file is newer, and an unreadable
// file.
#include "daemon/control_files.h"

#include <sys/stat.h>
#include <sys/wait.h>
#include <utime.h>

#include <gtest/gtest.h>

#include <fstream>

#include "daemon/scratch_home.h"

namespace {

using namespace tavik;

class ControlFilesTest : public ::testing::Test {
protected:
    void SetUp() override { settings() = Settings{}; }
    void write(const std::string& text, time_t mtime) {
        std::ofstream(paths().cntlPath, std::ios::binary) << text;
        utimbuf t{mtime, mtime};
        ::utime(paths().cntlPath.c_str(), &t);
    }
    tavik::testing::ScratchHome home_;
    DirList list_;
};

TEST_F(ControlFilesTest, OnlyAbsoluteLinesProtectAndMatchWholeComponents) {
    settings().verbose = true;
    write("# comment\netc\n/etc\n/home/secret\n", 1000);
    ASSERT_EQ(dir_cntl(paths().cntlPath.c_str(), list_), 0);
    std::vector<std::string> names(list_.names.begin(), list_.names.end());
    EXPECT_EQ(names, (std::vector<std::string>{"/home/secret", "/etc"}));  // newest first
    EXPECT_TRUE(home_.logHas("tvk.cntl: /home/secret"));

    EXPECT_EQ(isProtected("/etc/", list_), kProtected);
    EXPECT_EQ(isProtected("/etc/default/", list_), kProtected);
    EXPECT_EQ(isProtected("/home/secret/", list_), kProtected);
    EXPECT_EQ(isProtected("/home/secret/x/y/", list_), kProtected);
    EXPECT_EQ(isProtected("/etcetera/", list_), 0);
    EXPECT_EQ(isProtected("/home/", list_), 0);
    EXPECT_EQ(isProtected("/", list_), 0);
    EXPECT_EQ(isProtected("/usr/etc/", list_), 0);
}

TEST_F(ControlFilesTest, SlashEntriesProtectNothing) {
    write("/\n/etc/\n/var/log", 1000);  // the last line has no newline
    ASSERT_EQ(dir_cntl(paths().cntlPath.c_str(), list_), 0);
    EXPECT_EQ(isProtected("/etc/", list_), 0);
    EXPECT_EQ(isProtected("/usr/", list_), 0);
    EXPECT_EQ(isProtected("/", list_), 0);
    EXPECT_EQ(isProtected("/var/log/", list_), kProtected);
    EXPECT_EQ(isProtected("/var/log", list_), kProtected);
}

TEST_F(ControlFilesTest, ReReadOnlyWhenNewer) {
    write("/a\n", 1000);
    ASSERT_EQ(dir_cntl(paths().cntlPath.c_str(), list_), 0);
    write("/b\n", 1000);  // same time: the list stays
    ASSERT_EQ(dir_cntl(paths().cntlPath.c_str(), list_), 0);
    EXPECT_EQ(list_.names.front(), "/a");
    write("/c\n", 2000);
    ASSERT_EQ(dir_cntl(paths().cntlPath.c_str(), list_), 0);
    EXPECT_EQ(list_.names.front(), "/c");

    freeDirList(list_);
    EXPECT_TRUE(list_.names.empty());
    ASSERT_EQ(dir_cntl(paths().cntlPath.c_str(), list_), 0);  // read again after freeing
    EXPECT_EQ(list_.names.front(), "/c");

    ::unlink(paths().cntlPath.c_str());
    ASSERT_EQ(dir_cntl(paths().cntlPath.c_str(), list_), 0);  // missing: nothing protected
    EXPECT_TRUE(list_.names.empty());
}

TEST_F(ControlFilesTest, LongLinesAreReadWhole) {
    std::string deep = "/" + std::string(600, 'd');
    write(deep + "\n", 1000);
    ASSERT_EQ(dir_cntl(paths().cntlPath.c_str(), list_), 0);
    EXPECT_EQ(isProtected(deep + "/sub/", list_), kProtected);
}

TEST_F(ControlFilesTest, UnreadableFileIsLogged) {
    write("/a\n", 1000);
    ::chmod(paths().cntlPath.c_str(), 0);
    ::chmod(paths().logDir.c_str(), 0777);
    pid_t child = ::fork();
    if (child == 0) {
        // Root reads any file: the test reads as an unprivileged user.
        if (::geteuid() == 0 && ::setuid(65534) != 0) _exit(2);
        DirList list;
        _exit(dir_cntl(paths().cntlPath.c_str(), list) == -1 && list.names.empty() ? 0 : 1);
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    EXPECT_EQ(WEXITSTATUS(status), 0);
    EXPECT_TRUE(home_.logHas("(dir_cntl) Faied to open " + paths().cntlPath + " (Permission denied)"));
}

TEST(NewElement, DropsOnlyTheTrailingNewline) {
    EXPECT_EQ(new_element("/x y \n").value(), "/x y ");
    EXPECT_EQ(new_element("/last").value(), "/last");
}

}  // namespace
