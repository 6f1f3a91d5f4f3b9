// The link-refusing walk on a real tree: which links it follows, what each
// refusal answers, and that it lands on the very directory it names; and
// reading directories for the backup: every entry with its type, and the
// same listing after a rewind. (That reading leaves access times alone is
// asserted end to end by ProtectedDirectoriesAreLeftOutAndAccessTimesRestored.)
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
#include "platform/safe_path.h"

namespace {

using namespace tavik::platform;

TEST(SafePath, FollowsOnlyLinksOfRootOrItsOwnUser) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root: gives links to another user";
    tavik::testing::ScratchHome home;
    const std::string top = home.dir();
    auto at = [&](const std::string& name) { return top + "/" + name; };
    ::mkdir(at("d").c_str(), 0755);
    ::mkdir(at("d/e").c_str(), 0755);
    ::close(::open(at("file").c_str(), O_CREAT | O_WRONLY, 0644));
    // Link name, target, owner (65534 is nobody).
    const struct {
        const char *name, *target;
        uid_t owner;
    } links[] = {{"rootlink", "d", 0},        {"absolute", "", 0},      {"userlink", "d", 65534},
                 {"chain", "rootlink/e", 0},  {"dangling", "nothing", 0}, {"tofile", "file", 0},
                 {"loop1", "loop2", 0},       {"loop2", "loop1", 0}};
    for (const auto& l : links) {
        ::symlink(*l.target ? l.target : at("d/e").c_str(), at(l.name).c_str());
        ::lchown(at(l.name).c_str(), l.owner, l.owner);
    }
    struct stat target {};
    ::stat(at("d/e").c_str(), &target);

    const struct {
        std::string path;
        int error;  // 0: reaches d/e
    } rows[] = {
        {at("d/e"), 0},           {at("rootlink/e"), 0},           {at("absolute"), 0},
        {at("chain"), 0},         {at("d/./e/"), 0},               {top + "//d/e/../e", 0},
        {at("userlink/e"), EACCES}, {at("d/e/../../userlink/e"), EACCES}, {at("dangling/e"), ENOENT},
        {at("tofile"), ENOTDIR},  {at("file/e"), ENOTDIR},         {at("loop1/e"), ELOOP},
        {at("missing/e"), ENOENT},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.path);
        errno = 0;
        UniqueFd fd = openDirectory(row.path);
        struct stat st {};
        EXPECT_EQ(fd ? 0 : errno, row.error);
        EXPECT_EQ(fd && ::fstat(fd.get(), &st) == 0 ? st.st_ino : 0, row.error ? 0 : target.st_ino);
    }
    // Relative to the working directory, and to a directory descriptor.
    ASSERT_EQ(::chdir(top.c_str()), 0);
    EXPECT_TRUE(openDirectory("rootlink/e"));
    EXPECT_TRUE(openDirectory(""));
    UniqueFd d = openDirectory(at("d"));
    EXPECT_TRUE(openDirectoryAt(d.get(), "e"));
    EXPECT_FALSE(openDirectoryAt(d.get(), "../userlink"));
    ASSERT_EQ(::chdir("/"), 0);
}

TEST(SafePath, SplitsBeforeTheLastComponent) {
    const struct {
        const char *path, *directory, *name;
    } rows[] = {
        {"/a/b/c", "/a/b", "c"}, {"/c", "/", "c"}, {"c", "", "c"}, {"a/b/", "a/b", ""}, {"/", "/", ""},
    };
    for (const auto& row : rows) {
        PathParts p = splitLast(row.path);
        EXPECT_EQ(p.directory, row.directory) << row.path;
        EXPECT_EQ(p.name, row.name) << row.path;
    }
}

std::map<std::string, unsigned char> list(DirStream& d) {
    std::map<std::string, unsigned char> out;
    errno = 0;
    while (const DirStream::Entry* e = d.next()) out[e->name] = e->type;
    EXPECT_EQ(errno, 0);
    return out;
}

TEST(ReadTest, DirectoryListsEveryEntryWithItsTypeAndAgainAfterRewind) {
    tavik::testing::ScratchHome home;
    auto at = [&](const std::string& name) { return home.dir() + "/" + name; };
    std::ofstream(at("file")) << "x";
    mkdir(at("sub").c_str(), 0755);
    symlink("file", at("link").c_str());
    mkfifo(at("fifo").c_str(), 0600);
    // Enough long names to take several reads of the buffer.
    for (int i = 0; i < 400; ++i) std::ofstream(at(std::string(200, 'n') + std::to_string(i)));

    DirStream d;
    ASSERT_TRUE(d.open(home.dir().c_str(), false));
    auto first = list(d);
    EXPECT_EQ(first.size(), 407u);  // the home's LOG folder included
    const std::map<std::string, unsigned char> kinds = {{".", DT_DIR},     {"..", DT_DIR},  {"file", DT_REG},
                                                        {"sub", DT_DIR},   {"link", DT_LNK}, {"fifo", DT_FIFO}};
    for (const auto& [name, type] : kinds) EXPECT_EQ(first[name], type) << name;
    ASSERT_TRUE(d.rewind());
    EXPECT_EQ(list(d), first);

    DirStream missing;
    EXPECT_FALSE(missing.open(at("none").c_str(), true));
    EXPECT_EQ(errno, ENOENT);
    EXPECT_FALSE(missing.open(at("file").c_str(), true));
    EXPECT_EQ(errno, ENOTDIR);
}

}  // namespace
