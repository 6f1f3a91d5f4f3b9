// Reading directories and files for the backup: every entry with its type,
// the same listing after a rewind, and access times left alone.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <fstream>
#include <map>
#include <string>

#include "daemon/scratch_home.h"
#include "platform/dir_stream.h"
#include "platform/read_open.h"

namespace {

using tavik::platform::DirStream;

class ReadTest : public ::testing::Test {
protected:
    std::string at(const std::string& name) const { return home_.dir() + "/" + name; }
    std::map<std::string, unsigned char> list(DirStream& d) {
        std::map<std::string, unsigned char> out;
        errno = 0;
        while (const DirStream::Entry* e = d.next()) out[e->name] = e->type;
        EXPECT_EQ(errno, 0);
        return out;
    }
    tavik::testing::ScratchHome home_;
};

TEST_F(ReadTest, DirectoryListsEveryEntryWithItsTypeAndAgainAfterRewind) {
    std::ofstream(at("file")) << "x";
    mkdir(at("sub").c_str(), 0755);
    symlink("file", at("link").c_str());
    mkfifo(at("fifo").c_str(), 0600);
    // Enough long names to take several reads of the buffer.
    for (int i = 0; i < 400; ++i) std::ofstream(at(std::string(200, 'n') + std::to_string(i)));

    DirStream d;
    ASSERT_TRUE(d.open(home_.dir().c_str(), false));
    auto first = list(d);
    EXPECT_EQ(first.size(), 407u);  // the home's LOG folder included
    EXPECT_EQ(first["."], DT_DIR);
    EXPECT_EQ(first[".."], DT_DIR);
    EXPECT_EQ(first["file"], DT_REG);
    EXPECT_EQ(first["sub"], DT_DIR);
    EXPECT_EQ(first["link"], DT_LNK);
    EXPECT_EQ(first["fifo"], DT_FIFO);
    ASSERT_TRUE(d.rewind());
    EXPECT_EQ(list(d), first);

    DirStream missing;
    EXPECT_FALSE(missing.open(at("none").c_str(), true));
    EXPECT_EQ(errno, ENOENT);
    EXPECT_FALSE(missing.open(at("file").c_str(), true));
    EXPECT_EQ(errno, ENOTDIR);
}

TEST_F(ReadTest, ReadingLeavesTheAccessTimeAlone) {
    if (geteuid() != 0) GTEST_SKIP() << "the owner's files only: run as root";
    std::ofstream(at("file")) << std::string(5000, 'x');
    mkdir(at("sub").c_str(), 0755);
    timespec old[2] = {{1000000, 0}, {0, UTIME_OMIT}};
    utimensat(AT_FDCWD, at("file").c_str(), old, 0);
    utimensat(AT_FDCWD, at("sub").c_str(), old, 0);

    tavik::platform::ReadOpen f = tavik::platform::openToRead(AT_FDCWD, at("file").c_str(), true);
    ASSERT_GE(f.fd, 0);
    EXPECT_TRUE(f.accessTimeKept);
    char buf[8192];
    iovec iov{buf, sizeof buf};
    EXPECT_EQ(tavik::platform::readvBlocking(f.fd, &iov, 1), 5000);
    close(f.fd);

    DirStream d;
    ASSERT_TRUE(d.open(at("sub").c_str(), true));
    EXPECT_TRUE(d.accessTimeKept());
    list(d);
    d.close();

    struct stat st;
    stat(at("file").c_str(), &st);
    EXPECT_EQ(st.st_atime, 1000000);
    stat(at("sub").c_str(), &st);
    EXPECT_EQ(st.st_atime, 1000000);
}

}  // namespace
