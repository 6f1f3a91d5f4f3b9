// The control files read from a real tree: tvk.cntl's protected directories
// (which lines count, re-reading only when the file is newer, an unreadable
// file) and fs.cntl with the mount table's records. The spellings of a
// protected root a caller may try are attacked end to end by
// SecurityTest.ProtectedDirectoryHoldsHoweverItIsSpelled; the kernel's
// table less the skipped types by BrowseTest.MountListCarriesByte40AndFollowsFsCntl.
#include "daemon/control_files.h"
#include "daemon/mount_table.h"

#include <sys/stat.h>
#include <utime.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "daemon/scratch_home.h"

namespace {

using namespace tavik;

class ControlFilesTest : public ::testing::Test {
protected:
    void SetUp() override {
        startupSettings() = Settings{};
        publishSettings();
    }
    void write(const std::string& text, time_t mtime) {
        std::ofstream(paths().cntlPath, std::ios::binary) << text;
        utimbuf t{mtime, mtime};
        ::utime(paths().cntlPath.c_str(), &t);
    }
    int read() { return dir_cntl(paths().cntlPath.c_str(), list_); }
    tavik::testing::ScratchHome home_;
    DirList list_;
};

TEST_F(ControlFilesTest, ListedDirectoriesAreProtectedHoweverTheyAreNamed) {
    startupSettings().verbose = true;
    publishSettings();
    const std::string s = home_.dir() + "/t";
    const std::string deep = s + "/" + std::string(200, 'd') + "/" + std::string(200, 'e') + "/" + std::string(200, 'f');
    for (const char* d : {"/etc/default", "/etcetera", "/home/secret/x/y", "/var/log"})
        std::filesystem::create_directories(s + d);
    std::filesystem::create_directories(deep + "/sub");
    ::symlink("var", (s + "/way").c_str());
    const struct {
        std::string text;
        std::vector<std::pair<std::string, int>> verdicts;
    } cases[] = {
        // A relative line counts for nothing; a missing directory cannot be
        // shown to lie outside.
        {"# comment\netc\n" + s + "/etc\n" + s + "/home/secret\n",
         {{s + "/etc/default/", kProtected}, {s + "/missing/", kProtected}, {s + "/etcetera/", 0}, {"/", 0}}},
        // Entries ending in "/" protect nothing; an entry that is a link
        // protects where it leads; the last line has no newline.
        {"/\n" + s + "/etc/\n" + s + "/home/nothing\n" + s + "/way",
         {{s + "/etc/", 0}, {s + "/etcetera/", 0}, {s + "/var/log/", kProtected}}},
        // Long lines are read whole.
        {deep + "\n", {{deep + "/sub/", kProtected}}},
        {"# nothing listed\n", {{s + "/missing/", 0}}},
    };
    time_t mtime = 1000;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text.substr(0, 40));
        write(c.text, mtime += 1000);
        ASSERT_EQ(read(), 0);
        for (const auto& [path, verdict] : c.verdicts) EXPECT_EQ(isProtected(path, list_), verdict) << path;
    }
    write("etc\n" + s + "/etc\n" + s + "/home/secret\n", mtime += 1000);
    ASSERT_EQ(read(), 0);
    EXPECT_EQ(std::vector<std::string>(list_.names.begin(), list_.names.end()),
              (std::vector<std::string>{s + "/home/secret", s + "/etc"}));  // newest first
    EXPECT_TRUE(home_.logHas("tvk.cntl: " + s + "/home/secret"));
    // The walk's test: a directory by its own identity, without its ancestors.
    struct stat st {};
    ASSERT_EQ(::stat((s + "/etc/default").c_str(), &st), 0);
    EXPECT_FALSE(listsDirectory(list_, platform::identityOf(st)));
    ASSERT_EQ(::stat((s + "/home/secret").c_str(), &st), 0);
    EXPECT_TRUE(listsDirectory(list_, platform::identityOf(st)));
    // A directory replaced while the file stays: the identities are taken afresh.
    ::rename((s + "/etc").c_str(), (s + "/etc-old").c_str());
    ::mkdir((s + "/etc").c_str(), 0755);
    ASSERT_EQ(read(), 0);
    EXPECT_EQ(isProtected(s + "/etc/", list_), kProtected);
    EXPECT_EQ(isProtected(s + "/etc-old/", list_), 0);
    EXPECT_EQ(new_element("/x y \n").value(), "/x y ") << "an element drops only the trailing newline";
}

