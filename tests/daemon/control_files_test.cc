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
    const std::string deep = "/" + std::string(600, 'd');
    const struct {
        std::string text;
        std::vector<std::pair<std::string, int>> verdicts;
    } cases[] = {
        {"# comment\netc\n/etc\n/home/secret\n",
         {{"/etc/", kProtected}, {"/etc/default/", kProtected}, {"/home/secret/", kProtected},
          {"/home/secret/x/y/", kProtected}, {"/etcetera/", 0}, {"/home/", 0}, {"/", 0}, {"/usr/etc/", 0}}},
        // Entries ending in "/" protect nothing; the last line has no newline.
        {"/\n/etc/\n/var/log",
         {{"/etc/", 0}, {"/usr/", 0}, {"/", 0}, {"/var/log/", kProtected}, {"/var/log", kProtected}}},
        // Long lines are read whole.
        {deep + "\n", {{deep + "/sub/", kProtected}}},
    };
    time_t mtime = 1000;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text.substr(0, 40));
        write(c.text, mtime += 1000);
        ASSERT_EQ(dir_cntl(paths().cntlPath.c_str(), list_), 0);
        if (&c == &cases[0]) {
            std::vector<std::string> names(list_.names.begin(), list_.names.end());
            EXPECT_EQ(names, (std::vector<std::string>{"/home/secret", "/etc"}));  // newest first
        }
        for (const auto& [path, verdict] : c.verdicts) EXPECT_EQ(isProtected(path, list_), verdict) << path;
    }
    EXPECT_TRUE(home_.logHas("tvk.cntl: /home/secret"));
    // An element drops only the trailing newline.
    EXPECT_EQ(new_element("/x y \n").value(), "/x y ");
    EXPECT_EQ(new_element("/last").value(), "/last");
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
    EXPECT_EQ(tavik::testing::exitStatusOf(child), 0);
    EXPECT_TRUE(home_.logHas("(dir_cntl) Faied to open " + paths().cntlPath + " (Permission denied)"));
}

}  // namespace
