// The filter: the wildcard matcher, building the filter from received items
// (pattern splitting, the item log lines, the table's bound, time ranges
// under a fixed clock and time zone, the dump), the items as they travel
// (golden bytes, truncated and oversized streams), a whole filter from the
// wire judging a tree, and the older request-borne selection.
#include "filter/filter.h"

#include <sys/stat.h>

#include <gtest/gtest.h>

#include <chrono>
#include <clocale>
#include <ctime>
#include <string>
#include <vector>

#include "daemon/scratch_home.h"
#include "daemon/state.h"
#include "filter/match.h"
#include "protocol/filter_items.h"
#include "reference_match.h"
#include "wire/bytes.h"

namespace {

using namespace tavik::filter;
namespace protocol = tavik::protocol;
using tavik::testing::logMessages;
using tavik::wire::ByteReader;
using Bytes = std::vector<uint8_t>;

// North American rules: daylight saving from the second Sunday of March to
// the first Sunday of November (2026: 8 March and 1 November).
constexpr const char* kNewYorkTz = "EST5EDT,M3.2.0,M11.1.0";

void setTimeZone(const char* tz) {
    setenv("TZ", tz, 1);
    tzset();
}

// Seconds since 1970 of a UTC calendar time.
time_t utc(int year, int month, int day, int hour = 0, int minute = 0, int second = 0) {
    struct tm t {};
    t.tm_year = year - 1900;
    t.tm_mon = month - 1;
    t.tm_mday = day;
    t.tm_hour = hour;
    t.tm_min = minute;
    t.tm_sec = second;
    return timegm(&t);
}

struct stat statWithTimes(time_t mtime, time_t atime = 0, time_t ctime = 0) {
    struct stat st {};
    st.st_mtime = mtime;
    st.st_atime = atime;
    st.st_ctime = ctime;
    return st;
}

Bytes patterns(bool isDirectory, bool exclude, const std::vector<std::string>& texts) {
    const auto item = protocol::encodeNamePatternItem(isDirectory, exclude, texts);
    EXPECT_TRUE(item.has_value());
    return item.value_or(Bytes{});
}

// Items one after the other, as they stand in the options record.
Bytes stream(std::initializer_list<Bytes> items) {
    Bytes out;
    for (const Bytes& item : items) out.insert(out.end(), item.begin(), item.end());
    return out;
}

// A 32-byte item record: `head` then zeros.
Bytes record(std::initializer_list<uint8_t> head) {
    Bytes out(head);
    out.resize(protocol::kFilterItemSize);
    return out;
}

// A scratch home whose log can be read back, TZ fixed to kNewYorkTz, verbose off.
class FilterModel : public ::testing::Test {
protected:
    void SetUp() override {
        tavik::startupSettings().verbose = false;
        tavik::publishSettings();
        setTimeZone(kNewYorkTz);
    }
    void TearDown() override {
        tavik::startupSettings().verbose = false;
        tavik::publishSettings();
    }

    // Adds an encoded item (and its data) as the receiving side files it.
    void add(const Bytes& bytes) {
        ASSERT_GE(bytes.size(), protocol::kFilterItemSize);
        protocol::ItemRecord record(bytes.data(), protocol::kFilterItemSize);
        ASSERT_TRUE(protocol::addReceivedItem(received_, record,
                                              std::span<const uint8_t>(bytes).subspan(protocol::kFilterItemSize)));
    }
    // The stored patterns, blank-separated: a name alone, or a path's "[dir][name]".
    static std::string names(const PatternList& list) {
        std::string out;
        for (const PatternNode& p : list) {
            out += (out.empty() ? "" : " ") + (p.nameOnly ? p.name : "[" + p.dir + "][" + p.name + "]");
        }
        return out;
    }

