// Filter items as they travel: the front-end's encoders against bytes laid
// out field by field, the agent's decoding of an item stream (truncated,
// oversized), and a whole filter received from the wire judging a tree.
#include "protocol/filter_items.h"

#include <gtest/gtest.h>

#include <array>
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
using tavik::wire::ByteWriter;

// A stream of items written field by field, as the front-end lays them out.
class ItemStream {
public:
    void patternItem(uint16_t type, uint16_t exclude, const std::vector<std::string>& patterns,
                     uint32_t address = 0) {
        std::string data;
        for (const std::string& p : patterns) data.append(p).push_back('\0');
        std::array<uint8_t, protocol::kFilterItemSize> record{};
        ByteWriter w(record);
        ASSERT_TRUE(w.putLe16(type) && w.putLe16(exclude) && w.putLe32(uint32_t(patterns.size())) &&
                    w.putLe32(address) && w.putLe16(uint16_t(data.size())));
        bytes_.insert(bytes_.end(), record.begin(), record.end());
        bytes_.insert(bytes_.end(), data.begin(), data.end());
        ++count_;
    }
    void timeItem(uint16_t exclude, uint8_t which, uint16_t kind, int32_t first, int32_t second, uint16_t unit) {
        std::array<uint8_t, protocol::kFilterItemSize> record{};
        ByteWriter w(record);
        ASSERT_TRUE(w.putLe16(protocol::kTimeItem) && w.putLe16(exclude) && w.putU8(which) && w.putU8(0) &&
                    w.putLe16(kind) && w.putLe32(uint32_t(first)) && w.putLe32(uint32_t(second)) &&
                    w.putLe16(unit));
        bytes_.insert(bytes_.end(), record.begin(), record.end());
        ++count_;
    }
    void otherItem(uint16_t type) {
        std::array<uint8_t, protocol::kFilterItemSize> record{};
        ByteWriter w(record);
        ASSERT_TRUE(w.putLe16(type) && w.putLe16(0) && w.putLe32(3) && w.putLe32(0) && w.putLe16(40));
        bytes_.insert(bytes_.end(), record.begin(), record.end());
        ++count_;
    }
    const std::vector<uint8_t>& bytes() const { return bytes_; }
    uint32_t count() const { return count_; }

private:
    std::vector<uint8_t> bytes_;
    uint32_t count_ = 0;
};

TEST(FilterItemCodec, EncodersGiveTheWireBytes) {
    ItemStream names;
    names.patternItem(protocol::kDirPatternItem, 1, {"tmp", "/home/u*"});
    const auto encoded = protocol::encodeNamePatternItem(true, true, std::vector<std::string>{"tmp", "/home/u*"});
    ASSERT_TRUE(encoded.has_value());
    EXPECT_EQ(*encoded, names.bytes());
    EXPECT_EQ(encoded->size(), 32u + 13u);

    ItemStream dates;
    dates.timeItem(0, protocol::kWhichAccessed, protocol::kBetween, 1767225600, -86400, 0);
    EXPECT_EQ(protocol::encodeDateItem(false, protocol::kWhichAccessed, protocol::kBetween, 1767225600, -86400), dates.bytes());
    const std::vector<uint8_t> golden = {4, 0, 0, 0, 2, 0, 2, 0, 0x00, 0xb9, 0x55, 0x69, 0x80, 0xae, 0xfe, 0xff,
                                         0, 0, 0, 0, 0, 0, 0, 0, 0,    0,    0,    0,    0,    0,    0,    0};
    EXPECT_EQ(dates.bytes(), golden);

    ItemStream within;
    within.timeItem(1, protocol::kWhichModified, protocol::kWithin, 7, 0, protocol::kUnitMonths);
    EXPECT_EQ(protocol::encodeWithinItem(true, protocol::kWhichModified, 7, protocol::kUnitMonths), within.bytes());
}

TEST(FilterItemCodec, EncoderRefusesWhatTheAreaCannotHold) {
    EXPECT_FALSE(protocol::encodeNamePatternItem(false, false, std::vector<std::string>{std::string("a\0b", 3)}));
    EXPECT_FALSE(protocol::encodeNamePatternItem(false, false, std::vector<std::string>{std::string(protocol::kPatternAreaSize, 'x')}));
    EXPECT_TRUE(protocol::encodeNamePatternItem(false, false, std::vector<std::string>{std::string(protocol::kPatternAreaSize - 1, 'x')}));
    const auto empty = protocol::encodeNamePatternItem(false, false, std::vector<std::string>{});
    ASSERT_TRUE(empty.has_value());
    EXPECT_EQ(empty->size(), protocol::kFilterItemSize);
}

