// Filter items as they travel: the front-end's encoders against golden
// bytes, the agent's decoding of an item stream (truncated, oversized), and
// a whole filter received from the wire judging a tree.
#include "protocol/filter_items.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "filter/filter.h"
#include "filter/match.h"
#include "filter_test_support.h"
#include "wire/bytes.h"

namespace {

using namespace tavik::filter;
namespace protocol = tavik::protocol;
using filtertest::utc;
using tavik::wire::ByteReader;
using Bytes = std::vector<uint8_t>;

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
}

TEST(FilterItemCodec, EncoderRefusesWhatTheAreaCannotHold) {
    using Texts = std::vector<std::string>;
    EXPECT_FALSE(protocol::encodeNamePatternItem(false, false, Texts{std::string("a\0b", 3)}));
    EXPECT_FALSE(protocol::encodeNamePatternItem(false, false, Texts{std::string(protocol::kPatternAreaSize, 'x')}));
    EXPECT_TRUE(protocol::encodeNamePatternItem(false, false, Texts{std::string(protocol::kPatternAreaSize - 1, 'x')}));
    EXPECT_EQ(patterns(false, false, {}), record({2}));
}

TEST(FilterItemCodec, TruncatedStreamFailsAtEveryLength) {
    const Bytes full = stream({patterns(false, false, {"abc", "de"}), protocol::encodeDateItem(false, 1, 1, 100)});
    for (size_t len = 0; len < full.size(); ++len) {
        protocol::ReceivedFilter received;
        ByteReader in(full.data(), len);
        EXPECT_FALSE(protocol::readFilterItems(in, 2, received)) << len;
        EXPECT_EQ(received.items.size(), len >= 32 + 7 ? 1u : 0u) << len;
        EXPECT_LE(received.patternArea.size(), 7u);
    }
    protocol::ReceivedFilter received;
    ByteReader in(full.data(), full.size());
    EXPECT_TRUE(protocol::readFilterItems(in, 2, received));
    EXPECT_TRUE(in.empty());
    EXPECT_EQ(std::string(received.patternArea.begin(), received.patternArea.end()), std::string("abc\0de\0", 7));
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

class FilterFromWire : public filtertest::LoggedTest {};

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
    protocol::ReceivedFilter received;
    ByteReader in(wire.data(), wire.size());
    ASSERT_TRUE(protocol::readFilterItems(in, 7, received));
    ASSERT_TRUE(in.empty());
    Filter filter;
    ASSERT_EQ(InitializeFilter(filter, received, "/home", false, utc(2026, 6, 15, 16)), 0);
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
        const struct stat st = filtertest::statWithTimes(e.mtime, e.mtime, e.mtime);
        const int verdict = e.isDirectory ? int(DirVerdictOf(filter, e.path)) : FileSelected(filter, e.path, st);
        EXPECT_EQ(verdict, e.expected) << e.path << " mtime " << e.mtime;
    }
    ASSERT_EQ(InitializeFilter(filter, protocol::ReceivedFilter{}, "/home", false, 0), 0);
    EXPECT_EQ(DirVerdictOf(filter, "/home/anything/at/all"), DirVerdict::BackUp) << "no patterns: everything";
}

}  // namespace
