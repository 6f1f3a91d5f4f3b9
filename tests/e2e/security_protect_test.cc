// Attacks on what the administrator protects, on a root agent started
// without -S: a protected directory named another way. Each outcome is
// asserted on the wire and in the log.
#include "e2e/test_user.h"

namespace {

using namespace tavik::test;

class SecurityProtectTest : public LoginJobTest {
protected:
    void ownedLink(const std::string& target, const std::string& link, bool byLogin) const {
        ASSERT_EQ(symlink(target.c_str(), link.c_str()), 0) << link;
        if (byLogin) lchown(link.c_str(), user_.uid(), user_.gid());
    }
};

// tvk.cntl names a directory once; every other name of it, and every
// directory below it, is refused all the same, whoever may read tvk.cntl.
TEST_F(SecurityProtectTest, ProtectedDirectoryHoldsHoweverItIsSpelled) {
    for (const char* d : {"secret", "secret/inner", "sub", "secretary", "vault"}) mkdir(at(d).c_str(), 0755);
    ownedLink("secret", at("alias"), true);
    ownedLink(at("vault"), at("way"), false);  // an entry that is a link protects where it leads
    ASSERT_TRUE(startDaemon());
    const std::string cntl = daemon_.home() + "tvk.cntl";
    std::ofstream(cntl) << at("secret") << "\n" << at("way") << "\n";

    const struct {
        std::string root;
        int answer;
    } rows[] = {
        {at("secret"), 114},       {"/" + at("secret"), 114},      {work_ + "/./secret", 114},
        {at("sub/../secret"), 114}, {at("alias"), 114},            {at("alias/inner"), 114},
        {at("vault"), 114},        {at("secretary"), 4},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.root);
        EXPECT_EQ(ask(fields(row.root, 0)), row.answer);
        std::string line = "Protected Directory [" + row.root + "/] in " + cntl;
        if (row.answer == 114) {
            EXPECT_TRUE(agentCloses());
            EXPECT_TRUE(daemon_.waitForLog(line));
        } else {
            EXPECT_FALSE(logHas(line));
        }
    }
    // The list is the administrator's: read with root's rights.
    chmod(cntl.c_str(), 0600);
    EXPECT_EQ(ask(fields(at("secret"), 0)), 114);
    EXPECT_TRUE(daemon_.waitForLog("Protected Directory [" + at("secret") + "/] in " + cntl, 2));
}

}  // namespace