    tavik::testing::ScratchHome home_;
    protocol::ReceivedFilter received_;
    Filter filter_;
};

using FilterFromWire = FilterModel;

// Every pattern of up to four characters from "ab*?[]-!" against every name
// of up to four characters from "ab-]", compared with the plain recursion;
// the cases below are what those alphabets cannot reach: ranges, other
// characters, longer names, multibyte characters by locale.
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

    const struct {
        const char* locale;
        const char *name, *pattern;
        int expected;
    } cases[] = {
        {"C", "a.c", "*.c", 1},       {"C", ".c", "*.c", 0},           {"C", "ABC", "abc", 0},
        {"C", "axbxb", "a*b", 1},     {"C", "abcab", "*abd", 0},       {"C", "x1", "*[0-9]", 1},
        {"C", "1", "*[0-9]", 0},      {"C", "fileA", "file[0-9]", 0},  {"C", "f", "[a-ce-g]", 1},
        {"C", "d", "[a-ce-g]", 0},    {"C", "d", "[a-c-e]", 1},        {"C", "b", "[z-a]", 0},
        {"C", "ab", "ab[a-z]", 0},    {"C", "core2", "!core", 1},      {"C", "a.o", "!*.o", 0},
        // No negated classes: "^" is an ordinary member.
        {"C", "^", "[^a]", 1},
        // In "C" every byte is a character; in UTF-8 é is one.
        {"C", "\xC3\xA9", "?", 0},    {"C", "\xC3\xA9", "??", 1},      {"C.UTF-8", "\xC3\xA9", "?", 1},
        {"C.UTF-8", "\xC3\xA9", "??", 0},
        {"C.UTF-8", "\xC3\xA9", "*\xC3\xA9", 0},  // the star needs a character of its own
        {"C.UTF-8", "\xE2\x82\xAC" "1", "?[0-9]", 1},  // a three-byte character, then a digit
        // Characters are compared by their first byte: è matches é.
        {"C.UTF-8", "\xC3\xA8", "\xC3\xA9", 1},     {"C.UTF-8", "\xC3\xA8", "[\xC3\xA9]", 1},
        // As signed bytes, a lead byte sorts before every ASCII letter.
        {"C.UTF-8", "\xC3\xA9", "[a-z]", 0},    {"C.UTF-8", "a", "[\xC3\xA9-z]", 1},
        // Invalid and cut-off sequences advance by one byte.
        {"C.UTF-8", "\xFF\xFE", "??", 1},       {"C.UTF-8", "a\xC3", "a?", 1},
    };
    for (const auto& c : cases) {
        ASSERT_NE(setlocale(LC_CTYPE, c.locale), nullptr);
        EXPECT_EQ(MatchName(c.name, c.pattern), c.expected)
            << c.locale << " name [" << c.name << "] pattern [" << c.pattern << "]";
    }
    setlocale(LC_CTYPE, "C");
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

TEST_F(FilterModel, ItemsLoggedInWordsAndStoredInOrder) {
    // Names alone, and paths under the root split before their last
    // component (a file pattern's trailing "/" names a directory in it).
    add(patterns(false, false, {"*"}));
    add(patterns(false, false, {"core", "/home/u1/*.c", "/usr/*.c", "src/*.c", "/home/*.c", "/home/u1/src/*.c",
                                "/home/u1/src/"}));
    add(patterns(true, true, {"tmp", "/home/src/tmp/", "/homework/x", "/home"}));
    add(patterns(true, false, {"*", "/home/u*", "/home/"}));
    add(record({0x1a}));
    add(protocol::encodeDateItem(false, protocol::kWhichModified, protocol::kOnOrBefore, int32_t(utc(2026, 3, 31))));
    add(protocol::encodeDateItem(true, protocol::kWhichChanged, protocol::kOnOrAfter, int32_t(utc(2026, 1, 2))));
    add(protocol::encodeDateItem(false, protocol::kWhichAccessed, protocol::kBetween, int32_t(utc(2026, 2, 1)),
                                 int32_t(utc(2026, 1, 5))));
    add(protocol::encodeWithinItem(false, protocol::kWhichModified, 1, protocol::kUnitMonths));

    const time_t now = utc(2026, 5, 31, 15);  // 11:00 local
    EXPECT_EQ(InitializeFilter(filter_, received_, "/home", true, now), -4) << "four patterns rejected";
    EXPECT_EQ(filter_.filterRoot + "|" + std::to_string(filter_.filterRootLen), "/home/|6");

    const std::vector<std::string> expected = {
        "Include file: *",
        "Include file: core",
        "Include file: /home/u1/*.c",
        "Include file: /usr/*.c",
        "(StorePath) Ignore invalid filter [/usr/*.c]",
        "Include file: src/*.c",
        "(StorePath) Ignore invalid filter [src/*.c]",
        "Include file: /home/*.c",
        "Include file: /home/u1/src/*.c",
        "Include file: /home/u1/src/",
        "Exclude directory: tmp",
        "Exclude directory: /home/src/tmp/",
        "Exclude directory: /homework/x",
        "(StorePath) Ignore invalid filter [/homework/x]",
        "Exclude directory: /home",
        "(StorePath) Ignore invalid filter [/home]",
        "Include directory: *",
        "Include directory: /home/u*",
        "Include directory: /home/",
        "(InitializeFilter) Unknown filter type: 1a",
        "Include files modified 'on or before' 03/31/26",
        "Exclude files created 'on or after' 01/02/26",
        "Include files last accessed 'between' 02/01/26 and 01/05/26",  // as sent
        "Include files modified 'between' 04/30/26 and 05/31/26",
    };
    EXPECT_EQ(logMessages(), expected);

    // An include "*" stores nothing.
    EXPECT_EQ(names(filter_.FileIncPattern), "core [u1][*.c] [][*.c] [u1/src][*.c] [u1][src]");
    EXPECT_EQ(names(filter_.DirExcPattern), "tmp [/home/src][tmp]");
    EXPECT_EQ(names(filter_.DirIncPattern), "[/home][u*] [][home]");
    EXPECT_EQ(names(filter_.FileExcPattern), "");
    EXPECT_EQ(filter_.patternCount, 9u);
    ASSERT_EQ(filter_.TimeIncPattern.size(), 3u);
    ASSERT_EQ(filter_.TimeExcPattern.size(), 1u);
    // Between, sent in the wrong order, is stored from <= to, each a whole local day.
    EXPECT_EQ(filter_.TimeIncPattern[1].from, utc(2026, 1, 5, 5));
    EXPECT_EQ(filter_.TimeIncPattern[1].to, utc(2026, 2, 2, 4, 59, 59));

    // A second build starts afresh, from its own items and root; without
    // item logging even a rejected pattern is silent.
    received_ = {};
    add(patterns(false, true, {"*.o", "/home/x"}));
    EXPECT_EQ(InitializeFilter(filter_, received_, "/usr", false, 0), -1);
    EXPECT_EQ(names(filter_.FileExcPattern) + names(filter_.FileIncPattern) + filter_.filterRoot, "*.o/usr/");
    EXPECT_EQ(filter_.patternCount, 1u);
    EXPECT_TRUE(filter_.TimeIncPattern.empty());
    EXPECT_EQ(logMessages().size(), expected.size()) << "nothing is logged without item logging";
}

TEST_F(FilterModel, PatternTableHoldsOneHundred) {
    std::vector<std::string> texts;
    for (int i = 0; i < 101; ++i) texts.push_back("p" + std::to_string(i));
    add(patterns(false, true, {texts.begin(), texts.begin() + 60}));
    add(patterns(true, false, {texts.begin() + 60, texts.end()}));
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
    Bytes bytes = record({uint8_t(protocol::kFilePatternItem), 0, 0, 0, 5});
    const std::string data("a.c\0b.c", 7);
    bytes[12] = uint8_t(data.size());
    bytes.insert(bytes.end(), data.begin(), data.end());
    add(bytes);
    // A second item whose count stops before its data ends.
    Bytes second = patterns(false, false, {"x", "y"});
    second[4] = 1;
    add(second);
    ASSERT_EQ(InitializeFilter(filter_, received_, "/", false, 0), 0);
    EXPECT_EQ(names(filter_.FileIncPattern), "a.c b.c x");
}

// Within n units: from is local midnight n units back (the month's last day
// when it is shorter), to is the end of today.
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
        ASSERT_EQ(StoreTime({.which = protocol::kWhichModified, .kind = protocol::kWithin, .first = int32_t(c.n),
                             .unit = c.unit},
                            list, c.now),
                  0);
        ASSERT_EQ(list.size(), 1u);
        EXPECT_EQ(list[0].from, c.from);
        EXPECT_EQ(list[0].to, c.to);
    }
}

