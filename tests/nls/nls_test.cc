// The catalogue's locale choice, its kinds and look-ups; the date and time
// styles of each locale kind; the multibyte
// helpers byte-wise in "C" and by character in a Japanese (Shift JIS)
// locale, where the second byte of a two-byte character can look like an
// ASCII character.
//
// Locales are made with localedef in a scratch directory that LOCPATH
// points to (no system locale is touched); scratch homes hold the built
// catalogue under nls/<locale>/tavik.cat.
#include <unistd.h>

#include <gtest/gtest.h>

#include <clocale>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "nls/dates.h"
#include "nls/mbstring.h"
#include "nls/messages.h"

namespace {

using namespace tavik::nls;
namespace fs = std::filesystem;

// The test program's scratch directory, made once and removed at its exit:
// a home with the built catalogue under nls/<locale>/tavik.cat for "C" and
// each locale but de_DE.ISO-8859-1 ("german" is the platform's alias of
// that one), and the locales made with localedef (LOCPATH points to it; no
// system locale is touched).
const std::string& home() {
    static const std::string dir = [] {
        char tmpl[] = "/tmp/nlstest-XXXXXX";
        if (!mkdtemp(tmpl)) std::abort();
        setenv("LOCPATH", tmpl, 1);
        // Removed by this process only, not by the children of death tests.
        static const pid_t owner = getpid();
        std::atexit([] {
            const char* d = getenv("LOCPATH");
            std::error_code ec;
            if (getpid() == owner && d && std::string(d).rfind("/tmp/nlstest-", 0) == 0) fs::remove_all(d, ec);
        });
        for (const char* locale : {"C", "fr", "de", "german", "ja_JP", "ja_JP.SJIS"}) {
            const std::string at = std::string(tmpl) + "/nls/" + locale;
            fs::create_directories(at);
            fs::copy_file(std::string(TAVIK_CATALOGUE_HOME) + "/nls/C/tavik.cat", at + "/tavik.cat");
        }
        return std::string(tmpl);
    }();
    return dir;
}

// Makes the locales once; "" when all were made, else why not.
const std::string& localesMissing() {
    static const std::string why = [] {
        const char* const locales[][3] = {{"fr", "fr_FR", "ISO-8859-1"},
                                          {"de", "de_DE", "ISO-8859-1"},
                                          {"de_DE.ISO-8859-1", "de_DE", "ISO-8859-1"},
                                          {"ja_JP", "ja_JP", "EUC-JP"},
                                          {"ja_JP.SJIS", "ja_JP", "SHIFT_JIS"}};
        for (const auto& [name, source, charmap] : locales) {
            const std::string at = home() + "/" + name;
            // -c: SHIFT_JIS is not ASCII-compatible, which localedef only warns about.
            std::system(("localedef -c -i " + std::string(source) + " -f " + charmap + " '" + at + "' >/dev/null 2>&1")
                            .c_str());
            if (!fs::exists(at + "/LC_CTYPE"))
                return "localedef could not make the locale " + at + " (install the locales package: tools/deps.sh)";
        }
        return std::string();
    }();
    return why;
}

class NlsTest : public ::testing::Test {
protected:
    void SetUp() override {
        setenv("NLSPATH", "/nonexistent/%N", 1);
        unsetenv("KRV_HOME");
    }
    void TearDown() override { restoreC(); }

    // Back to the "C" locale with no catalogue open and no set cached.
    static void restoreC() {
        setenv("LANG", "C", 1);
        OpenMessages(home().c_str(), "tavik");
        CloseMessages();
        setlocale(LC_ALL, "C");
    }

    // Opens the catalogue for `locale` (LANG = locale); false, with the
    // reason in skip_, when the locale cannot be had.
    bool enter(const char* locale) {
        skip_ = std::string(locale) == "C" ? "" : localesMissing();
        if (!skip_.empty()) return false;
        setenv("LANG", locale, 1);
        OpenMessages(home().c_str(), "tavik");
        skip_ = std::string("the platform rejects ") + locale;
        return std::string(MessageLocale()) == locale;
    }

    std::string skip_;
};

using MessagesTest = NlsTest;
using DatesTest = NlsTest;
using MbCTest = NlsTest;

// LANG picks the locale, its kind and its catalogue; a locale that cannot be
// set, or whose catalogue is missing, falls back to "C".
TEST_F(MessagesTest, LocaleKindsFromLang) {
    if (!localesMissing().empty()) GTEST_SKIP() << localesMissing();
    const struct {
        const char* lang;
        const char* locale;
        int kind;
    } cases[] = {
        {nullptr, "C", kKindDefault},        {"", "C", kKindDefault},          {"C", "C", kKindDefault},
        {"xx_YY.bogus", "C", kKindDefault},  {"fr", "fr", kKindFrench},        {"de", "de", kKindGerman},
        {"german", "german", kKindGerman},   {"ja_JP", "ja_JP", kKindJapanese},
        {"de_DE.ISO-8859-1", "C", kKindDefault},  // made, but without its catalogue
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.lang ? c.lang : "(unset)");
        if (c.lang) setenv("LANG", c.lang, 1); else unsetenv("LANG");
        OpenMessages(home().c_str(), "tavik");
        EXPECT_EQ(LocaleKind(), c.kind);
        CloseMessages();
        EXPECT_STREQ(MessageLocale(), c.locale);
        EXPECT_STREQ(getenv("LANG"), c.locale);
        EXPECT_EQ(MessageDir(), home() + "/nls/" + c.locale);
        if (c.kind == kKindDefault) {
            EXPECT_STREQ(setlocale(LC_ALL, nullptr), "C");
        }
    }
}

