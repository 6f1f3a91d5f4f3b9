// Building the filter: pattern splitting, the item log lines, the pattern
// table's bound, time ranges under a fixed clock and time zone, the dump.
#include "filter/filter.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "daemon/state.h"
#include "protocol/filter_items.h"
#include "filter_test_support.h"

namespace {

using namespace tavik::filter;
namespace protocol = tavik::protocol;
using filtertest::utc;

class FilterModel : public filtertest::LoggedTest {
protected:
    // Adds an encoded item (and its data) as the receiving side files it.
    void add(const std::vector<uint8_t>& bytes) {
        ASSERT_GE(bytes.size(), protocol::kFilterItemSize);
        protocol::ItemRecord record(bytes.data(), protocol::kFilterItemSize);
        ASSERT_TRUE(protocol::addReceivedItem(received_, record,
                                    std::span<const uint8_t>(bytes).subspan(protocol::kFilterItemSize)));
    }
    void addPatterns(bool isDirectory, bool exclude, std::vector<std::string> patterns) {
        auto bytes = protocol::encodeNamePatternItem(isDirectory, exclude, patterns);
        ASSERT_TRUE(bytes.has_value());
        add(*bytes);
    }
    // The stored patterns as "[dir][name]", blank-separated.
    static std::string names(const PatternList& list) {
        std::string out;
        for (const PatternNode& p : list) out += (out.empty() ? "[" : " [") + p.dir + "][" + p.name + "]";
        return out;
    }
    protocol::ReceivedFilter received_;
    Filter filter_;
};

TEST_F(FilterModel, StorePathSplitsNamesAndPathsUnderTheRoot) {
    filter_.filterRoot = "/home/";
    filter_.filterRootLen = 6;
    const struct {
        bool isDirectory;
        const char* text;
        int result, nameOnly;
        const char *dir, *name;
    } cases[] = {
        {false, "core", 0, 1, "", "core"},                   {true, "tmp", 0, 1, "", "tmp"},
        {false, "/home/u1/*.c", 0, 0, "u1", "*.c"},           {false, "/home/*.c", 0, 0, "", "*.c"},
        {false, "/home/u1/src/*.c", 0, 0, "u1/src", "*.c"},   {false, "/home/u1/src/", 0, 0, "u1", "src"},
        {true, "/home/u*", 0, 0, "/home", "u*"},              {true, "/home/src/tmp/", 0, 0, "/home/src", "tmp"},
        {true, "/home/", 0, 0, "", "home"},                   {false, "/usr/*.c", -1, 0, "", ""},
        {false, "src/*.c", -1, 0, "", ""},                    {true, "/homework/x", -1, 0, "", ""},
        {true, "/home", -1, 0, "", ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        PatternNode node;
        EXPECT_EQ(StorePath(filter_, c.isDirectory, c.text, node, true), c.result);
        if (c.result == 0) {
            EXPECT_EQ(std::to_string(node.nameOnly) + "|" + node.dir + "|" + node.name,
                      std::to_string(c.nameOnly) + "|" + c.dir + "|" + c.name);
        }
    }
    // Without item logging a rejected pattern is silent.
    PatternNode node;
    EXPECT_EQ(StorePath(filter_, false, "/usr/*.c", node, false), -1);
    const std::vector<std::string> expected = {
        "(StorePath) Ignore invalid filter [/usr/*.c]",
        "(StorePath) Ignore invalid filter [src/*.c]",
        "(StorePath) Ignore invalid filter [/homework/x]",
        "(StorePath) Ignore invalid filter [/home]",
    };
    EXPECT_EQ(logMessages(), expected);
}

TEST_F(FilterModel, ItemsLoggedInWordsAndStoredInOrder) {
    addPatterns(false, false, {"*"});
    addPatterns(false, false, {"core", "/home/u1/*.c", "/usr/*.c", "src/*.c"});
    addPatterns(true, true, {"tmp", "/home/src/tmp/"});
    addPatterns(true, false, {"*"});
    std::vector<uint8_t> unknown(protocol::kFilterItemSize, 0);
    unknown[0] = 0x1a;
    add(unknown);
    add(protocol::encodeDateItem(false, protocol::kWhichModified, protocol::kOnOrBefore, int32_t(utc(2026, 3, 31))));
    add(protocol::encodeDateItem(true, protocol::kWhichChanged, protocol::kOnOrAfter, int32_t(utc(2026, 1, 2))));
    add(protocol::encodeDateItem(false, protocol::kWhichAccessed, protocol::kBetween, int32_t(utc(2026, 2, 1)), int32_t(utc(2026, 1, 5))));
    add(protocol::encodeWithinItem(false, protocol::kWhichModified, 1, protocol::kUnitMonths));

    const time_t now = utc(2026, 5, 31, 15);  // 11:00 local
    EXPECT_EQ(InitializeFilter(filter_, received_, "/home", true, now), -2) << "two patterns rejected";
    EXPECT_EQ(filter_.filterRoot + "|" + std::to_string(filter_.filterRootLen), "/home/|6");

    const std::vector<std::string> expected = {
        "Include file: *",
        "Include file: core",
        "Include file: /home/u1/*.c",
        "Include file: /usr/*.c",
        "(StorePath) Ignore invalid filter [/usr/*.c]",
        "Include file: src/*.c",
        "(StorePath) Ignore invalid filter [src/*.c]",
        "Exclude directory: tmp",
        "Exclude directory: /home/src/tmp/",
        "Include directory: *",
        "(InitializeFilter) Unknown filter type: 1a",
        "Include files modified 'on or before' 03/31/26",
        "Exclude files created 'on or after' 01/02/26",
        "Include files last accessed 'between' 02/01/26 and 01/05/26",  // as sent
        "Include files modified 'between' 04/30/26 and 05/31/26",
    };
    EXPECT_EQ(logMessages(), expected);

    // An include "*" stores nothing.
    EXPECT_EQ(names(filter_.FileIncPattern), "[][core] [u1][*.c]");
    EXPECT_EQ(names(filter_.DirExcPattern), "[][tmp] [/home/src][tmp]");
    EXPECT_EQ(names(filter_.DirIncPattern) + names(filter_.FileExcPattern), "");
    EXPECT_EQ(filter_.patternCount, 4u);
    ASSERT_EQ(filter_.TimeIncPattern.size(), 3u);
    ASSERT_EQ(filter_.TimeExcPattern.size(), 1u);
    // Between, sent in the wrong order, is stored from <= to, each a whole local day.
    EXPECT_EQ(filter_.TimeIncPattern[1].from, utc(2026, 1, 5, 5));
    EXPECT_EQ(filter_.TimeIncPattern[1].to, utc(2026, 2, 2, 4, 59, 59));
}

TEST_F(FilterModel, SecondBuildStartsAfresh) {
    addPatterns(false, true, {"*.o"});
    ASSERT_EQ(InitializeFilter(filter_, received_, "/home/", false, 0), 0);
    ASSERT_EQ(InitializeFilter(filter_, received_, "/usr", false, 0), 0);
    EXPECT_EQ(filter_.FileExcPattern.size(), 1u);
    EXPECT_EQ(filter_.patternCount, 1u);
    EXPECT_EQ(filter_.filterRoot, "/usr/");
    EXPECT_TRUE(logMessages().empty()) << "nothing is logged without item logging";
    ASSERT_EQ(InitializeFilter(filter_, protocol::ReceivedFilter{}, "/", false, 0), 0);
    EXPECT_TRUE(filter_.FileExcPattern.empty());
}

TEST_F(FilterModel, PatternTableHoldsOneHundred) {
    std::vector<std::string> patterns;
    for (int i = 0; i < 101; ++i) patterns.push_back("p" + std::to_string(i));
    addPatterns(false, true, {patterns.begin(), patterns.begin() + 60});
    addPatterns(true, false, {patterns.begin() + 60, patterns.end()});
    EXPECT_EQ(InitializeFilter(filter_, received_, "/", false, 0), -1);
    EXPECT_EQ(filter_.patternCount, 100u);
    EXPECT_EQ(filter_.FileExcPattern.size(), 60u);
    ASSERT_EQ(filter_.DirIncPattern.size(), 40u);
    EXPECT_EQ(filter_.DirIncPattern.back().name, "p99");
    const std::vector<std::string> expected = {
        "(StorePattern) Failed to allocate memory (pattern table of 100 entries is full)"};
    EXPECT_EQ(logMessages(), expected);
}

TEST_F(FilterModel, PatternDataIsReadWithinItsItem) {
    // Count says 5 but the data holds two patterns, the last without its NUL.
    std::vector<uint8_t> bytes(protocol::kFilterItemSize, 0);
    bytes[0] = uint8_t(protocol::kFilePatternItem);
    bytes[4] = 5;
    const std::string data("a.c\0b.c", 7);
    bytes[12] = uint8_t(data.size());
    bytes.insert(bytes.end(), data.begin(), data.end());
    add(bytes);
    // A second item whose count stops before its data ends.
    auto second = protocol::encodeNamePatternItem(false, false, std::vector<std::string>{"x", "y"});
    ASSERT_TRUE(second.has_value());
    (*second)[4] = 1;
    add(*second);
    ASSERT_EQ(InitializeFilter(filter_, received_, "/", false, 0), 0);
    EXPECT_EQ(names(filter_.FileIncPattern), "[][a.c] [][b.c] [][x]");
}

// Within 1 month: from is local midnight one month back (the month's last
// day when it is shorter), to is the end of today.
TEST_F(FilterModel, WithinRangesAtMonthEndsAndAcrossDaylightSaving) {
    const struct {
        time_t now;
        uint32_t n;
        uint16_t unit;
        time_t from, to;
    } cases[] = {
        // 31 March 2026 (daylight time) back to 28 February (standard time).
        {utc(2026, 3, 31, 16), 1, protocol::kUnitMonths, utc(2026, 2, 28, 5), utc(2026, 4, 1, 3, 59, 59)},
        // 2028 is a leap year: 29 February.
        {utc(2028, 3, 31, 16), 1, protocol::kUnitMonths, utc(2028, 2, 29, 5), utc(2028, 4, 1, 3, 59, 59)},
        // 31 May back to 30 April.
        {utc(2026, 5, 31, 16), 1, protocol::kUnitMonths, utc(2026, 4, 30, 4), utc(2026, 6, 1, 3, 59, 59)},
        // 31 January back across the year to 31 December; 31 March back 13 months.
        {utc(2026, 1, 31, 17), 1, protocol::kUnitMonths, utc(2025, 12, 31, 5), utc(2026, 2, 1, 4, 59, 59)},
        {utc(2026, 3, 31, 16), 13, protocol::kUnitMonths, utc(2025, 2, 28, 5), utc(2026, 4, 1, 3, 59, 59)},
        // 10 March, after the change to daylight time on 8 March: 7 days back
        // is midnight of 3 March in standard time.
        {utc(2026, 3, 10, 19), 7, protocol::kUnitDays, utc(2026, 3, 3, 5), utc(2026, 3, 11, 3, 59, 59)},
        // On the change day itself, early in the morning.
        {utc(2026, 3, 8, 7, 30), 0, protocol::kUnitDays, utc(2026, 3, 8, 5), utc(2026, 3, 9, 4, 59, 59)},
        // 3 November, after the return to standard time.
        {utc(2026, 11, 3, 17), 3, protocol::kUnitDays, utc(2026, 10, 31, 4), utc(2026, 11, 4, 4, 59, 59)},
        // 29 February 2028 back one year: 1 March 2027 (no month-end rule for years).
        {utc(2028, 2, 29, 17), 1, protocol::kUnitYears, utc(2027, 3, 1, 5), utc(2028, 3, 1, 4, 59, 59)},
        // A count beyond any 32-bit time pins from to the earliest time.
        {utc(2026, 3, 10, 19), 0xFFFFFFFFu, protocol::kUnitDays, INT32_MIN, utc(2026, 3, 11, 3, 59, 59)},
        // An unknown unit counts nothing.
        {utc(2026, 3, 10, 19), 5, 9, utc(2026, 3, 10, 4), utc(2026, 3, 11, 3, 59, 59)},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE("now " + std::to_string(c.now) + " n " + std::to_string(c.n));
        TimeList list;
        ASSERT_EQ(StoreTime({.which = protocol::kWhichModified, .kind = protocol::kWithin, .first = int32_t(c.n), .unit = c.unit}, list,
                            c.now),
                  0);
        ASSERT_EQ(list.size(), 1u);
        EXPECT_EQ(list[0].from, c.from);
        EXPECT_EQ(list[0].to, c.to);
    }
}

TEST_F(FilterModel, DatesAreWholeLocalDays) {
    TimeList list;
    // On or before 1 November 2026, the day daylight time ends: the day's
    // start plus 86399 seconds, which on that 25-hour day is 22:59:59.
    ASSERT_EQ(StoreTime({.kind = protocol::kOnOrBefore, .first = int32_t(utc(2026, 11, 1))}, list, 0), 0);
    EXPECT_EQ(list.back().from, utc(2026, 11, 2, 3, 59, 59));
    ASSERT_EQ(StoreTime({.kind = protocol::kOnOrBefore, .first = int32_t(utc(2026, 6, 1))}, list, 0), 0);
    EXPECT_EQ(list.back().from, utc(2026, 6, 2, 3, 59, 59));
    ASSERT_EQ(StoreTime({.kind = protocol::kOnOrAfter, .first = int32_t(utc(2026, 3, 8))}, list, 0), 0);
    EXPECT_EQ(list.back().from, utc(2026, 3, 8, 5));
    ASSERT_EQ(StoreTime({.kind = protocol::kOnOrAfter, .first = int32_t(utc(2026, 3, 9))}, list, 0), 0);
    EXPECT_EQ(list.back().from, utc(2026, 3, 9, 4));

    // East of Greenwich the UTC midnight lies in the previous local day; the
    // day meant is still the one the UTC fields name.
    filtertest::setTimeZone("CET-1CEST,M3.5.0,M10.5.0/3");
    ASSERT_EQ(StoreTime({.kind = protocol::kOnOrAfter, .first = int32_t(utc(2026, 3, 29))}, list, 0), 0);
    EXPECT_EQ(list.back().from, utc(2026, 3, 28, 23));
    ASSERT_EQ(StoreTime({.kind = protocol::kBetween, .first = int32_t(utc(2026, 10, 25)), .second = int32_t(utc(2026, 10, 25))},
                        list, 0),
              0);
    EXPECT_EQ(list.back().from, utc(2026, 10, 24, 22));
    EXPECT_EQ(list.back().to, utc(2026, 10, 24, 22) + 86399);
}

TEST_F(FilterModel, VerboseDumpOncePerProcess) {
    tavik::startupSettings().verbose = true;
    tavik::publishSettings();
    addPatterns(true, false, {"/home/u*"});
    addPatterns(false, true, {"core"});
    add(protocol::encodeDateItem(false, protocol::kWhichModified, protocol::kOnOrAfter, int32_t(utc(2026, 1, 2))));
    add(protocol::encodeWithinItem(true, protocol::kWhichAccessed, 2, protocol::kUnitDays));
    ASSERT_EQ(InitializeFilter(filter_, received_, "/home/", false, utc(2026, 6, 15, 16)), 0);
    const std::vector<std::string> expected = {
        "(InitializeFilter) node->nFilterItems=4",
        "DirIncPattern:",
        "  [A][/home][u*]",
        "FileExcPattern:",
        "  [R][][core]",
        "TimeIncPattern:",
        "  mtime on/after [01/02/26 00:00:00-12/31/69 19:00:00]",
        "TimeExcPattern:",
        "  atime within [06/13/26 00:00:00-06/15/26 23:59:59]",
    };
    EXPECT_EQ(logMessages(), expected);
    ASSERT_EQ(InitializeFilter(filter_, received_, "/home/", false, utc(2026, 6, 15, 16)), 0);
    EXPECT_EQ(logMessages().size(), expected.size() + 1) << "the second build logs only the item count";
}

}  // namespace
