// Backup and restore round trips through tavikctl and a real daemon in
// single-user mode: a scratch tree with every kind of entry, and a copy of
// /usr/include, backed up into an archive, restored into an empty directory
// and compared entry by entry with the source.
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <string>

#include "e2e/daemon_fixture.h"
#include "e2e/round_trip_tree.h"
#include "e2e/tavikctl_run.h"

namespace {

using tavik::test::compareTrees;
using CtlOutput = tavik::test::Output;
using tavik::test::Daemon;


class RoundTrip : public ::testing::Test {
protected:
    void SetUp() override {
        char tmpl[] = "/tmp/tavik-e2e-roundtrip-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        scratch_ = tmpl;
        tree_ = scratch_ + "/tree";
        dest_ = scratch_ + "/restored";
        archive_ = scratch_ + "/tree.tvk";
        ASSERT_EQ(mkdir(tree_.c_str(), 0755), 0);
        ASSERT_TRUE(daemon_.start({"-v", "-S"}));
    }
    void TearDown() override {
        if (daemon_.alive()) daemon_.stop();
        std::system(("rm -rf '" + scratch_ + "'").c_str());
    }
    std::string at(const std::string& name) const { return tree_ + "/" + name; }
    void write(const std::string& name, const std::string& data, time_t mtime = 1234567890) {
        std::ofstream(at(name), std::ios::binary) << data;
        touch(name, mtime);
    }
    void touch(const std::string& name, time_t mtime) {
        timespec t[2] = {{mtime + 7, 0}, {mtime, 0}};
        utimensat(AT_FDCWD, at(name).c_str(), t, AT_SYMLINK_NOFOLLOW);
    }
    std::string port() const { return " --port " + std::to_string(daemon_.port()); }
    // Backs `source` up and restores it into dest_; both must succeed.
    void roundTrip(const std::string& source) {
        CtlOutput b = tavik::test::tavikctl("backup 127.0.0.1:" + source + " -o " + archive_ + port());
        ASSERT_EQ(b.status, 0) << b.err;
        CtlOutput r = tavik::test::tavikctl("restore " + archive_ + " 127.0.0.1:" + dest_ + port());
        ASSERT_EQ(r.status, 0) << r.err;
        EXPECT_NE(r.err.find(" 0 failed"), std::string::npos) << r.err;
    }

    Daemon daemon_;
    std::string scratch_, tree_, dest_, archive_;
};

std::string pattern(size_t size, unsigned seed) {
    std::string s(size, '\0');
    for (size_t i = 0; i < size; ++i) s[i] = static_cast<char>((i * 131 + seed * 7 + i / 251) & 0xFF);
    return s;
}

TEST_F(RoundTrip, EveryKindOfEntryRestoresIdentically) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root: device nodes and foreign owners";
    // Sizes around the 2048-byte payload and several MiB.
    write("empty", "");
    write("one", "x");
    write("p2047", pattern(2047, 1));
    write("p2048", pattern(2048, 2));
    write("p2049", pattern(2049, 3));
    write("big", pattern(5 * 1024 * 1024 + 17, 4), 1500000000);
    // Names: spaces, UTF-8, bytes that are not UTF-8, 200 characters.
    write("with  spaces in it ", "spaces");
    write("gr\xc3\xbc\xc3\x9f \xe6\x97\xa5\xe6\x9c\xac", "utf-8");
    write("latin1-\xe9\xff\xfe", "not utf-8");
    write(std::string(200, 'n'), "long name");
    // Deep directories.
    std::string deep = "deep";
    ASSERT_EQ(mkdir(at(deep).c_str(), 0755), 0);
    for (int i = 0; i < 30; ++i) {
        deep += "/level" + std::to_string(i);
        ASSERT_EQ(mkdir(at(deep).c_str(), 0750), 0);
    }
    write(deep + "/bottom", "at the bottom");
    // Symbolic links: absolute, relative, dangling; one given away.
    ASSERT_EQ(symlink("/usr/lib", at("abs-link").c_str()), 0);
    ASSERT_EQ(symlink("../one", at("deep/rel-link").c_str()), 0);
    ASSERT_EQ(symlink("nowhere/at/all", at("dangling").c_str()), 0);
    ASSERT_EQ(lchown(at("dangling").c_str(), 4321, 5432), 0);
    // Hard links within a directory and across directories (three names).
    write("linked", pattern(10000, 5));
    ASSERT_EQ(link(at("linked").c_str(), at("linked-too").c_str()), 0);
    ASSERT_EQ(mkdir(at("other").c_str(), 0755), 0);
    ASSERT_EQ(link(at("linked").c_str(), at("other/linked-elsewhere").c_str()), 0);
    write("other/pair", "pair");
    ASSERT_EQ(link(at("other/pair").c_str(), at("deep/level0/pair").c_str()), 0);
    // Special files.
    ASSERT_EQ(mkfifo(at("fifo").c_str(), 0640), 0);
    ASSERT_EQ(mknod(at("chardev").c_str(), S_IFCHR | 0620, makedev(1, 3)), 0);
    // Set-user-id, set-group-id, sticky; foreign owners.
    write("suid", "s", 1300000000);
    ASSERT_EQ(chmod(at("suid").c_str(), 04755), 0);
    write("sgid", "g");
    ASSERT_EQ(chown(at("sgid").c_str(), 1234, 2345), 0);
    ASSERT_EQ(chmod(at("sgid").c_str(), 02751), 0);
    ASSERT_EQ(mkdir(at("sticky").c_str(), 0777), 0);
    ASSERT_EQ(chmod(at("sticky").c_str(), 01777), 0);
    ASSERT_EQ(mkdir(at("setgid-dir").c_str(), 0775), 0);
    ASSERT_EQ(chmod(at("setgid-dir").c_str(), 02775), 0);
    ASSERT_EQ(chown(at("setgid-dir").c_str(), 3456, 4567), 0);
    write("setgid-dir/inside", "inside");
    write("foreign", "owned by someone else");
    ASSERT_EQ(chown(at("foreign").c_str(), 12345, 23456), 0);
    ASSERT_EQ(chmod(at("foreign").c_str(), 0604), 0);

    roundTrip(tree_);
    auto diff = compareTrees(tree_, dest_);
    EXPECT_EQ(diff.compared, 59u);
    for (const std::string& d : diff.differences) ADD_FAILURE() << d;
}

TEST_F(RoundTrip, UsrIncludeRestoresIdentically) {
    const std::string source = "/usr/include";
    struct stat st {};
    if (stat(source.c_str(), &st) != 0) GTEST_SKIP() << "no /usr/include";
    // A copy, so that the backup's access-time resets touch nothing of the system.
    ASSERT_EQ(std::system(("cp -a " + source + " '" + tree_ + "/include'").c_str()), 0);
    roundTrip(tree_ + "/include");
    auto diff = compareTrees(tree_ + "/include", dest_);
    std::printf("[ round trip ] %zu entries of %s compared, %zu differences\n", diff.compared, source.c_str(),
                diff.differences.size());
    EXPECT_GT(diff.compared, 1000u);
    EXPECT_EQ(diff.differences.size(), 0u);
    for (size_t i = 0; i < diff.differences.size() && i < 20; ++i) ADD_FAILURE() << diff.differences[i];
}

}  // namespace
