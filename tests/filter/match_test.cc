// The wildcard matcher, the file verdict's time lists, and the older
// request-borne selection. (The directory and file verdicts of patterns are
// judged on a whole tree in wire_items_test.cc.)
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

using namespace tavik::filter;
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

// Every pattern of up to four characters from "ab*?[]-!" against every name
// of up to four characters from "ab-]", compared with the plain recursion;
// the cases below are what those alphabets cannot reach: ranges, other
// characters, longer names.
TEST(MatchName, AgreesWithTheRecursionOnEverySmallCase) {
    auto all = [](const std::string& alphabet) {
        std::vector<std::string> out = {""};
        for (size_t begin = 0, len = 1; len <= 4; ++len) {
            const size_t end = out.size();
            for (size_t i = begin; i < end; ++i)
                for (char c : alphabet) out.push_back(out[i] + c);
            begin = end;
        }
        return out;
    };
    size_t disagreements = 0;
    for (const std::string& p : all("ab*?[]-!")) {
        for (const std::string& n : all("ab-]")) {
            if (MatchName(n, p) != filtertest::referenceMatchName(n, p) && ++disagreements <= 10) {
                ADD_FAILURE() << "name [" << n << "] pattern [" << p << "]";
            }
        }
    }
    EXPECT_EQ(disagreements, 0u);
}

TEST(MatchName, StarsQuestionMarksAndLiterals) {
    expectMatches({
        {"a.c", "*.c", 1},   {".c", "*.c", 0},        {"ABC", "abc", 0},      {"abc", "ab", 0},
        {"abxb", "a*b", 1},  {"axbxb", "a*b", 1},     {"abcabd", "*abd", 1},  {"abcab", "*abd", 0},
        {"a.b.c", "*.*", 1}, {"a.", "*.*", 1},        {"abc", "ab?", 1},      {"x1", "*[0-9]", 1},
        {"1", "*[0-9]", 0},
    });
}

TEST(MatchName, CharacterClassesAndLeadingBang) {
    expectMatches({
        {"file7", "file[0-9]", 1}, {"fileA", "file[0-9]", 0}, {"file", "file[0-9]", 0},
        {"c", "[a-ce-g]", 1},      {"d", "[a-ce-g]", 0},      {"f", "[a-ce-g]", 1},
        {"d", "[a-c-e]", 1},       {"b", "[z-a]", 0},         {"x", "[xyz]", 1},
        // No negated classes: "!" and "^" are ordinary members.
        {"^", "[^a]", 1},          {"ab", "ab[a-z]", 0},
        // Only a leading "!" inverts; a later "!" is literal.
        {"core", "!core", 0},      {"core2", "!core", 1},     {"a.o", "!*.o", 0}, {"a.c", "!*.o", 1},
    });
}