TEST_F(MessagesTest, LooksUpSet13AndFallsBackOutsideIt) {
    // A look-up before the catalogue opens caches set 13 as missing.
    EXPECT_STREQ(GetMessage(13, 4), "catgetsErr");
    setenv("LANG", "C", 1);
    OpenMessages(home().c_str(), "tavik");
    EXPECT_STREQ(GetMessage(13, 4), "catgetsErr") << "set 13 was cached before the catalogue opened";
    EXPECT_STREQ(GetMessage(12, 1), "catgetsErr");
    CloseMessages();
    OpenMessages(home().c_str(), "tavik");
    // The texts themselves are read in the grooming work files (groom_test).
    EXPECT_STREQ(GetMessage(13, 4), "Tape name: %s\n") << "CloseMessages dropped the cache";
    EXPECT_EQ(GetMessage(13, 4), GetMessage(13, 4)) << "a cached set hands out the same text";
    // Outside the set's size, a set our catalogue lacks (1), an empty set (14).
    for (auto [set, number] : {std::pair{13, 13}, {13, 0}, {35, 1}, {0, 1}, {-1, 1}, {1, 1}, {14, 1}})
        EXPECT_STREQ(GetMessage(set, number), "catgetsErr") << set << " " << number;
    CloseMessages();
    EXPECT_STREQ(GetMessage(13, 4), "catgetsErr") << "closed: no catalogue";
    // Sets beyond the table have no size.
    for (int set : {0, 35, -3}) EXPECT_EQ(SetSize(set), 0) << set;
}

// Sunday 13 March 2005, 14:05:09.
struct tm sample(int year = 105) {
    struct tm t = {};
    t.tm_year = year;
    t.tm_mon = 2;
    t.tm_mday = 13;
    t.tm_wday = 0;
    t.tm_yday = 71;
    t.tm_hour = 14;
    t.tm_min = 5;
    t.tm_sec = 9;
    return t;
}

TEST_F(DatesTest, StylesOfEachLocaleKind) {
    const struct {
        const char* locale;
        int kind;
        std::vector<std::string> dates, times;  // styles 0..5 and 0..4
    } cases[] = {
        {"C", kKindDefault,
         {"", "03/13/05", "03/13/2005", "Mar 13 2005", "Mar-13", ""}, {"", "14:05", "14:05:09", "02:05 PM", ""}},
        {"fr", kKindFrench,
         {"", "13/03/2005", "13/03/2005", "13 mars 2005", "13 mars", ""}, {"", "14:05", "14:05:09", "02:05 ", ""}},
        // "Mär" in ISO-8859-1.
        {"german", kKindGerman,
         {"", "13.03.2005", "13.03.2005", "13. M\xe4r 2005", "13. M\xe4r", ""}, {"", "14:05", "14:05:09", "02:05 ", ""}},
        // Shift JIS: YEAR 0x94 0x4E, MONTH 0x8C 0x8E, DAY 0x93 0xFA, and "%p"
        // of the afternoon 0x8C 0xDF 0x8C 0xE3 ("gogo"). Style 3: "%x"
        // ("2005<year>03<month>13<day>", 14 bytes) less its last 5. Style 4:
        // "03" and the last two bytes of "%m%b", "13" and bytes 6..7 of "%e%A".
        {"ja_JP.SJIS", kKindJapanese,
         {"", "05/03/13", "03/13/2005", "2005\x94\x4e" "03\x8c", "03\x8c\x8e" "13\x93\xfa", ""},
         {"", "14:05", "14:05:09", "02:05 \x8c\xdf\x8c\xe3", ""}},
    };
    const struct tm t = sample();
    for (const auto& c : cases) {
        SCOPED_TRACE(c.locale);
        if (!enter(c.locale)) GTEST_SKIP() << skip_;
        ASSERT_EQ(LocaleKind(), c.kind);
        std::vector<std::string> dates, times;
        for (int style = 0; style <= 5; ++style) dates.push_back(DateText(&t, style).c_str());
        for (int style = 0; style <= 4; ++style) times.push_back(TimeText(&t, style).c_str());
        EXPECT_EQ(dates, c.dates);
        EXPECT_EQ(times, c.times);
        restoreC();
    }
    // Style 1 has no blank: the grooming log's words stay four.
    EXPECT_EQ(strchr(DateTextOf(0, 1).c_str(), ' '), nullptr);
    // Japanese style 1 puts the two-digit year first, also before 2000 and in it.
    ASSERT_TRUE(enter("ja_JP.SJIS"));
    const struct tm old = sample(96), y2000 = sample(100);
    EXPECT_STREQ(DateText(&old, 1).c_str(), "96/03/13");
    EXPECT_STREQ(DateText(&y2000, 1).c_str(), "00/03/13");
}

