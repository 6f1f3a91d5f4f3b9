// The protected-directory list from a real tvk.cntl over a real tree: which
// lines count, the directories protected however they are named, re-reading
// only when the file is newer, and an unreadable file.
#include "daemon/control_files.h"

#include <sys/stat.h>
#include <sys/wait.h>
#include <utime.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "daemon/scratch_home.h"

namespace {

using namespace tavik;

class ControlFilesTest : public ::testing::Test {
protected:
    void SetUp() override { startupSettings() = Settings{}; }
    void write(const std::string& text, time_t mtime) {
        std::ofstream(paths().cntlPath, std::ios::binary) << text;
        utimbuf t{mtime, mtime};
        ::utime(paths().cntlPath.c_str(), &t);
    }
    tavik::testing::ScratchHome home_;
    DirList list_;
};

TEST_F(ControlFilesTest, ListedDirectoriesAreProtectedHoweverTheyAreNamed) {
    startupSettings().verbose = true;
    const std::string s = home_.dir() + "/t";
    const std::string deep = s + "/" + std::string(200, 'd') + "/" + std::string(200, 'e') + "/" +
                             std::string(200, 'f');
    for (const char* d : {"/etc/default", "/etcetera", "/home/secret/x/y", "/usr/etc", "/var/log"})
        std::filesystem::create_directories(s + d);
    std::filesystem::create_directories(deep + "/sub");
    ::symlink("home/secret", (s + "/lnk").c_str());
    ::symlink("var", (s + "/way").c_str());
    const struct {
        std::string text;
        std::vector<std::pair<std::string, int>> verdicts;
    } cases[] = {
        {"# comment\netc\n" + s + "/etc\n" + s + "/home/secret\n",
         {{s + "/etc/", kProtected}, {s + "/etc/default/", kProtected}, {s + "/home/secret/x/y/", kProtected},
          {s + "//etc/./default", kProtected}, {s + "/etcetera/../home/secret", kProtected},
          {s + "/lnk/x/", kProtected}, {s + "/missing/", kProtected},  // cannot be shown to lie outside
          {s + "/etcetera/", 0}, {s + "/home/", 0}, {"/", 0}, {s + "/usr/etc/", 0}}},
        // Entries ending in "/" protect nothing; an entry that is a link
        // protects where it leads; the last line has no newline.
        {"/\n" + s + "/etc/\n" + s + "/home/nothing\n" + s + "/way",
         {{s + "/etc/", 0}, {s + "/usr/", 0}, {"/", 0}, {s + "/var/log/", kProtected}, {s + "/var", kProtected}}},
        // Long lines are read whole.
        {deep + "\n", {{deep + "/sub/", kProtected}, {s + "/missing/", kProtected}}},
        {"# nothing listed\n", {{s + "/missing/", 0}}},
    };
    time_t mtime = 1000;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text.substr(0, 40));
        write(c.text, mtime += 1000);
        ASSERT_EQ(dir_cntl(paths().cntlPath.c_str(), list_), 0);
        for (const auto& [path, verdict] : c.verdicts) EXPECT_EQ(isProtected(path, list_), verdict) << path;
    }
    write("etc\n" + s + "/etc\n" + s + "/home/secret\n", mtime += 1000);
    ASSERT_EQ(dir_cntl(paths().cntlPath.c_str(), list_), 0);
    std::vector<std::string> names(list_.names.begin(), list_.names.end());
    EXPECT_EQ(names, (std::vector<std::string>{s + "/home/secret", s + "/etc"}));  // newest first
    EXPECT_TRUE(home_.logHas("tvk.cntl: " + s + "/home/secret"));
    // The walk's test: a directory by its own identity, without its ancestors.
    struct stat st {};
    ASSERT_EQ(::stat((s + "/etc/default").c_str(), &st), 0);
    EXPECT_FALSE(listsDirectory(list_, platform::identityOf(st)));
    ASSERT_EQ(::stat((s + "/lnk").c_str(), &st), 0);
    EXPECT_TRUE(listsDirectory(list_, platform::identityOf(st)));
    // A directory replaced while the file stays: the identities are taken afresh.
    ::rename((s + "/etc").c_str(), (s + "/etc-old").c_str());
    ::mkdir((s + "/etc").c_str(), 0755);
    ASSERT_EQ(dir_cntl(paths().cntlPath.c_str(), list_), 0);
    EXPECT_EQ(isProtected(s + "/etc/", list_), kProtected);
    EXPECT_EQ(isProtected(s + "/etc-old/", list_), 0);
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