TEST(MatchName, MultibyteCharactersByLocale) {
    ASSERT_NE(setlocale(LC_CTYPE, "C.UTF-8"), nullptr);
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
    // In "C" every byte is a character.
    ASSERT_NE(setlocale(LC_CTYPE, "C"), nullptr);
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

// A filter on root /home/, including "*.c" and excluding "*.o" when `sources`.
Filter homeFilter(bool sources) {
    Filter f;
    f.filterRoot = "/home/";
    f.filterRootLen = 6;
    if (sources) {
        EXPECT_EQ(StorePattern(f, false, "*.c", f.FileIncPattern, false), 0);
        EXPECT_EQ(StorePattern(f, false, "*.o", f.FileExcPattern, false), 0);
    }
    return f;
}

TEST(FileSelected, TimeListsWithPatterns) {
    filtertest::setTimeZone(filtertest::kNewYorkTz);
    Filter f = homeFilter(true);
    const time_t now = utc(2026, 6, 15, 16);  // 12:00 local
    // Include: modified within 7 days; exclude: accessed on or before 1 June.
    ASSERT_EQ(StoreTime({.which = 1, .kind = 3, .first = 7, .unit = 0}, f.TimeIncPattern, now), 0);
    ASSERT_EQ(StoreTime({.exclude = true, .which = 2, .kind = 0, .first = int32_t(utc(2026, 6, 1))}, f.TimeExcPattern,
                        now),
              0);
    const time_t today = utc(2026, 6, 15, 13);
    const struct {
        const char* path;
        time_t mtime, atime;
        int selected;
    } cases[] = {
        {"/home/a.c", today, today, 1},
        {"/home/a.c", utc(2026, 6, 7, 13), today, 0},  // eight days ago
        {"/home/a.o", today, today, 0},
        // Accessed 1 June 23:00 local (2 June 03:00 UTC): on or before 1 June, excluded.
        {"/home/a.c", today, utc(2026, 6, 2, 3), 0},
        {"/home/a.c", today, utc(2026, 6, 2, 4), 1},
    };
    for (const auto& c : cases) EXPECT_EQ(FileSelected(f, c.path, statWithTimes(c.mtime, c.atime)), c.selected);

    // An unknown time field or kind never matches.
    Filter g = homeFilter(false);
    const struct stat st = statWithTimes(100, 100, 100);
    ASSERT_EQ(StoreTime({.which = 3, .kind = 1, .first = 0}, g.TimeExcPattern, 0), 0);
    ASSERT_EQ(StoreTime({.which = 1, .kind = 7, .first = 0, .second = 1000}, g.TimeExcPattern, 0), 0);
    EXPECT_EQ(FileSelected(g, "/home/a", st), 1) << "neither exclusion applies";
    g.TimeExcPattern.clear();
    ASSERT_EQ(StoreTime({.which = 5, .kind = 2, .first = 0, .second = 1000}, g.TimeIncPattern, 0), 0);
    EXPECT_EQ(FileSelected(g, "/home/a", st), 0) << "an inclusion that never matches selects nothing";
}

TEST(PackedTime, UtcFieldsInTheirBits) {
    filtertest::setTimeZone(filtertest::kNewYorkTz);
    EXPECT_EQ(uint32_t(packedTime(utc(2026, 3, 10, 14, 30, 58))), 0x5C6A73DDu);
    EXPECT_EQ(uint32_t(packedTime(utc(1980, 1, 1))), 0x00210000u);
    // From 2044 on the year reaches bit 31 and the value is negative.
    EXPECT_LT(packedTime(utc(2045, 1, 1)), 0);
}

// The verdicts of `judge` on each of `names`, in order.
template <class Judge>
std::vector<int> verdicts(Judge judge, std::initializer_list<const char*> names) {
    std::vector<int> out;
    for (const char* name : names) out.push_back(judge(name));
    return out;
}

TEST(OldSelection, FileListModesAndCountBound) {
    OldSelection s;
    s.fileCount = 2;
    s.fileMode = 1;
    s.files = {"*.c", "core"};
    auto selected = [&s](const char* name) { return OldFileSelected(s, name, statWithTimes(0)); };
    EXPECT_EQ(verdicts(selected, {"a.c", "core", "a.o"}), (std::vector<int>{1, 1, 0}));
    s.fileMode = 0;
    EXPECT_EQ(verdicts(selected, {"a.c", "a.o"}), (std::vector<int>{0, 1}));
    // A count above 16 reads the 16 entries; the last one still counts.
    s.fileCount = 200;
    s.fileMode = 1;
    s.files[15] = "*.h";
    EXPECT_EQ(verdicts(selected, {"x.h", "x.y"}), (std::vector<int>{1, 0}));
    s.fileCount = 0;
    EXPECT_EQ(selected("x.y"), 1);
}

TEST(OldSelection, DateMethodsAtTheThreshold) {
    const time_t mtime = utc(2026, 3, 10, 14, 30, 58);
    OldSelection s;
    s.timeThresh = packedTime(mtime);
    // Modified after the threshold (2), at or before it (3); a file from
    // 2045 packs negative, "before" any threshold of ours; other methods pass all.
    const struct {
        uint8_t method;
        time_t mtime;
        int selected;
    } cases[] = {{2, mtime, 0}, {2, mtime + 2, 1}, {3, mtime, 1},  {3, mtime + 2, 0}, {3, utc(2045, 1, 1), 1},
                 {0, mtime, 1}, {1, mtime, 1},     {4, mtime, 1},  {255, mtime, 1}};
    for (const auto& c : cases) {
        s.method = c.method;
        EXPECT_EQ(OldFileSelected(s, "f", statWithTimes(c.mtime)), c.selected) << int(c.method) << " " << c.mtime;
    }
}

TEST(OldSelection, DirectoryModesEmptyListAndCountBound) {
    OldSelection s;
    auto listed = [&s](const char* name) { return OldDirListed(s, name); };
    EXPECT_EQ(listed("x"), 1) << "empty excluding list passes everything";
    s.dirMode = 1;
    EXPECT_EQ(listed("x"), 0) << "empty including list passes nothing";
    s.dirCount = 17;
    s.dirs[0] = "src";
    s.dirs[15] = "doc";
    // Exact comparison, no wildcards.
    EXPECT_EQ(verdicts(listed, {"src", "doc", "sr*", "s*"}), (std::vector<int>{1, 1, 0, 0}));
    s.dirMode = 0;
    EXPECT_EQ(verdicts(listed, {"src", "lib"}), (std::vector<int>{0, 1}));
}

TEST(InNameList, ExactNamesWithinTheCount) {
    const char* const names[] = {"usr", "home", nullptr};
    const struct {
        const char* name;
        int count, listed;
    } cases[] = {
        {"home", 2, 1}, {"home", 1, 0}, {"hom", 2, 0}, {"usr", 0, 0}, {"usr", -3, 0},
        {"x", 1000, 0},  // a count past the table reads no further
    };
    for (const auto& c : cases) EXPECT_EQ(InNameList(c.name, c.count, names), c.listed) << c.name << " " << c.count;
    const std::vector<std::string> list = {"a", "b*"};
    EXPECT_EQ(InNameList("b*", 2, list), 1);
    EXPECT_EQ(InNameList("bx", 2, list), 0);
}

}  // namespace
