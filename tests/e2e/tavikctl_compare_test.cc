// tavikctl compare against a real daemon in single-user mode: a tree
// compared with its own backup is identical; changed contents, a changed
// mode, a missing file and a changed directory are named with their verdict
// in words and the exit status says so; deleting grooming after a compare
// removes exactly the identical files and prints the agent's report.
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <fstream>
#include <string>

#include "e2e/daemon_fixture.h"
#include "e2e/tavikctl_run.h"

namespace {

using tavik::test::Daemon;
using tavik::test::tavikctl;

class TavikctlCompare : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(daemon_.start({"-S"}));
        tree_ = daemon_.home() + "tree";
        archive_ = daemon_.home() + "tree.tvk";
        ASSERT_EQ(mkdir(tree_.c_str(), 0755), 0);
        ASSERT_EQ(mkdir((tree_ + "/sub").c_str(), 0755), 0);
        write("a.txt", "alpha\n");
        write("sub/b.txt", std::string(5000, 'b'));
        write("sub/c.txt", "gamma");
        ASSERT_EQ(symlink("a.txt", (tree_ + "/link").c_str()), 0);
        auto r = tavikctl(target("backup") + " -o " + archive_);
        ASSERT_EQ(r.status, 0) << r.err;
    }

    void write(const std::string& name, const std::string& text) {
        std::ofstream(tree_ + "/" + name, std::ios::binary | std::ios::trunc) << text;
    }

    std::string target(const std::string& command) const {
        return command + " 127.0.0.1:" + tree_ + " --port " + std::to_string(daemon_.port());
    }

    tavik::test::Output compare(const std::string& options = "") const {
        return tavikctl("compare " + archive_ + " 127.0.0.1:" + tree_ + " --port " + std::to_string(daemon_.port()) +
                        " " + options);
    }

    Daemon daemon_;
    std::string tree_, archive_;
};

TEST_F(TavikctlCompare, UnchangedTreeIsIdentical) {
    auto r = compare();
    EXPECT_EQ(r.status, 0) << r.out << r.err;
    EXPECT_EQ(r.out, "4 identical, 0 different, 0 unreadable\n");
    r = compare("--directories");
    EXPECT_EQ(r.status, 0) << r.out;
    EXPECT_EQ(r.out, "5 identical, 0 different, 0 unreadable\n");
}

TEST_F(TavikctlCompare, DifferencesAreNamedInWords) {
    write("a.txt", "ALPHA\n");  // same size, other contents
    ASSERT_EQ(chmod((tree_ + "/sub/c.txt").c_str(), 0600), 0);
    ASSERT_EQ(unlink((tree_ + "/sub/b.txt").c_str()), 0);
    auto r = compare();
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.out.find("a.txt: contents differ\n"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("sub/b.txt: missing or cannot be examined\n"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("sub/c.txt: attributes differ\n"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("1 identical, 3 different, 0 unreadable\n"), std::string::npos) << r.out;
    r = compare("--detailed sub/c.txt");
    EXPECT_EQ(r.out, "sub/c.txt: mode differs\n0 identical, 1 different, 0 unreadable\n");
}

TEST_F(TavikctlCompare, DamagedArchiveIsRefusedBeforeTheAgentIsAsked) {
    {
        std::fstream f(archive_, std::ios::in | std::ios::out | std::ios::binary);
        f.seekp(40);
        f.put('\x7f');
    }
    auto r = compare();
    EXPECT_EQ(r.status, 2);
    EXPECT_NE(r.err.find("damaged archive"), std::string::npos) << r.err;
    EXPECT_EQ(daemon_.log().find("Start Compare Job"), std::string::npos);
}

TEST_F(TavikctlCompare, DeletingGroomingRemovesTheIdenticalFilesAndReportsThem) {
    write("sub/c.txt", "GAMMA");  // differs: must survive
    auto r = compare("--groom delete");
    EXPECT_EQ(r.status, 1) << r.out << r.err;
    EXPECT_NE(r.out.find("grooming: "), std::string::npos) << r.out;
    EXPECT_NE(r.out.find(tree_ + "/sub/b.txt"), std::string::npos) << r.out;
    EXPECT_EQ(access((tree_ + "/a.txt").c_str(), F_OK), -1);
    EXPECT_EQ(access((tree_ + "/sub/b.txt").c_str(), F_OK), -1);
    EXPECT_EQ(access((tree_ + "/sub/c.txt").c_str(), F_OK), 0);
    EXPECT_TRUE(daemon_.waitForLog("Delete " + tree_ + "/a.txt"));
}

}  // namespace

namespace {

TEST(TavikctlBackupGrooming, DeletingGroomingRemovesTheBackedUpFilesAndReportsThem) {
    Daemon d;
    ASSERT_TRUE(d.start({"-S"}));
    std::string tree = d.home() + "groomed";
    ASSERT_EQ(mkdir(tree.c_str(), 0755), 0);
    ASSERT_EQ(mkdir((tree + "/sub").c_str(), 0755), 0);
    std::ofstream(tree + "/one") << "1";
    std::ofstream(tree + "/sub/two") << "22";
    auto r = tavikctl("backup 127.0.0.1:" + tree + " -o " + d.home() + "g.tvk --groom delete --port " +
                      std::to_string(d.port()));
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.err.find("grooming: 2 files"), std::string::npos) << r.err;
    EXPECT_NE(r.err.find(tree + "/sub/two"), std::string::npos) << r.err;
    EXPECT_EQ(access((tree + "/one").c_str(), F_OK), -1);
    EXPECT_EQ(access((tree + "/sub/two").c_str(), F_OK), -1);
    EXPECT_EQ(access((tree + "/sub").c_str(), F_OK), 0) << "directories are never groomed";
    EXPECT_TRUE(d.waitForLog("Delete " + tree + "/one"));
    auto list = tavikctl("list --verify " + d.home() + "g.tvk");
    EXPECT_EQ(list.status, 0) << list.err;
}

}  // namespace

namespace {

TEST_F(TavikctlCompare, RestoredTreeComparesIdentical) {
    std::string restored = daemon_.home() + "restored";
    auto r = tavikctl("restore " + archive_ + " 127.0.0.1:" + restored + " --port " + std::to_string(daemon_.port()));
    ASSERT_EQ(r.status, 0) << r.out << r.err;
    r = tavikctl("compare " + archive_ + " 127.0.0.1:" + restored + " --detailed --port " +
                 std::to_string(daemon_.port()));
    EXPECT_EQ(r.status, 0) << r.out << r.err;
    EXPECT_EQ(r.out, "4 identical, 0 different, 0 unreadable\n");
}

}  // namespace
