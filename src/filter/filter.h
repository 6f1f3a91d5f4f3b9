// The selection filter of a backup or estimate: six lists built from the
// filter items that the front-end sent, consulted by the matching in match.h.
//
// The job owns one Filter record; InitializeFilter() rebuilds it from the
// received items and a root path (the backup's root, or the estimate's
// source), so calling it again is safe. Pattern items become PatternNodes in
// the directory or file include/exclude lists, time items TimeNodes in the
// time include/exclude lists, each list in item order. An include pattern "*"
// stores nothing: an empty include list already includes everything.
//
// Failures never stop the build: a pattern that is not a name or a path
// under the root is logged (with item logging on) and left out, as is a
// pattern beyond the table's 100 entries (always logged); an unknown item
// type is logged and skipped. "Now" for the "within" items is a parameter so
// that the result depends only on the items, the root, the clock and TZ.
#pragma once

#include <cstdint>
#include <ctime>
#include <string>
#include <string_view>
#include <vector>

#include "protocol/filter_items.h"
#include "protocol/filter_items.h"

namespace tavik::filter {

// Patterns the filter keeps at most, over all four pattern lists.
inline constexpr size_t kPatternTableSize = 100;

struct PatternNode {
    int nameOnly = 0;  // 1: name pattern, 0: path pattern
    std::string dir;   // path patterns: the directory part
    std::string name;  // may hold wildcards
};

struct TimeNode {
    uint8_t which = 0;      // protocol::kWhichChanged, protocol::kWhichModified, protocol::kWhichAccessed
    uint8_t rangeKind = 0;  // protocol::kOnOrBefore, protocol::kOnOrAfter, protocol::kBetween, protocol::kWithin
    int32_t from = 0;       // seconds since 1970
    int32_t to = 0;
};

using PatternList = std::vector<PatternNode>;
using TimeList = std::vector<TimeNode>;

struct Filter {
    std::string filterRoot;  // the root, ending in "/"
    size_t filterRootLen = 0;
    PatternList DirIncPattern;
    PatternList DirExcPattern;
    PatternList FileIncPattern;
    PatternList FileExcPattern;
    TimeList TimeIncPattern;
    TimeList TimeExcPattern;
    size_t patternCount = 0;  // entries of the pattern table in use
    bool dumpPending = true;  // the verbose dump is written once per process
};

// Builds the filter; returns 0 when every pattern was stored, otherwise minus
// the number of patterns left out. With logItems every item is logged in
// words; in verbose mode the lists are dumped the first time.
int InitializeFilter(Filter& filter, const protocol::ReceivedFilter& node, std::string_view rootPath, bool logItems,
                     time_t now);
int InitializeFilter(Filter& filter, const protocol::ReceivedFilter& node, std::string_view rootPath, bool logItems);

// Stores one pattern text at the tail of `list` (one of filter's pattern
// lists). 0, or -1 when the text was rejected or the table is full.
int StorePattern(Filter& filter, bool isDirectory, std::string_view text, PatternList& list, bool logItems);

// Splits a pattern text into `patternNode` as name or path pattern relative
// to filter.filterRoot. 0, or -1 (logged with logItems) when it is neither.
int StorePath(const Filter& filter, bool isDirectory, std::string_view text, PatternNode& patternNode,
              bool logItems);

// Appends the time range of a time item, as of `now`, to `list`. 0 (the node
// is always stored, even with an unknown `which` or kind: it then never
// matches).
int StoreTime(const protocol::TimeItem& item, TimeList& list, time_t now);

// Empties the six lists and the pattern table.
void ClearFilter(Filter& filter);

}  // namespace tavik::filter