// The decoded fields of an item, as plain numbers for comparing whole.
std::vector<int64_t> fieldsOf(const protocol::PatternItem& p) { return {p.type, p.exclude, p.count, p.dataLength}; }
std::vector<int64_t> fieldsOf(const protocol::TimeItem& t) { return {t.exclude, t.which, t.kind, t.first, t.second, t.unit}; }

TEST(FilterItemCodec, RoundTripThroughTheDecoder) {
    std::vector<uint8_t> stream;
    const auto names = protocol::encodeNamePatternItem(false, true, std::vector<std::string>{"*.c", "/home/u1/Makefile", ""});
    ASSERT_TRUE(names.has_value());
    for (const auto& item : {*names, protocol::encodeDateItem(true, protocol::kWhichChanged, protocol::kOnOrBefore, -5, 77),
                             protocol::encodeWithinItem(false, protocol::kWhichAccessed, 0xFFFFFFFF, protocol::kUnitYears)})
        stream.insert(stream.end(), item.begin(), item.end());

    protocol::ReceivedFilter received;
    ByteReader in(stream.data(), stream.size());
    ASSERT_TRUE(protocol::readFilterItems(in, 3, received));
    EXPECT_TRUE(in.empty());
    ASSERT_EQ(received.items.size(), 3u);
    EXPECT_EQ(fieldsOf(protocol::decodePatternItem(received.items[0].record)),
              (std::vector<int64_t>{protocol::kFilePatternItem, 1, 3, 23}));
    EXPECT_EQ(received.items[0].dataOffset, 0u);
    EXPECT_EQ(received.items[0].dataLength, 23u);
    EXPECT_EQ(std::string(received.patternArea.begin(), received.patternArea.end()),
              std::string("*.c\0/home/u1/Makefile\0\0", 23));
    EXPECT_EQ(fieldsOf(protocol::decodeTimeItem(received.items[1].record)),
              (std::vector<int64_t>{1, protocol::kWhichChanged, protocol::kOnOrBefore, -5, 77, 0}));
    EXPECT_EQ(received.items[1].dataLength, 0u);
    EXPECT_EQ(fieldsOf(protocol::decodeTimeItem(received.items[2].record)),
              (std::vector<int64_t>{0, protocol::kWhichAccessed, protocol::kWithin, -1, 0, protocol::kUnitYears}));
}

TEST(FilterItemCodec, TruncatedStreamFailsAtEveryLength) {
    ItemStream s;
    s.patternItem(protocol::kFilePatternItem, 0, {"abc", "de"});
    s.timeItem(0, 1, 1, 100, 0, 0);
    const std::vector<uint8_t>& full = s.bytes();
    for (size_t len = 0; len < full.size(); ++len) {
        protocol::ReceivedFilter received;
        ByteReader in(full.data(), len);
        EXPECT_FALSE(protocol::readFilterItems(in, s.count(), received)) << len;
        EXPECT_EQ(received.items.size(), len >= 32 + 7 ? 1u : 0u) << len;
        EXPECT_LE(received.patternArea.size(), 7u);
    }
    protocol::ReceivedFilter received;
    ByteReader in(full.data(), full.size());
    EXPECT_TRUE(protocol::readFilterItems(in, s.count(), received));
}

TEST(FilterItemCodec, PatternAreaOverrunIsAFailedReceive) {
    ItemStream s;
    s.patternItem(protocol::kFilePatternItem, 0, {std::string(10000, 'a')});
    s.patternItem(protocol::kDirPatternItem, 0, {std::string(6382, 'b')});  // exactly fills the 16384 bytes
    s.patternItem(protocol::kFilePatternItem, 0, {std::string(0, 'c')});    // one more byte: too much
    protocol::ReceivedFilter received;
    ByteReader in(s.bytes().data(), s.bytes().size());
    EXPECT_FALSE(protocol::readFilterItems(in, 3, received));
    EXPECT_EQ(received.items.size(), 2u);
    EXPECT_EQ(received.patternArea.size(), protocol::kPatternAreaSize);

    // Data that differs from the item's stated length is refused as well.
    const auto item = protocol::encodeNamePatternItem(false, false, std::vector<std::string>{"ab"});
    ASSERT_TRUE(item.has_value());
    protocol::ReceivedFilter other;
    protocol::ItemRecord record(item->data(), protocol::kFilterItemSize);
    const std::vector<uint8_t> shortData = {'a', 0};
    EXPECT_FALSE(protocol::addReceivedItem(other, record, shortData));
    EXPECT_TRUE(other.items.empty());
}