TEST_F(FilterModel, DatesAreWholeLocalDays) {
    // On or before 1 November 2026, the day daylight time ends: the day's
    // start plus 86399 seconds, which on that 25-hour day is 22:59:59. East
    // of Greenwich the UTC midnight lies in the previous local day; the day
    // meant is still the one the UTC fields name.
    const struct {
        const char* tz;
        uint8_t kind;
        time_t first, from;
    } cases[] = {
        {kNewYorkTz, protocol::kOnOrBefore, utc(2026, 11, 1), utc(2026, 11, 2, 3, 59, 59)},
        {kNewYorkTz, protocol::kOnOrBefore, utc(2026, 6, 1), utc(2026, 6, 2, 3, 59, 59)},
        {kNewYorkTz, protocol::kOnOrAfter, utc(2026, 3, 8), utc(2026, 3, 8, 5)},
        {kNewYorkTz, protocol::kOnOrAfter, utc(2026, 3, 9), utc(2026, 3, 9, 4)},
        {"CET-1CEST,M3.5.0,M10.5.0/3", protocol::kOnOrAfter, utc(2026, 3, 29), utc(2026, 3, 28, 23)},
    };
    TimeList list;
    for (const auto& c : cases) {
        setTimeZone(c.tz);
        ASSERT_EQ(StoreTime({.kind = c.kind, .first = int32_t(c.first)}, list, 0), 0);
        EXPECT_EQ(list.back().from, c.from) << c.tz << " " << c.first;
    }
    ASSERT_EQ(StoreTime({.kind = protocol::kBetween, .first = int32_t(utc(2026, 10, 25)),
                         .second = int32_t(utc(2026, 10, 25))},
                        list, 0),
              0);
    EXPECT_EQ(list.back().from, utc(2026, 10, 24, 22));
    EXPECT_EQ(list.back().to, utc(2026, 10, 24, 22) + 86399);
}

