// The rename rule, the destination child's death and the hard-link table's
// capacity, on real directories; log lines read back from the scratch log.
// Paths and links that are made, and a path that cannot be made, are checked
// by the end-to-end tests.
#include <signal.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "daemon/scratch_home.h"
#include "restore/paths.h"

namespace tavik::restore {
namespace {

// Each name and what the rule makes of it; "" when the rule refuses and
// leaves the name as it was, as the result would not fit in 1023 bytes.
TEST(RenameRule, SuffixesClimb) {
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"f", "f.AS1"},         {"f.AS1", "f.AS2"},     {"f.AS9", "f.AS10"},    {"x.AS007", "x.AS8"},
        {"f12", "f12.AS1"},     {"123", "123.AS1"},     {"data2", "data2.AS1"}, {".AS5", ".AS6"},
        {"/d/a.AS", "/d/a.AS.AS1"}, {"a.AS0", "a.AS1"}, {"b.as3", "b.as3.AS1"}, {"a1", "a1.AS1"},
        {"x.AS99999999999999999999", "x.AS100000000000000000000"},
        {std::string(1019, 'a'), std::string(1019, 'a') + ".AS1"},
        {std::string(1020, 'a'), ""},
        {std::string(1018, 'a') + ".AS99", ""},  // 1023 bytes, and the carry
    };
    for (const auto& [from, to] : cases) {
        PathBuffer p;
        ASSERT_TRUE(p.assign(from));
        EXPECT_EQ(renameRule(p), !to.empty()) << from;
        EXPECT_EQ(std::string(p.c_str()), to.empty() ? from : to) << from;
    }
    PathBuffer p;
    EXPECT_FALSE(p.assign(std::string(1024, 'a')));
    EXPECT_TRUE(p.empty());
}

class PathsTest : public ::testing::Test {
protected:
    testing::ScratchHome home_;
    std::string at(const std::string& name) const { return home_.dir() + "/" + name; }
};

// The login's child making the root is checked end to end; here, a child
// that dies.
TEST_F(PathsTest, MakeRestorePathFailsWhenTheChildIsKilledAndIgnoresSigchldAgain) {
    EXPECT_EQ(make_restore_path(at("dest/"), {0, 0}, [] { return ::raise(SIGKILL) == 0; }), -1);
    struct sigaction sa {};  // as the job process had it
    ::sigaction(SIGCHLD, nullptr, &sa);
    EXPECT_EQ(sa.sa_handler, SIG_IGN);
    ::signal(SIGCHLD, SIG_DFL);  // later tests wait for their children
}

TEST_F(PathsTest, TheTableTakes5000NamesThenRefusesWithOneMessage) {
    HardLinkTable table;
    Locator locator;
    table.reset();
    protocol::RestoreAttributes a;
    a.nlink = 2;
    PathBuffer p;
    ASSERT_TRUE(p.assign(at("n")));
    for (uint32_t i = 0; i < HardLinkTable::kCapacity; ++i) {
        a.ino = i + 1;
        ASSERT_EQ(table.postml(p, a, {0, 0}, locator, false), 0) << i;
    }
    a.ino = 1;  // known, but the full table is no longer searched
    EXPECT_EQ(table.postml(p, a, {0, 0}, locator, false), -1);
    a.ino = 90000;
    EXPECT_EQ(table.postml(p, a, {0, 0}, locator, false), -1);
    std::string log = home_.log();
    size_t first = log.find("(postml) Too many links");
    ASSERT_NE(first, std::string::npos);
    EXPECT_EQ(log.find("(postml) Too many links", first + 1), std::string::npos);
    table.reset();  // a new job starts afresh
    EXPECT_EQ(table.postml(p, a, {0, 0}, locator, false), 0);
}

}  // namespace
}  // namespace tavik::restore
