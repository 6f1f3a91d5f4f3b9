// The protected list: its test, groom.cntl, elements, package information.
#include <gtest/gtest.h>

#include "groom/groom.h"
#include "nls/messages.h"
#include "scratch.h"

namespace {

using namespace tavik::groom;
using groomtest::writeFile;

GroomList listOf(std::initializer_list<const char*> names) {
    GroomList list;
    for (const char* name : names) {
        GroomList e = new_element((std::string(name) + "\n").c_str());
        e->next = std::move(list);
        list = std::move(e);
    }
    return list;
}

std::vector<std::string> names(const GroomList& list) {
    std::vector<std::string> out;
    for (const GroomElement* e = list.get(); e; e = e->next.get()) out.push_back(e->name);
    return out;
}

TEST(GroomProtected, PrefixesEndAtAComponentAndNamesMatchComponents) {
    GroomList list = listOf({"/usr/lib", "tavik", "/data/keep/", "/bin"});
    struct {
        const char* path;
        int want;
    } cases[] = {
        {"/usr/lib", -1},        {"/usr/lib/", -1},        {"/usr/lib/x", -1},      {"/usr/library", 0},
        {"/usr/li", 0},          {"/usr", 0},              {"/opt/tavik", -1},      {"/opt/tavik/x", -1},
        {"/tavik", -1},          {"/opt/tavikd/x", 0},     {"/opt/xtavik", 0},      {"tavik/x", 0},
        {"/data/keep/f", -1},    {"/data/keep", -1},       {"/data/keeper", 0},     {"/bin", -1},
        {"/binary", 0},          {"/sbin/x", 0},           {"", 0},                 {"/", 0},
    };
    for (const auto& c : cases) EXPECT_EQ(IsProtected(c.path, list.get()), c.want) << c.path;
    GroomList all = listOf({"/"});
    EXPECT_EQ(IsProtected("/anything/at/all", all.get()), -1);
    EXPECT_EQ(IsProtected("/anything", nullptr), 0);
}

TEST(GroomProtected, ElementsAndTheControlFileOfTheLogDirectory) {
    // An element drops the line's last character, whatever it is.
    EXPECT_EQ(new_element("/etc\n")->name, "/etc");
    EXPECT_EQ(new_element("x")->name, "");
    EXPECT_EQ(new_element("")->name, "");
    EXPECT_EQ(new_element("/etc\n")->next, nullptr);
    EXPECT_EQ(ControlFileOf("/opt/agent/LOG"), "/opt/agent/groom.cntl");
    EXPECT_EQ(ControlFileOf("/opt/agent/LOG/"), "/opt/agent/groom.cntl");
    EXPECT_EQ(ControlFileOf("/var/log/agent"), "/var/log/agent/groom.cntl");
}

class GroomControlFile : public groomtest::GroomScratch {};

TEST_F(GroomControlFile, ReadsLinesThatBeginWithASlash) {
    std::string cntl = home_ + "/groom.cntl";
    writeFile(cntl, "# comment\n/one\nrelative\n\n  /indented\n/two/\n/" + std::string(5000, 'x') + "\n/last");
    GroomList list;
    ASSERT_EQ(dir_cntl(cntl.c_str(), list), 0);
    EXPECT_EQ(names(list), (std::vector<std::string>{"/last", "/two/", "/one"}));
    // Unchanged since the last read: the list is emptied and not read again.
    ASSERT_EQ(dir_cntl(cntl.c_str(), list), 0);
    EXPECT_TRUE(names(list).empty());
    // A missing file protects nothing and is no failure.
    ASSERT_EQ(dir_cntl((home_ + "/none").c_str(), list), 0);
    EXPECT_TRUE(names(list).empty());
}

TEST_F(GroomControlFile, PackageValues) {
    std::string info = root_ + "/pkginfo";
    writeFile(info, "PKG=x\nKRV_HOMEDIR=/wrong\nKRV_HOME=/opt/krv=2\nKRV_HOME=/second\n");
    std::string value;
    // The first line that begins with the name wins, even a longer name.
    ASSERT_TRUE(PackageValue(info.c_str(), "KRV_HOME", value));
    EXPECT_EQ(value, "/wrong");
    ASSERT_TRUE(PackageValue(info.c_str(), "KRV_HOME=", value));
    EXPECT_EQ(value, "/opt/krv=2");
    EXPECT_FALSE(PackageValue(info.c_str(), "TVKBIN", value));
    EXPECT_FALSE(PackageValue((root_ + "/none").c_str(), "PKG", value));
    writeFile(info, "TVKBIN=/opt/bin");
    ASSERT_TRUE(PackageValue(info.c_str(), "TVKBIN", value));
    EXPECT_EQ(value, "/opt/bin") << "a last line without its newline keeps all its text";
}

TEST(GroomTexts, DamagedCatalogueTextsAreNotUsedAsFormats) {
    std::string dir = "/tmp/groomtext-" + std::to_string(getpid());
    std::filesystem::create_directories(dir + "/nls/C");
    groomtest::writeFile(dir + "/bad.msg", "$quote \"\n$set 13\n"
                                           "1 \"%sok %s (%s)\\n\"\n"
                                           "4 \"%s %s %s\\n\"\n"
                                           "5 \"%n\\n\"\n"
                                           "9 \"%s%s\\n\"\n"
                                           "11 \"%ld\\n\"\n");
    ASSERT_EQ(std::system(("gencat " + dir + "/nls/C/tavik.cat " + dir + "/bad.msg").c_str()), 0);
    setenv("LANG", "C", 1);
    setenv("NLSPATH", "/nonexistent/%N", 1);
    tavik::nls::CloseMessages();
    tavik::nls::OpenMessages(dir.c_str(), "tavik");
    EXPECT_STREQ(tavik::groom::GroomText(1), "%sok %s (%s)\n");
    EXPECT_STREQ(tavik::groom::GroomText(4), "catgetsErr") << "three texts for one argument";
    EXPECT_STREQ(tavik::groom::GroomText(5), "catgetsErr");
    EXPECT_STREQ(tavik::groom::GroomText(9), "%s%s\n") << "fewer conversions are harmless";
    EXPECT_STREQ(tavik::groom::GroomText(11), "catgetsErr");
    EXPECT_STREQ(tavik::groom::GroomText(2), "catgetsErr") << "absent";
    tavik::nls::CloseMessages();
    std::filesystem::remove_all(dir);
}

}  // namespace