TEST_F(FilterModel, VerboseDumpOncePerProcess) {
    tavik::startupSettings().verbose = true;
    tavik::publishSettings();
    add(patterns(true, false, {"/home/u*"}));
    add(patterns(false, true, {"core"}));
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

TEST(FilterItemCodec, EncodersGiveTheWireBytes) {
    // Type, exclude, count (le32), address (le32), data length (le16), then the data.
    EXPECT_EQ(patterns(true, true, {"tmp", "/home/u*"}),
              stream({record({3, 0, 1, 0, 2, 0, 0, 0, 0, 0, 0, 0, 13, 0}),
                      {'t', 'm', 'p', 0, '/', 'h', 'o', 'm', 'e', '/', 'u', '*', 0}}));
    // Type, exclude, which, pad, kind, first and second (le32).
    EXPECT_EQ(protocol::encodeDateItem(false, protocol::kWhichAccessed, protocol::kBetween, 1767225600, -86400),
              record({4, 0, 0, 0, 2, 0, 2, 0, 0x00, 0xb9, 0x55, 0x69, 0x80, 0xae, 0xfe, 0xff}));
    // ... and the unit (le16) of "within" after them.
    EXPECT_EQ(protocol::encodeWithinItem(true, protocol::kWhichModified, 7, protocol::kUnitMonths),
              record({4, 0, 1, 0, protocol::kWhichModified, 0, protocol::kWithin, 0, 7, 0, 0, 0, 0, 0, 0, 0,
                      protocol::kUnitMonths, 0}));
    // What the pattern area cannot hold is refused.
    using Texts = std::vector<std::string>;
    EXPECT_FALSE(protocol::encodeNamePatternItem(false, false, Texts{std::string("a\0b", 3)}));
    EXPECT_FALSE(protocol::encodeNamePatternItem(false, false, Texts{std::string(protocol::kPatternAreaSize, 'x')}));
    EXPECT_TRUE(protocol::encodeNamePatternItem(false, false, Texts{std::string(protocol::kPatternAreaSize - 1, 'x')}));
    EXPECT_EQ(patterns(false, false, {}), record({2}));
}

TEST(FilterItemCodec, TruncatedStreamFailsAtEveryLength) {
    const Bytes full = stream({patterns(false, false, {"abc", "de"}), protocol::encodeDateItem(false, 1, 1, 100)});
    for (size_t len = 0; len <= full.size(); ++len) {
        protocol::ReceivedFilter received;
        ByteReader in(full.data(), len);
        EXPECT_EQ(protocol::readFilterItems(in, 2, received), len == full.size()) << len;
        EXPECT_EQ(received.items.size(), len == full.size() ? 2u : len >= 32 + 7 ? 1u : 0u) << len;
        EXPECT_LE(received.patternArea.size(), 7u);
        if (len == full.size()) {
            EXPECT_TRUE(in.empty());
            EXPECT_EQ(std::string(received.patternArea.begin(), received.patternArea.end()),
                      std::string("abc\0de\0", 7));
        }
    }
}

TEST(FilterItemCodec, PatternAreaOverrunIsAFailedReceive) {
    const Bytes items = stream({patterns(false, false, {std::string(10000, 'a')}),
                                patterns(true, false, {std::string(6382, 'b')}),  // exactly fills the 16384 bytes
                                patterns(false, false, {""})});                  // one more byte: too much
    protocol::ReceivedFilter received;
    ByteReader in(items.data(), items.size());
    EXPECT_FALSE(protocol::readFilterItems(in, 3, received));
    EXPECT_EQ(received.items.size(), 2u);
    EXPECT_EQ(received.patternArea.size(), protocol::kPatternAreaSize);

    // Data that differs from the item's stated length is refused as well.
    const Bytes item = patterns(false, false, {"ab"});
    protocol::ReceivedFilter other;
    const Bytes shortData = {'a', 0};
    EXPECT_FALSE(protocol::addReceivedItem(other, protocol::ItemRecord(item.data(), 32), shortData));
    EXPECT_TRUE(other.items.empty());
}

TEST_F(FilterFromWire, VerdictsForThirtyPathTree) {
    Bytes dirIncludes = patterns(true, false, {"/home/u*", "/home/proj/"});
    tavik::wire::storeLe32(dirIncludes.data() + 8, 0x08049f00);  // the sender's address: not used
    const Bytes wire = stream({
        dirIncludes,
        patterns(true, true, {"tmp", "*.bak"}),
        patterns(false, true, {"*.o", "core"}),
        patterns(false, false, {"*.c", "*.h", "/home/u1/Makefile"}),
        patterns(false, false, {"*"}),
        record({9, 0, 0, 0, 3, 0, 0, 0, 0, 0, 0, 0, 40}),  // says 40 bytes of data, but a type 9 item has none
        protocol::encodeDateItem(false, protocol::kWhichModified, protocol::kOnOrAfter, int32_t(utc(2026, 1, 1))),
    });
    ByteReader in(wire.data(), wire.size());
    ASSERT_TRUE(protocol::readFilterItems(in, 7, received_));
    ASSERT_TRUE(in.empty());
    ASSERT_EQ(InitializeFilter(filter_, received_, "/home", false, utc(2026, 6, 15, 16)), 0);
    EXPECT_EQ(logMessages(), std::vector<std::string>{"(InitializeFilter) Unknown filter type: 9"});

    const time_t fresh = utc(2026, 5, 1, 12);
    const time_t stale = utc(2025, 7, 1, 12);
    const time_t newYear = utc(2026, 1, 1, 5);             // 1 January 00:00:00 local
    const time_t newYearsEve = utc(2026, 1, 1, 4, 59, 59);  // 31 December 23:59:59 local
    // Directories: 0 excluded, 1 descend only, 2 back up. An excluded name
    // excludes anywhere and before any inclusion; a trailing star also
    // stands for no character. Files: 1 selected.
    const struct {
        const char* path;
        bool isDirectory;
        time_t mtime;
        int expected;
    } tree[] = {
        {"/home/u1", true, 0, 2},           {"/home/u1/src", true, 0, 2},          {"/home/u1/src/tmp", true, 0, 0},
        {"/home/u1/tmp/deep", true, 0, 0},  {"/home/u", true, 0, 2},               {"/home/proj", true, 0, 2},
        {"/home/proj/lib", true, 0, 2},     {"/home/other", true, 0, 1},           {"/home/other/u9", true, 0, 1},
        {"/home/other/tmp", true, 0, 0},    {"/home/user", true, 0, 2},            {"/home/u1/old.bak", true, 0, 0},
        {"/home/tmpfiles", true, 0, 1},     {"/home/prj", true, 0, 1},             {"/home/u1/a.c", false, fresh, 1},
        {"/home/u1/a.o", false, fresh, 0},  {"/home/u1/src/main.c", false, fresh, 1},
        {"/home/u1/src/main.c", false, stale, 0},  {"/home/u1/core", false, fresh, 0},
        {"/home/u1/core.c", false, fresh, 1},      {"/home/u1/Makefile", false, fresh, 1},
        {"/home/u1/src/Makefile", false, fresh, 0}, {"/home/u2/x.h", false, fresh, 1},
        {"/home/u2/x.hpp", false, fresh, 0},       {"/home/u2/.c", false, fresh, 0},
        {"/home/proj/lib/util.c", false, fresh, 1}, {"/home/proj/lib/util.c.o", false, fresh, 0},
        {"/home/readme.txt", false, fresh, 0},     {"/home/main.c", false, newYear, 1},
        {"/home/main.c", false, newYearsEve, 0},
    };
    static_assert(std::size(tree) == 30);
    for (const auto& e : tree) {
        const struct stat st = statWithTimes(e.mtime, e.mtime, e.mtime);
        const int verdict = e.isDirectory ? int(DirVerdictOf(filter_, e.path)) : FileSelected(filter_, e.path, st);
        EXPECT_EQ(verdict, e.expected) << e.path << " mtime " << e.mtime;
    }
    ASSERT_EQ(InitializeFilter(filter_, protocol::ReceivedFilter{}, "/home", false, 0), 0);
    EXPECT_EQ(DirVerdictOf(filter_, "/home/anything/at/all"), DirVerdict::BackUp) << "no patterns: everything";
}

// A filter on root /home/ with time lists built at a fixed clock.
TEST(FileSelected, TimeListsWithPatterns) {
    setTimeZone(kNewYorkTz);
    Filter f;
    f.filterRoot = "/home/";
    f.filterRootLen = 6;
    Filter g = f;
    ASSERT_EQ(StorePattern(f, false, "*.c", f.FileIncPattern, false), 0);
    ASSERT_EQ(StorePattern(f, false, "*.o", f.FileExcPattern, false), 0);
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
    const struct stat st = statWithTimes(100, 100, 100);
    ASSERT_EQ(StoreTime({.which = 3, .kind = 1, .first = 0}, g.TimeExcPattern, 0), 0);
    ASSERT_EQ(StoreTime({.which = 1, .kind = 7, .first = 0, .second = 1000}, g.TimeExcPattern, 0), 0);
    EXPECT_EQ(FileSelected(g, "/home/a", st), 1) << "neither exclusion applies";
    g.TimeExcPattern.clear();
    ASSERT_EQ(StoreTime({.which = 5, .kind = 2, .first = 0, .second = 1000}, g.TimeIncPattern, 0), 0);
    EXPECT_EQ(FileSelected(g, "/home/a", st), 0) << "an inclusion that never matches selects nothing";
}

// The older request-borne selection: name lists of at most 16 entries,
// exact directory names, and a date threshold packed in local fields.
TEST(OldSelection, FileListModesAndCountBound) {
    setTimeZone(kNewYorkTz);
    const time_t mtime = utc(2026, 3, 10, 14, 30, 58);
    EXPECT_EQ(uint32_t(packedTime(mtime)), 0x5C6A73DDu);
    EXPECT_EQ(uint32_t(packedTime(utc(1980, 1, 1))), 0x00210000u);
    // From 2044 on the year reaches bit 31 and the value is negative.
    EXPECT_LT(packedTime(utc(2045, 1, 1)), 0);

    OldSelection s;
    s.fileCount = 2;
    s.fileMode = 1;
    s.files = {"*.c", "core"};
    auto selected = [&s](const char* name, time_t when = 0) { return OldFileSelected(s, name, statWithTimes(when)); };
    EXPECT_EQ(std::vector<int>({selected("a.c"), selected("core"), selected("a.o")}), std::vector<int>({1, 1, 0}));
    s.fileMode = 0;
    EXPECT_EQ(std::vector<int>({selected("a.c"), selected("a.o")}), std::vector<int>({0, 1}));
    // A count above 16 reads the 16 entries; the last one still counts.
    s.fileCount = 200;
    s.fileMode = 1;
    s.files[15] = "*.h";
    EXPECT_EQ(std::vector<int>({selected("x.h"), selected("x.y")}), std::vector<int>({1, 0}));
    s.fileCount = 0;
    EXPECT_EQ(selected("x.y"), 1);

    // Modified after the threshold (2), at or before it (3); a file from
    // 2045 packs negative, "before" any threshold of ours; other methods pass all.
    s.timeThresh = packedTime(mtime);
    const struct {
        uint8_t method;
        time_t mtime;
        int selected;
    } cases[] = {{2, mtime, 0}, {2, mtime + 2, 1}, {3, mtime, 1},  {3, mtime + 2, 0}, {3, utc(2045, 1, 1), 1},
                 {0, mtime, 1}, {1, mtime, 1},     {4, mtime, 1},  {255, mtime, 1}};
    for (const auto& c : cases) {
        s.method = c.method;
        EXPECT_EQ(selected("f", c.mtime), c.selected) << int(c.method) << " " << c.mtime;
    }
}

TEST(OldSelection, DirectoryModesEmptyListAndCountBound) {
    OldSelection s;
    EXPECT_EQ(OldDirListed(s, "x"), 1) << "empty excluding list passes everything";
    s.dirMode = 1;
    EXPECT_EQ(OldDirListed(s, "x"), 0) << "empty including list passes nothing";
    s.dirCount = 17;
    s.dirs[0] = "src";
    s.dirs[15] = "doc";
    // Exact comparison, no wildcards.
    for (const auto& [name, listed] : {std::pair{"src", 1}, {"doc", 1}, {"sr*", 0}, {"s*", 0}})
        EXPECT_EQ(OldDirListed(s, name), listed) << name;
    s.dirMode = 0;
    EXPECT_EQ(std::vector<int>({OldDirListed(s, "src"), OldDirListed(s, "lib")}), std::vector<int>({0, 1}));

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