struct TreeEntry {
    const char* path;
    bool isDirectory;
    time_t mtime;
    int expected;  // DirVerdict for directories, FileSelected for files
};

class FilterFromWire : public filtertest::LoggedTest {};

TEST_F(FilterFromWire, VerdictsForThirtyPathTree) {
    ItemStream wire;
    wire.patternItem(protocol::kDirPatternItem, 0, {"/home/u*", "/home/proj/"}, 0x08049f00);
    wire.patternItem(protocol::kDirPatternItem, 1, {"tmp", "*.bak"});
    wire.patternItem(protocol::kFilePatternItem, 1, {"*.o", "core"});
    wire.patternItem(protocol::kFilePatternItem, 0, {"*.c", "*.h", "/home/u1/Makefile"});
    wire.patternItem(protocol::kFilePatternItem, 0, {"*"});
    wire.otherItem(9);  // says 40 bytes of data, but a type 9 item has none
    wire.timeItem(0, protocol::kWhichModified, protocol::kOnOrAfter, int32_t(utc(2026, 1, 1)), 0, 0);

    protocol::ReceivedFilter received;
    ByteReader in(wire.bytes().data(), wire.bytes().size());
    ASSERT_TRUE(protocol::readFilterItems(in, wire.count(), received));
    ASSERT_TRUE(in.empty());
    Filter filter;
    ASSERT_EQ(InitializeFilter(filter, received, "/home", false, utc(2026, 6, 15, 16)), 0);
    EXPECT_EQ(logMessages(), std::vector<std::string>{"(InitializeFilter) Unknown filter type: 9"});

    const time_t fresh = utc(2026, 5, 1, 12);
    const time_t stale = utc(2025, 7, 1, 12);
    const time_t newYear = utc(2026, 1, 1, 5);             // 1 January 00:00:00 local
    const time_t newYearsEve = utc(2026, 1, 1, 4, 59, 59);  // 31 December 23:59:59 local
    const TreeEntry tree[] = {
        {"/home/u1", true, 0, 2},
        {"/home/u1/src", true, 0, 2},
        {"/home/u1/src/tmp", true, 0, 0},
        {"/home/u1/tmp/deep", true, 0, 0},
        {"/home/u2", true, 0, 2},
        {"/home/proj", true, 0, 2},
        {"/home/proj/lib", true, 0, 2},
        {"/home/other", true, 0, 1},
        {"/home/other/u9", true, 0, 1},
        {"/home/other/tmp", true, 0, 0},
        {"/home/user", true, 0, 2},
        {"/home/u1/old.bak", true, 0, 0},
        {"/home/tmpfiles", true, 0, 1},
        {"/home/prj", true, 0, 1},
        {"/home/u1/a.c", false, fresh, 1},
        {"/home/u1/a.o", false, fresh, 0},
        {"/home/u1/src/main.c", false, fresh, 1},
        {"/home/u1/src/main.c", false, stale, 0},
        {"/home/u1/core", false, fresh, 0},
        {"/home/u1/core.c", false, fresh, 1},
        {"/home/u1/Makefile", false, fresh, 1},
        {"/home/u1/src/Makefile", false, fresh, 0},
        {"/home/u2/x.h", false, fresh, 1},
        {"/home/u2/x.hpp", false, fresh, 0},
        {"/home/u2/.c", false, fresh, 0},
        {"/home/proj/lib/util.c", false, fresh, 1},
        {"/home/proj/lib/util.c.o", false, fresh, 0},
        {"/home/readme.txt", false, fresh, 0},
        {"/home/main.c", false, newYear, 1},
        {"/home/main.c", false, newYearsEve, 0},
    };
    static_assert(std::size(tree) == 30);
    for (const TreeEntry& e : tree) {
        const struct stat st = filtertest::statWithTimes(e.mtime, e.mtime, e.mtime);
        const int verdict = e.isDirectory ? int(DirVerdictOf(filter, e.path)) : FileSelected(filter, e.path, st);
        EXPECT_EQ(verdict, e.expected) << e.path << " mtime " << e.mtime;
    }
}

}  // namespace
