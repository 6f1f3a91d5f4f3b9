// The catalogue's locale choice, its kinds, its look-ups and its failures.
#include "nls/messages.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <clocale>
#include <cstdlib>
#include <string>

#include "locales.h"

namespace {

using namespace tavik::nls;

class MessagesTest : public ::testing::Test {
protected:
    void SetUp() override {
        setenv("NLSPATH", "/nonexistent/%N", 1);
        unsetenv("KRV_HOME");
    }
    void TearDown() override { nlstest::restoreC(); }

    // Opens the catalogue with LANG = lang (unset when null) and returns the
    // locale kind.
    static int kindFor(const char* lang, const nlstest::ScratchHome& home) {
        if (lang) setenv("LANG", lang, 1); else unsetenv("LANG");
        OpenMessages(home.dir().c_str(), "tavik");
        int kind = LocaleKind();
        CloseMessages();
        return kind;
    }
};

TEST_F(MessagesTest, LocaleKindsFromLang) {
    const std::string& why = nlstest::prepareLocales();
    if (!why.empty()) GTEST_SKIP() << why;
    nlstest::ScratchHome home({"C", "fr", "de", "german", "ja_JP"});
    struct Case {
        const char* lang;
        const char* locale;
        int kind;
    } cases[] = {
        {nullptr, "C", kKindDefault},      {"", "C", kKindDefault},         {"C", "C", kKindDefault},
        {"xx_YY.bogus", "C", kKindDefault}, {"fr", "fr", kKindFrench},      {"de", "de", kKindGerman},
        {"german", "german", kKindGerman},  {"ja_JP", "ja_JP", kKindJapanese},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.lang ? c.lang : "(unset)");
        EXPECT_EQ(kindFor(c.lang, home), c.kind);
        EXPECT_STREQ(MessageLocale(), c.locale);
        EXPECT_STREQ(getenv("LANG"), c.locale);
        EXPECT_EQ(MessageDir(), home.dir() + "/nls/" + c.locale);
    }
}

TEST_F(MessagesTest, LocaleWithoutItsCatalogueFallsBackToC) {
    const std::string& why = nlstest::prepareLocales();
    if (!why.empty()) GTEST_SKIP() << why;
    nlstest::ScratchHome home({"C"});
    EXPECT_EQ(kindFor("fr", home), kKindDefault);
    EXPECT_STREQ(MessageLocale(), "C");
    EXPECT_STREQ(getenv("LANG"), "C");
    EXPECT_STREQ(setlocale(LC_ALL, nullptr), "C");
}

TEST_F(MessagesTest, LooksUpSet13AndFallsBackOutsideIt) {
    // A look-up before the catalogue opens caches set 13 as missing.
    EXPECT_STREQ(GetMessage(13, 4), "catgetsErr");
    nlstest::ScratchHome home({"C"});
    setenv("LANG", "C", 1);
    OpenMessages(home.dir().c_str(), "tavik");
    EXPECT_STREQ(GetMessage(13, 4), "catgetsErr") << "set 13 was cached before the catalogue opened";
    EXPECT_STREQ(GetMessage(12, 1), "catgetsErr");
    CloseMessages();
    OpenMessages(home.dir().c_str(), "tavik");
    EXPECT_STREQ(GetMessage(13, 4), "Tape name: %s\n") << "CloseMessages dropped the cache";
    EXPECT_STREQ(GetMessage(13, 11), "Files deleted in all: %d\n");
    EXPECT_STREQ(GetMessage(13, 9), "%sCould not remove %s (%s)\n");
    const char* again = GetMessage(13, 4);
    EXPECT_EQ(again, GetMessage(13, 4)) << "a cached set hands out the same text";
    for (auto [set, number] : {std::pair{13, 13}, {13, 0}, {35, 1}, {0, 1}, {-1, 1}}) {
        EXPECT_STREQ(GetMessage(set, number), "catgetsErr") << set << " " << number;
    }
    EXPECT_STREQ(GetMessage(1, 1), "catgetsErr") << "a set our catalogue lacks";
    EXPECT_STREQ(GetMessage(14, 1), "catgetsErr") << "an empty set";
    CloseMessages();
    EXPECT_STREQ(GetMessage(13, 4), "catgetsErr") << "closed: no catalogue";
}

TEST_F(MessagesTest, SetSizesTable) {
    for (auto [set, size] : {std::pair{0, 0}, {1, 356}, {10, 1456}, {13, 12}, {14, 0}, {29, 0}, {34, 33}, {35, 0}, {-3, 0}})
        EXPECT_EQ(SetSize(set), size) << set;
    long total = 0;
    for (int set = 0; set <= kLastSet; ++set) total += SetSize(set);
    EXPECT_EQ(total, 6476);
}

TEST_F(MessagesTest, HomeFromKrvHome) {
    nlstest::ScratchHome home({"C"});
    setenv("LANG", "C", 1);
    setenv("KRV_HOME", home.dir().c_str(), 1);
    OpenMessages(nullptr, "tavik");
    EXPECT_EQ(MessageDir(), home.dir() + "/nls/C");
    EXPECT_STREQ(GetMessage(13, 5), "Session number: %s\n");
}

using MessagesDeathTest = MessagesTest;

TEST_F(MessagesDeathTest, MissingKrvHomeEndsTheProcess) {
    EXPECT_EXIT(OpenMessages(nullptr, "tavik"), ::testing::ExitedWithCode(1),
                "Default environmental variable KRV_HOME not set");
}

TEST_F(MessagesDeathTest, MissingCatalogueEndsTheProcess) {
    nlstest::ScratchHome home({});
    setenv("LANG", "C", 1);
    EXPECT_EXIT(
        {
            // The failure line goes to standard output; send it where the test sees it.
            dup2(2, 1);
            OpenMessages(home.dir().c_str(), "tavik");
        },
        ::testing::ExitedWithCode(1), "catopen failed : .*/nls/C/tavik.cat, No such file or directory\\(2\\)");
}

}  // namespace
