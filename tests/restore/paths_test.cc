// Path creation, the destination child, the rename rule and the hard-link
// table's capacity, on real directories; log lines read back from the
// scratch log. Links themselves are made in the stream and end-to-end tests.
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "restore/agent_run.h"
#include "restore/paths.h"

namespace tavik::restore {
namespace {

constexpr uid_t kNobody = 65534;

std::string renamed(const std::string& name) {
    PathBuffer p;
    EXPECT_TRUE(p.assign(name));
    EXPECT_TRUE(renameRule(p));
    return p.c_str();
}

TEST(RenameRule, SuffixesClimb) {
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"f", "f.AS1"},         {"f.AS1", "f.AS2"},     {"f.AS9", "f.AS10"},    {"x.AS007", "x.AS8"},
        {"f12", "f12.AS1"},     {"123", "123.AS1"},     {"data2", "data2.AS1"}, {".AS5", ".AS6"},
        {"/d/a.AS", "/d/a.AS.AS1"}, {"a.AS0", "a.AS1"}, {"b.as3", "b.as3.AS1"}, {"a1", "a1.AS1"},
        {"x.AS99999999999999999999", "x.AS100000000000000000000"},
    };
    for (const auto& [from, to] : cases) EXPECT_EQ(renamed(from), to) << from;
}

TEST(RenameRule, ANameThatWouldNotFitIsLeftAlone) {
    PathBuffer p;
    std::string name(1019, 'a');  // + ".AS1" = 1023: fits
    ASSERT_TRUE(p.assign(name));
    ASSERT_TRUE(renameRule(p));
    EXPECT_EQ(p.size(), 1023u);
    name.push_back('a');
    ASSERT_TRUE(p.assign(name));
    EXPECT_FALSE(renameRule(p));
    EXPECT_EQ(std::string(p.c_str()), name);
    ASSERT_TRUE(p.assign(std::string(1018, 'a') + ".AS99"));  // 1023 + the carry
    EXPECT_FALSE(renameRule(p));
    EXPECT_FALSE(p.assign(std::string(1024, 'a')));
    EXPECT_TRUE(p.empty());
}

class PathsTest : public ::testing::Test {
protected:
    testing::ScratchHome home_;
    std::string at(const std::string& name) const { return home_.dir() + "/" + name; }
    static struct stat statOf(const std::string& path) {
        struct stat st {};
        if (::lstat(path.c_str(), &st) != 0) st.st_mode = 0;
        return st;
    }
};

TEST_F(PathsTest, MakePathMakesTheParentsOnly) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to give directories away";
    PathBuffer p;
    ASSERT_TRUE(p.assign(at("a/b/c")));
    ASSERT_EQ(make_path(p, {kNobody, kNobody}), 0);
    EXPECT_EQ(std::string(p.c_str()), at("a/b/c"));
    struct stat b = statOf(at("a/b"));
    EXPECT_EQ(b.st_mode, static_cast<mode_t>(040755));
    EXPECT_EQ(b.st_uid, kNobody);
    EXPECT_EQ(statOf(at("a/b/c")).st_mode, 0u);
    ASSERT_TRUE(p.assign(at("a/b/c/")));  // a trailing slash makes the last one too
    ASSERT_EQ(make_path(p, {0, 0}), 0);
    EXPECT_TRUE(S_ISDIR(statOf(at("a/b/c")).st_mode));
    EXPECT_EQ(statOf(at("a/b/c")).st_uid, 0u);
    EXPECT_EQ(statOf(at("a/b")).st_uid, kNobody);  // existing ones are left as they are
}

TEST_F(PathsTest, MakePathStopsAtTheFirstFailureWithTheNameCutThere) {
    std::ofstream(at("file")) << "x";
    PathBuffer p;
    ASSERT_TRUE(p.assign(at("file/sub/leaf")));
    EXPECT_EQ(make_path(p, {geteuid(), getegid()}), -1);
    EXPECT_EQ(std::string(p.c_str()), at("file/sub"));
    EXPECT_TRUE(home_.logHas("(make_path) Failed to make directory <" + at("file/sub") + "> (Not a directory)"));
}

TEST_F(PathsTest, MakeRestorePathRunsTheChildUnderTheLogin) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to switch identity";
    testing::openToAnyone(home_);  // the child writes the log as the login
    auto asNobody = [] { return testing::becomeUser(kNobody); };
    // Made by the child: owned by the login.
    EXPECT_EQ(make_restore_path(at("dest/"), {kNobody, kNobody}, asNobody), 0);
    EXPECT_EQ(statOf(at("dest")).st_uid, kNobody);
    EXPECT_EQ(make_restore_path(at("dest/"), {kNobody, kNobody}, asNobody), 0);  // exists and is writable
    // A root-only directory: the login may neither use nor make it.
    ::mkdir(at("private").c_str(), 0700);
    EXPECT_EQ(make_restore_path(at("private/"), {kNobody, kNobody}, asNobody), 2);
    EXPECT_TRUE(home_.logHas("(make_dir) Failed to Access Directory [" + at("private/") + "] (Permission denied)"));
    EXPECT_EQ(make_restore_path(at("private/in/"), {kNobody, kNobody}, asNobody), 2);
    EXPECT_TRUE(home_.logHas("(make_dir) Failed to get the attributes (stat) of " + at("private/in/")));
    // The identity switch fails; the child is killed.
    EXPECT_EQ(make_restore_path(at("dest/"), {0, 0}, [] { return false; }), 1);
    EXPECT_EQ(make_restore_path(at("dest/"), {0, 0}, [] { return ::raise(SIGKILL) == 0; }), -1);
    // SIGCHLD is ignored again afterwards, as the job process had it.
    struct sigaction sa {};
    ::sigaction(SIGCHLD, nullptr, &sa);
    EXPECT_EQ(sa.sa_handler, SIG_IGN);
    ::signal(SIGCHLD, SIG_DFL);  // later tests wait for their children
}

TEST_F(PathsTest, TheTableTakes5000NamesThenRefusesWithOneMessage) {
    HardLinkTable table;
    table.reset();
    RestoreAttributes a;
    a.nlink = 2;
    PathBuffer p;
    ASSERT_TRUE(p.assign(at("n")));
    for (uint32_t i = 0; i < HardLinkTable::kCapacity; ++i) {
        a.ino = i + 1;
        ASSERT_EQ(table.postml(p, a, {0, 0}, false), 0) << i;
    }
    a.ino = 1;  // known, but the full table is no longer searched
    EXPECT_EQ(table.postml(p, a, {0, 0}, false), -1);
    a.ino = 90000;
    EXPECT_EQ(table.postml(p, a, {0, 0}, false), -1);
    std::string log = home_.log();
    size_t first = log.find("(postml) Too many links");
    ASSERT_NE(first, std::string::npos);
    EXPECT_EQ(log.find("(postml) Too many links", first + 1), std::string::npos);
    table.reset();  // a new job starts afresh
    EXPECT_EQ(table.postml(p, a, {0, 0}, false), 0);
}

}  // namespace
}  // namespace tavik::restore
