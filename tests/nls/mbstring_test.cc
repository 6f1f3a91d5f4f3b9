// The multibyte helpers byte-wise in "C" and by character in a Japanese
// (Shift JIS) locale, where the second byte of a two-byte character can look
// like an ASCII character.
#include "nls/mbstring.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "locales.h"

namespace {

using namespace tavik::nls;

// Shift JIS: KATAKANA SO is 0x83 0x5C (its second byte is "\"), KATAKANA A
// is 0x83 0x41 (its second byte is "A"), FULLWIDTH A is 0x82 0x60 and its
// small form 0x82 0x81, IDEOGRAPHIC SPACE is 0x81 0x40.
constexpr const char* kSo = "\x83\x5c";
constexpr const char* kKatakanaA = "\x83\x41";

// The tokens of `text` between `delimiters`, each in brackets.
std::string tokens(std::string text, const char* delimiters) {
    std::string got;
    for (char* tok = MbStrTok(text.data(), delimiters); tok; tok = MbStrTok(nullptr, delimiters))
        got += std::string("[") + tok + "]";
    return got;
}

class MbCTest : public ::testing::Test {
protected:
    void TearDown() override { nlstest::restoreC(); }
};

TEST_F(MbCTest, ByteWiseInC) {
    const char* t = "a/b/c";
    EXPECT_EQ(MbStrChr(t, '/'), t + 1);
    EXPECT_EQ(MbStrRChr(t, '/'), t + 3);
    EXPECT_EQ(MbStrChr(t, 'x'), nullptr);
    EXPECT_EQ(MbStrStr(t, "b/"), t + 2);
    EXPECT_EQ(MbStrStr(t, "zz"), nullptr);
    EXPECT_EQ(MbFindChar(t, "/x"), t + 1) << "the first character of the given string";
    EXPECT_EQ(MbFindLastChar(t, "/"), t + 3);
    EXPECT_EQ(MbFindLastChar(t, "q"), nullptr);
    EXPECT_EQ(MbStrChr(t, '\0'), t + 5);
    char upper[] = "MiXeD/Path";
    EXPECT_STREQ(MbToLower(upper), "mixed/path");
}

TEST_F(MbCTest, TokensAndSpacesInC) {
    EXPECT_EQ(tokens("//usr//local/bin", "/"), "[usr][local][bin]");

    char spaced[] = "a b\tc";
    int len = 5;
    EXPECT_STREQ(MbStripSpace(spaced, &len), "abc");
    EXPECT_EQ(len, 3);
    char only[] = " \t\n";
    len = 3;
    MbStripSpace(only, &len);
    EXPECT_EQ(len, 0);
    EXPECT_STREQ(only, "");
    char part[] = "a b c d";
    len = 3;  // only "a b" is walked
    MbStripSpace(part, &len);
    EXPECT_EQ(len, 2);
    EXPECT_STREQ(part, "ab");
}

class MbJapaneseTest : public ::testing::Test {
protected:
    void SetUp() override {
        const std::string& why = nlstest::prepareLocales();
        if (!why.empty()) GTEST_SKIP() << why;
        home_ = std::make_unique<nlstest::ScratchHome>(std::initializer_list<const char*>{"C", "ja_JP.SJIS"});
        if (!nlstest::openIn(*home_, "ja_JP.SJIS")) GTEST_SKIP() << "the platform rejects ja_JP.SJIS";
        ASSERT_EQ(LocaleKind(), kKindJapanese);
    }
    void TearDown() override { nlstest::restoreC(); }
    std::unique_ptr<nlstest::ScratchHome> home_;
};

TEST_F(MbJapaneseTest, SecondByteOfTwoByteCharacterIsNotMatched) {
    std::string s = std::string("a") + kSo + "/b\\c";
    const char* t = s.c_str();
    ASSERT_EQ(strchr(t, '\\'), t + 2) << "byte-wise, the second byte of SO looks like a backslash";
    EXPECT_EQ(MbStrChr(t, '\\'), t + 5);
    EXPECT_EQ(MbStrRChr(t, '\\'), t + 5);
    EXPECT_EQ(MbStrChr(t, '/'), t + 3);
    EXPECT_EQ(MbStrChr(t, 'z'), nullptr);
    EXPECT_EQ(MbStrStr(t, "\\c"), t + 5);
    EXPECT_EQ(MbStrStr(t, "\\/"), nullptr) << "byte-wise strstr would find it at 2";
    EXPECT_EQ(MbStrStr(t, "nothing"), nullptr);
    EXPECT_EQ(MbFindChar(t, kSo), t + 1);
    std::string two = std::string(kSo) + "x" + kSo;
    EXPECT_EQ(MbFindLastChar(two.c_str(), kSo), two.c_str() + 3);
    EXPECT_EQ(MbFindLastChar(t, "\x81\x40"), nullptr);
}

TEST_F(MbJapaneseTest, LongTextAndBadBytesFallBackToBytes) {
    // 1100 characters: too long for the wide buffers, so scanned byte-wise
    // and the backslash inside SO is found.
    std::string s = std::string(1099, 'x') + kSo;
    EXPECT_EQ(MbStrChr(s.c_str(), '\\'), s.c_str() + 1100);
    std::string shortText = std::string(10, 'x') + kSo;
    EXPECT_EQ(MbStrChr(shortText.c_str(), '\\'), nullptr);
    // A lone lead byte at the end does not convert.
    const char* t = "a/b\x83";
    EXPECT_EQ(MbStrChr(t, '/'), t + 1);
    EXPECT_EQ(MbFindLastChar(t, "/"), nullptr) << "MbFindLastChar gives none instead";
}

TEST_F(MbJapaneseTest, TokensKeepTwoByteCharactersWhole) {
    EXPECT_EQ(tokens(std::string("ab") + kSo + "cd\\\\ef\\", "\\"), std::string("[ab") + kSo + "cd][ef]");
    // A two-byte delimiter.
    EXPECT_EQ(tokens(std::string("x") + kSo + "y" + kSo + kSo + "z", kSo), "[x][y][z]");
}

TEST_F(MbJapaneseTest, LowerCaseAndSpacesByCharacter) {
    std::string upper = std::string("AB") + kKatakanaA + "\x82\x60";
    MbToLower(upper.data());
    EXPECT_EQ(upper, std::string("ab") + kKatakanaA + "\x82\x81") << "KATAKANA A keeps its second byte";
    std::string s = std::string("a \x81\x40") + kSo + "\tb";
    int len = int(s.size());
    MbStripSpace(s.data(), &len);
    EXPECT_EQ(len, 4);
    EXPECT_EQ(std::string(s.c_str()), std::string("a") + kSo + "b");
}

}  // namespace