TEST_F(ControlFilesTest, ReReadOnlyWhenNewer) {
    write("/a\n", 1000);
    ASSERT_EQ(read(), 0);
    write("/b\n", 1000);  // same time: the list stays
    ASSERT_EQ(read(), 0);
    EXPECT_EQ(list_.names.front(), "/a");
    write("/c\n", 2000);
    ASSERT_EQ(read(), 0);
    EXPECT_EQ(list_.names.front(), "/c");
    freeDirList(list_);
    ASSERT_EQ(read(), 0);  // read again after freeing
    EXPECT_EQ(list_.names.front(), "/c");
    ::unlink(paths().cntlPath.c_str());
    ASSERT_EQ(read(), 0);  // missing: nothing protected
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
        _exit(read() == -1 && list_.names.empty() ? 0 : 1);
    }
    EXPECT_EQ(tavik::testing::exitStatusOf(child), 0);
    EXPECT_TRUE(home_.logHas("(dir_cntl) Faied to open " + paths().cntlPath + " (Permission denied)"));
}

using MountTableTest = ControlFilesTest;

std::vector<std::string> skipped(const MountTable& t) { return {t.skippedTypes().begin(), t.skippedTypes().end()}; }

TEST_F(MountTableTest, FsCntlFormat) {
    const struct {
        const char* text;  // nullptr: no file
        std::vector<std::string> expected;
    } cases[] = {
        {nullptr, {"fdfs", "processorfs", "proc"}},
        {"# nothing here\n#proc\n", {}},
        {"# skip\n  NFS \t\n\n\x01sysfs\x02\r\n cgroup2\ndevpts", {"devpts", "cgroup2", "sysfs", "NFS"}},
        {"\n \t\nfuse#x\n #not a comment\n", {"#not a comment", "fuse#x"}},
    };
    const std::string mounts = home_.dir() + "/mounts", cntl = home_.dir() + "/fs.cntl";
    std::ofstream(mounts) << "";
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text ? c.text : "no file");
        std::filesystem::remove(cntl);
        if (c.text) std::ofstream(cntl) << c.text;
        MountTable table(mounts);
        ASSERT_EQ(table.openMountTable(home_.dir()), 0);
        EXPECT_EQ(skipped(table), c.expected);
    }
    EXPECT_EQ(MountTable(home_.dir() + "/no-such-table").openMountTable(home_.dir()), -1);
}

// Escapes, texts cut to the record's widths, no mount time, comments.
TEST_F(MountTableTest, RecordsFromTheTable) {
    std::string longPoint = "/" + std::string(300, 'm'), longType(40, 't'), longSpecial(300, 's');
    const std::string mounts = home_.dir() + "/mounts";
    std::ofstream(mounts) << "/dev/sda1 /with\\040blank ext4 rw,relatime 0 0\n"
                          << longSpecial << " " << longPoint << " " << longType << " rw 0 0\n# a comment line\n";
    MountTable table(mounts);
    ASSERT_EQ(table.openMountTable(home_.dir()), 0);
    std::vector<MountRecord> records;
    while (auto r = table.nextMount()) records.push_back(*r);
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0].special, "/dev/sda1");
    EXPECT_EQ(records[0].mountPoint, "/with blank");
    EXPECT_EQ(records[0].type, "ext4");
    EXPECT_EQ(records[0].mountTime, 0u);
    EXPECT_EQ(records[1].special, longSpecial.substr(0, 255));
    EXPECT_EQ(records[1].mountPoint, longPoint.substr(0, 255));
    EXPECT_EQ(records[1].type, longType.substr(0, 31));
    table.closeMountTable();
    EXPECT_FALSE(table.nextMount());
}

}  // namespace