// Shift JIS: KATAKANA SO is 0x83 0x5C (its second byte is "\"), KATAKANA A
// is 0x83 0x41 (its second byte is "A"), FULLWIDTH A is 0x82 0x60 and its
// small form 0x82 0x81, IDEOGRAPHIC SPACE is 0x81 0x40.
constexpr const char* kSo = "\x83\x5c";
constexpr const char* kKatakanaA = "\x83\x41";

// Where each of `found` lies in `text`: its offset, or -1 for none.
std::vector<long> offsets(const char* text, std::initializer_list<const char*> found) {
    std::vector<long> out;
    for (const char* f : found) out.push_back(f ? f - text : -1);
    return out;
}

// The tokens of `text` between `delimiters`, each in brackets.
std::string tokens(std::string text, const char* delimiters) {
    std::string got;
    MbTokenizer t;
    for (char* tok = MbStrTok(text.data(), delimiters, t); tok; tok = MbStrTok(nullptr, delimiters, t))
        got += std::string("[") + tok + "]";
    return got;
}

// The text left by MbStripSpace over the first `len` bytes, and its length.
std::string stripped(std::string text, int len) {
    MbStripSpace(text.data(), &len);
    return std::string(text.c_str()) + "|" + std::to_string(len);
}

TEST_F(MbCTest, ByteWiseInC) {
    const char* t = "a/b/c";
    EXPECT_EQ(offsets(t, {MbStrChr(t, '/'), MbStrRChr(t, '/'), MbStrChr(t, 'x'), MbStrStr(t, "b/"), MbStrStr(t, "zz"),
                          MbFindChar(t, "/x"), MbFindLastChar(t, "/"), MbFindLastChar(t, "q"), MbStrChr(t, '\0')}),
              (std::vector<long>{1, 3, -1, 2, -1, 1, 3, -1, 5}));  // MbFindChar: the first character of "/x"
    char upper[] = "MiXeD/Path";
    EXPECT_STREQ(MbToLower(upper), "mixed/path");
    EXPECT_EQ(tokens("//usr//local/bin", "/"), "[usr][local][bin]");
    EXPECT_EQ(stripped("a b\tc", 5), "abc|3");
    EXPECT_EQ(stripped(" \t\n", 3), "|0");
    EXPECT_EQ(stripped("a b c d", 3), "ab|2") << "only \"a b\" is walked";
}

class MbJapaneseTest : public NlsTest {
protected:
    void SetUp() override {
        NlsTest::SetUp();
        if (!enter("ja_JP.SJIS")) GTEST_SKIP() << skip_;
        ASSERT_EQ(LocaleKind(), kKindJapanese);
    }
};

TEST_F(MbJapaneseTest, SecondByteOfTwoByteCharacterIsNotMatched) {
    const std::string s = std::string("a") + kSo + "/b\\c";
    const char* t = s.c_str();
    ASSERT_EQ(strchr(t, '\\'), t + 2) << "byte-wise, the second byte of SO looks like a backslash";
    // Byte-wise strstr would find "\/" at 2.
    EXPECT_EQ(offsets(t, {MbStrChr(t, '\\'), MbStrRChr(t, '\\'), MbStrChr(t, '/'), MbStrChr(t, 'z'),
                          MbStrStr(t, "\\c"), MbStrStr(t, "\\/"), MbStrStr(t, "nothing"), MbFindChar(t, kSo),
                          MbFindLastChar(t, "\x81\x40")}),
              (std::vector<long>{5, 5, 3, -1, 5, -1, -1, 1, -1}));
    const std::string two = std::string(kSo) + "x" + kSo;
    EXPECT_EQ(MbFindLastChar(two.c_str(), kSo), two.c_str() + 3);
}

TEST_F(MbJapaneseTest, TokensKeepTwoByteCharactersWhole) {
    EXPECT_EQ(tokens(std::string("ab") + kSo + "cd\\\\ef\\", "\\"), std::string("[ab") + kSo + "cd][ef]");
    // A two-byte delimiter.
    EXPECT_EQ(tokens(std::string("x") + kSo + "y" + kSo + kSo + "z", kSo), "[x][y][z]");
    // Lower case and spaces by character.
    std::string upper = std::string("AB") + kKatakanaA + "\x82\x60";
    MbToLower(upper.data());
    EXPECT_EQ(upper, std::string("ab") + kKatakanaA + "\x82\x81") << "KATAKANA A keeps its second byte";
    const std::string s = std::string("a \x81\x40") + kSo + "\tb";
    EXPECT_EQ(stripped(s, int(s.size())), std::string("a") + kSo + "b|4");
}

}  // namespace
