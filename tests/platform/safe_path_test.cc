// The link-refusing walk on a real tree: which links it follows, what each
// refusal answers, and that it lands on the very directory it names.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include "daemon/scratch_home.h"
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

}  // namespace
