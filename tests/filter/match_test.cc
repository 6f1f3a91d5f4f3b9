// The wildcard matcher, the directory and file verdicts, and the older
// request-borne selection.
#include "filter/match.h"

#include <gtest/gtest.h>

#include <chrono>
#include <clocale>
#include <string>
#include <vector>

#include "filter/filter.h"
#include "filter_test_support.h"
#include "reference_match.h"

namespace {

using tavik::filter::DirVerdict;
using tavik::filter::DirVerdictOf;
using tavik::filter::FileSelected;
using tavik::filter::Filter;
using tavik::filter::MatchName;
using filtertest::statWithTimes;
using filtertest::utc;

struct MatchCase {
    const char* name;
    const char* pattern;
    int expected;
};

void expectMatches(const std::vector<MatchCase>& cases) {
    for (const MatchCase& c : cases) {
        EXPECT_EQ(MatchName(c.name, c.pattern), c.expected)
            << "name [" << c.name << "] pattern [" << c.pattern << "]";
    }
}

class ScopedLocale {
public:
    explicit ScopedLocale(const char* locale) : saved_(setlocale(LC_CTYPE, nullptr)) {
        ok_ = setlocale(LC_CTYPE, locale) != nullptr;
    }
    ~ScopedLocale() { setlocale(LC_CTYPE, saved_.c_str()); }
    bool ok() const { return ok_; }

private:
    std::string saved_;
    bool ok_ = false;
};

TEST(MatchName, StarsQuestionMarksAndLiterals) {
    expectMatches({
        {"a.c", "*.c", 1},  {".c", "*.c", 0},     {"abc", "a*", 1},   {"ab", "a*b", 0},
        {"abxb", "a*b", 1}, {"abb", "a*b", 1},    {"ABC", "abc", 0},  {"abc", "abc", 1},
        {"ab", "ab*", 1},   {"a", "a*", 1},       {"", "*", 1},       {"", "a*", 0},
        {"", "", 1},        {"a", "", 0},         {"abc", "ab", 0},   {"ab", "abc", 0},
        {"c", "*c", 0},     {"xyc", "*c", 1},     {"ab", "a**", 1},   {"a", "a**", 0},
        {"ab", "ab?", 0},   {"abc", "ab?", 1},    {"a", "?", 1},      {"", "?", 0},
        {"x1", "*[0-9]", 1}, {"1", "*[0-9]", 0},  {"a.b.c", "*.*", 1}, {"a.", "*.*", 1},
        {"axbxb", "a*b", 1}, {"abcabd", "*abd", 1}, {"abcab", "*abd", 0},
    });
}

TEST(MatchName, CharacterClasses) {
    expectMatches({
        {"file7", "file[0-9]", 1}, {"fileA", "file[0-9]", 0}, {"file", "file[0-9]", 0},
        {"c", "[a-ce-g]", 1},      {"d", "[a-ce-g]", 0},      {"f", "[a-ce-g]", 1},
        {"d", "[a-c-e]", 1},       {"b", "[z-a]", 0},         {"x", "[xyz]", 1},
        // A leading "-" has nothing before it and stands for itself; so does a final one.
        {"-", "[-a]", 1},          {"a", "[-a]", 1},          {"b", "[-a]", 0},
        {"-", "[a-]", 1},          {"b", "[a-]", 0},
        // "[" without "]" never matches, wherever it stands.
        {"[", "[", 0},             {"a", "[a", 0},            {"ab", "a*[b", 0},   {"[a", "[a", 0},
        // "[]" is an empty class: it matches nothing.
        {"]", "[]", 0},            {"a", "[]a", 0},           {"]", "[]]", 0},
        // No negated classes: "!" and "^" are ordinary members.
        {"!", "[!a]", 1},          {"b", "[!a]", 0},          {"^", "[^a]", 1},
        // A class needs a character: none at the end of the name.
        {"ab", "ab[a-z]", 0},
    });
}

TEST(MatchName, LeadingBangInverts) {
    expectMatches({
        {"core", "!core", 0}, {"core2", "!core", 1}, {"x", "!*", 0},  {"", "!", 0},
        {"a", "!", 1},        {"a.o", "!*.o", 0},    {"a.c", "!*.o", 1},
        // Only the first character inverts; a later "!" is literal.
        {"!a", "!!a", 0},     {"a", "!!a", 1},       {"a!", "a!", 1},
    });
}

TEST(MatchName, MultibyteCharactersInUtf8) {
    ScopedLocale locale("C.UTF-8");
    ASSERT_TRUE(locale.ok());
    expectMatches({
        {"\xC3\xA9", "?", 1},                 // é is one character
        {"\xC3\xA9", "??", 0},
        {"x\xC3\xA9", "*\xC3\xA9", 1},
        {"\xC3\xA9", "*\xC3\xA9", 0},          // the star needs a character of its own
        {"\xE2\x82\xAC" "1", "?[0-9]", 1},    // a three-byte character, then a digit
        {"\xC3\xA9", "[\xC3\xA9]", 1},
        // Characters are compared by their first byte: è matches é.
        {"\xC3\xA8", "\xC3\xA9", 1},
        {"\xC3\xA8", "[\xC3\xA9]", 1},
        // As signed bytes, a lead byte sorts before every ASCII letter.
        {"\xC3\xA9", "[a-z]", 0},
        {"a", "[\xC3\xA9-z]", 1},
        // Invalid and cut-off sequences advance by one byte.
        {"\xFF\xFE", "??", 1},
        {"a\xC3", "a?", 1},
        {"\xC3", "[\xC3]", 1},
    });
}

TEST(MatchName, MultibyteBytesInTheCLocale) {
    ScopedLocale locale("C");
    ASSERT_TRUE(locale.ok());
    expectMatches({{"\xC3\xA9", "?", 0}, {"\xC3\xA9", "??", 1}});
}

TEST(MatchName, ManyStarsStayFast) {
    const std::string name(4000, 'a');
    std::string pattern;
    for (int i = 0; i < 40; ++i) pattern += "*a";
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(MatchName(name, pattern + "*b"), 0);
    EXPECT_EQ(MatchName(name, pattern), 1);
    EXPECT_EQ(MatchName(name + "b", pattern + "*b"), 1);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
}

// Every pattern of up to four characters from "ab*?[]-!" against every name
// of up to four characters from "ab-]", compared with the plain recursion.
TEST(MatchName, AgreesWithTheRecursionOnEverySmallCase) {
    const std::string patternAlphabet = "ab*?[]-!";
    const std::string nameAlphabet = "ab-]";
    auto all = [](const std::string& alphabet, size_t maxLen) {
        std::vector<std::string> out = {""};
        for (size_t begin = 0, len = 1; len <= maxLen; ++len) {
            const size_t end = out.size();
            for (size_t i = begin; i < end; ++i)
                for (char c : alphabet) out.push_back(out[i] + c);
            begin = end;
        }
        return out;
    };
    const std::vector<std::string> patterns = all(patternAlphabet, 4);
    const std::vector<std::string> names = all(nameAlphabet, 4);
    size_t disagreements = 0;
    for (const std::string& p : patterns) {
        for (const std::string& n : names) {
            if (MatchName(n, p) != filtertest::referenceMatchName(n, p) && ++disagreements <= 10) {
                ADD_FAILURE() << "name [" << n << "] pattern [" << p << "]";
            }
        }
    }
    EXPECT_EQ(disagreements, 0u);
}

// A filter on root /home/ from pattern texts, stored as the items would.
struct Patterns {
    std::vector<std::string> dirInc = {}, dirExc = {}, fileInc = {}, fileExc = {};
};

Filter buildFilter(const Patterns& p) {
    Filter f;
    f.filterRoot = "/home/";
    f.filterRootLen = f.filterRoot.size();
    for (const auto& t : p.dirInc) EXPECT_EQ(tavik::filter::StorePattern(f, true, t, f.DirIncPattern, false), 0);
    for (const auto& t : p.dirExc) EXPECT_EQ(tavik::filter::StorePattern(f, true, t, f.DirExcPattern, false), 0);
    for (const auto& t : p.fileInc) EXPECT_EQ(tavik::filter::StorePattern(f, false, t, f.FileIncPattern, false), 0);
    for (const auto& t : p.fileExc) EXPECT_EQ(tavik::filter::StorePattern(f, false, t, f.FileExcPattern, false), 0);
    return f;
}

TEST(DirVerdictOf, EmptyListsBackUpEverything) {
    Filter f = buildFilter({});
    EXPECT_EQ(DirVerdictOf(f, "/home/anything/at/all"), DirVerdict::BackUp);
}

TEST(DirVerdictOf, ExcludedNameAnywhereBelowTheRoot) {
    Filter f = buildFilter({.dirExc = {"tmp"}});
    EXPECT_EQ(DirVerdictOf(f, "/home/tmp"), DirVerdict::Excluded);
    EXPECT_EQ(DirVerdictOf(f, "/home/a/tmp"), DirVerdict::Excluded);
    EXPECT_EQ(DirVerdictOf(f, "/home/a/tmp/b/c"), DirVerdict::Excluded);
    EXPECT_EQ(DirVerdictOf(f, "/home/a/tmpx"), DirVerdict::BackUp);
    EXPECT_EQ(DirVerdictOf(f, "/home/a/b"), DirVerdict::BackUp);
}

TEST(DirVerdictOf, PathIncludeLeavesOthersToDescendOnly) {
    Filter f = buildFilter({.dirInc = {"/home/u*"}});
    EXPECT_EQ(DirVerdictOf(f, "/home/u1"), DirVerdict::BackUp);
    EXPECT_EQ(DirVerdictOf(f, "/home/u1/src"), DirVerdict::BackUp);
    EXPECT_EQ(DirVerdictOf(f, "/home/u1/src/deep"), DirVerdict::BackUp);
    EXPECT_EQ(DirVerdictOf(f, "/home/x"), DirVerdict::DescendOnly);
    EXPECT_EQ(DirVerdictOf(f, "/home/x/u1"), DirVerdict::DescendOnly);
    // A trailing star also stands for no character at all.
    EXPECT_EQ(DirVerdictOf(f, "/home/u"), DirVerdict::BackUp);
    EXPECT_EQ(DirVerdictOf(f, "/home/v/u"), DirVerdict::DescendOnly);
}

TEST(DirVerdictOf, DeeperPathPatternAndExclusionFirst) {
    Filter f = buildFilter({.dirInc = {"/home/src/tmp/", "/home/u*"}, .dirExc = {"/home/u2"}});
    EXPECT_EQ(DirVerdictOf(f, "/home/src/tmp"), DirVerdict::BackUp);
    EXPECT_EQ(DirVerdictOf(f, "/home/src/tmp/x"), DirVerdict::BackUp);
    EXPECT_EQ(DirVerdictOf(f, "/home/src/other"), DirVerdict::DescendOnly);
    EXPECT_EQ(DirVerdictOf(f, "/home/u2"), DirVerdict::Excluded);
    EXPECT_EQ(DirVerdictOf(f, "/home/u2/x"), DirVerdict::Excluded);
    EXPECT_EQ(DirVerdictOf(f, "/home/u3"), DirVerdict::BackUp);
}

TEST(FileSelected, PathAndNamePatterns) {
    const struct stat st = statWithTimes(0);
    Filter byPath = buildFilter({.fileInc = {"/home/u1/*.c"}});
    EXPECT_EQ(FileSelected(byPath, "/home/u1/a.c", st), 1);
    EXPECT_EQ(FileSelected(byPath, "/home/u1/sub/a.c", st), 0);
    EXPECT_EQ(FileSelected(byPath, "/home/u1/a.h", st), 0);
    Filter byName = buildFilter({.fileInc = {"*.c"}});
    EXPECT_EQ(FileSelected(byName, "/home/u1/a.c", st), 1);
    EXPECT_EQ(FileSelected(byName, "/home/u1/sub/a.c", st), 1);
    Filter atRoot = buildFilter({.fileInc = {"/home/*.c"}});
    EXPECT_EQ(FileSelected(atRoot, "/home/a.c", st), 1);
    EXPECT_EQ(FileSelected(atRoot, "/home/u1/a.c", st), 0);
}

TEST(FileSelected, ExclusionWinsOverInclusion) {
    const struct stat st = statWithTimes(0);
    Filter f = buildFilter({.fileInc = {"*.c"}, .fileExc = {"test_*"}});
    EXPECT_EQ(FileSelected(f, "/home/a/test_x.c", st), 0);
    EXPECT_EQ(FileSelected(f, "/home/a/x.c", st), 1);
    EXPECT_EQ(FileSelected(f, "/home/a/test_x.h", st), 0);
}

TEST(FileSelected, TimeListsWithPatterns) {
    filtertest::setTimeZone(filtertest::kNewYorkTz);
    Filter f = buildFilter({.fileInc = {"*.c"}, .fileExc = {"*.o"}});
    const time_t now = utc(2026, 6, 15, 16);  // 12:00 local
    // Include: modified within 7 days; exclude: accessed on or before 1 June.
    ASSERT_EQ(tavik::filter::StoreTime({.which = 1, .kind = 3, .first = 7, .unit = 0}, f.TimeIncPattern, now), 0);
    ASSERT_EQ(tavik::filter::StoreTime({.exclude = true, .which = 2, .kind = 0, .first = int32_t(utc(2026, 6, 1))},
                                       f.TimeExcPattern, now),
              0);
    const time_t today = utc(2026, 6, 15, 13);
    const time_t eightDaysAgo = utc(2026, 6, 7, 13);
    EXPECT_EQ(FileSelected(f, "/home/a.c", statWithTimes(today, today)), 1);
    EXPECT_EQ(FileSelected(f, "/home/a.c", statWithTimes(eightDaysAgo, today)), 0);
    EXPECT_EQ(FileSelected(f, "/home/a.o", statWithTimes(today, today)), 0);
    // Accessed 1 June 23:00 local (2 June 03:00 UTC): on or before 1 June, excluded.
    EXPECT_EQ(FileSelected(f, "/home/a.c", statWithTimes(today, utc(2026, 6, 2, 3))), 0);
    EXPECT_EQ(FileSelected(f, "/home/a.c", statWithTimes(today, utc(2026, 6, 2, 4))), 1);
}

TEST(FileSelected, UnknownTimeOrKindNeverMatches) {
    Filter f = buildFilter({});
    const struct stat st = statWithTimes(100, 100, 100);
    ASSERT_EQ(tavik::filter::StoreTime({.which = 3, .kind = 1, .first = 0}, f.TimeExcPattern, 0), 0);
    ASSERT_EQ(tavik::filter::StoreTime({.which = 1, .kind = 7, .first = 0, .second = 1000}, f.TimeExcPattern, 0), 0);
    EXPECT_EQ(FileSelected(f, "/home/a", st), 1) << "neither exclusion applies";
    f.TimeExcPattern.clear();
    ASSERT_EQ(tavik::filter::StoreTime({.which = 5, .kind = 2, .first = 0, .second = 1000}, f.TimeIncPattern, 0), 0);
    EXPECT_EQ(FileSelected(f, "/home/a", st), 0) << "an inclusion that never matches selects nothing";
}

TEST(PackedTime, UtcFieldsInTheirBits) {
    filtertest::setTimeZone(filtertest::kNewYorkTz);
    EXPECT_EQ(uint32_t(tavik::filter::packedTime(utc(2026, 3, 10, 14, 30, 58))), 0x5C6A73DDu);
    EXPECT_EQ(uint32_t(tavik::filter::packedTime(utc(1980, 1, 1))), 0x00210000u);
    // From 2044 on the year reaches bit 31 and the value is negative.
    EXPECT_LT(tavik::filter::packedTime(utc(2045, 1, 1)), 0);
}

TEST(OldFileSelected, FileListModesAndCountBound) {
    tavik::filter::OldSelection s;
    s.fileCount = 2;
    s.fileMode = 1;
    s.files[0] = "*.c";
    s.files[1] = "core";
    const struct stat st = statWithTimes(0);
    EXPECT_EQ(tavik::filter::OldFileSelected(s, "a.c", st), 1);
    EXPECT_EQ(tavik::filter::OldFileSelected(s, "core", st), 1);
    EXPECT_EQ(tavik::filter::OldFileSelected(s, "a.o", st), 0);
    s.fileMode = 0;
    EXPECT_EQ(tavik::filter::OldFileSelected(s, "a.c", st), 0);
    EXPECT_EQ(tavik::filter::OldFileSelected(s, "a.o", st), 1);
    // A count above 16 reads the 16 entries; the last one still counts.
    s.fileCount = 200;
    s.fileMode = 1;
    s.files[15] = "*.h";
    EXPECT_EQ(tavik::filter::OldFileSelected(s, "x.h", st), 1);
    EXPECT_EQ(tavik::filter::OldFileSelected(s, "x.y", st), 0);
    s.fileCount = 0;
    EXPECT_EQ(tavik::filter::OldFileSelected(s, "x.y", st), 1);
}

TEST(OldFileSelected, DateMethodsAtTheThreshold) {
    tavik::filter::OldSelection s;
    const time_t mtime = utc(2026, 3, 10, 14, 30, 58);
    const struct stat st = statWithTimes(mtime);
    s.timeThresh = tavik::filter::packedTime(mtime);
    s.method = 2;
    EXPECT_EQ(tavik::filter::OldFileSelected(s, "f", st), 0) << "not modified after the threshold";
    EXPECT_EQ(tavik::filter::OldFileSelected(s, "f", statWithTimes(mtime + 2)), 1);
    s.method = 3;
    EXPECT_EQ(tavik::filter::OldFileSelected(s, "f", st), 1);
    EXPECT_EQ(tavik::filter::OldFileSelected(s, "f", statWithTimes(mtime + 2)), 0);
    // Signed comparison: a file from 2045 packs negative, "before" any threshold of ours.
    EXPECT_EQ(tavik::filter::OldFileSelected(s, "f", statWithTimes(utc(2045, 1, 1))), 1);
    for (uint8_t method : {0, 1, 4, 255}) {
        s.method = method;
        EXPECT_EQ(tavik::filter::OldFileSelected(s, "f", st), 1) << int(method);
    }
}

TEST(OldDirListed, ModesEmptyListAndCountBound) {
    tavik::filter::OldSelection s;
    EXPECT_EQ(tavik::filter::OldDirListed(s, "x"), 1) << "empty excluding list passes everything";
    s.dirMode = 1;
    EXPECT_EQ(tavik::filter::OldDirListed(s, "x"), 0) << "empty including list passes nothing";
    s.dirCount = 17;
    s.dirs[0] = "src";
    s.dirs[15] = "doc";
    EXPECT_EQ(tavik::filter::OldDirListed(s, "src"), 1);
    EXPECT_EQ(tavik::filter::OldDirListed(s, "doc"), 1);
    EXPECT_EQ(tavik::filter::OldDirListed(s, "sr*"), 0);
    EXPECT_EQ(tavik::filter::OldDirListed(s, "s*"), 0) << "exact comparison, no wildcards";
    s.dirMode = 0;
    EXPECT_EQ(tavik::filter::OldDirListed(s, "src"), 0);
    EXPECT_EQ(tavik::filter::OldDirListed(s, "lib"), 1);
}

TEST(InNameList, ExactNamesWithinTheCount) {
    const char* const names[] = {"usr", "home", nullptr};
    EXPECT_EQ(tavik::filter::InNameList("home", 2, names), 1);
    EXPECT_EQ(tavik::filter::InNameList("home", 1, names), 0);
    EXPECT_EQ(tavik::filter::InNameList("hom", 2, names), 0);
    EXPECT_EQ(tavik::filter::InNameList("usr", 0, names), 0);
    EXPECT_EQ(tavik::filter::InNameList("usr", -3, names), 0);
    EXPECT_EQ(tavik::filter::InNameList("x", 1000, names), 0) << "a count past the table reads no further";
    const std::vector<std::string> list = {"a", "b*"};
    EXPECT_EQ(tavik::filter::InNameList("b*", 2, list), 1);
    EXPECT_EQ(tavik::filter::InNameList("bx", 2, list), 0);
}

}  // namespace
