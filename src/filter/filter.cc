#include "filter/filter.h"

#include <cerrno>
#include <cstdio>
#include <new>

#include "log/ulog.h"

namespace tavik::filter {
namespace {

constexpr const char* kInitPrefix = "(InitializeFilter) ";
constexpr const char* kStorePatternPrefix = "(StorePattern) ";
constexpr const char* kStorePathPrefix = "(StorePath) ";
constexpr const char* kStoreTimePrefix = "(StoreTime) ";

constexpr int32_t kLastSecondOfDay = 86399;
// "Within" counts beyond this reach further back than a 32-bit time can
// express anyway; the bound keeps the calendar arithmetic within int.
constexpr uint32_t kMaxWithinCount = 1000000;

// Times are signed 32-bit in the filter; the platform's time_t is 64-bit, so
// a result outside that range is pinned to its nearest end.
int32_t saturate(int64_t value) {
    if (value < INT32_MIN) return INT32_MIN;
    if (value > INT32_MAX) return INT32_MAX;
    return int32_t(value);
}

// mktime() of calendar fields; `fallback` when they name no representable time.
int64_t makeLocal(struct tm& fields, int64_t fallback) {
    errno = 0;
    time_t made = mktime(&fields);
    if (made == time_t(-1) && errno != 0) return fallback;
    return int64_t(made);
}

// The local time whose calendar fields are the UTC calendar fields of `date`:
// the front-end sends a day as its UTC midnight and means that day locally.
int32_t localDayOf(int32_t date) {
    const time_t instant = date;
    struct tm utc {};
    struct tm local {};
    gmtime_r(&instant, &utc);
    localtime_r(&instant, &local);
    utc.tm_isdst = local.tm_isdst;
    return saturate(makeLocal(utc, date));
}

bool isLeapYear(int year) { return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0; }

int lastDayOfMonth(int month, int year) {  // month 0..11, year in full
    static constexpr int kDays[12] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    return month == 1 && isLeapYear(year) ? 29 : kDays[month];
}

// `from` and `to` of a "within" item: local midnight `count` units back from
// today's local midnight, and today's local midnight. A month back from a
// day that the target month lacks lands on that month's last day.
void withinRange(uint32_t count, uint16_t unit, time_t now, TimeNode& node) {
    struct tm fields {};
    localtime_r(&now, &fields);
    fields.tm_hour = fields.tm_min = fields.tm_sec = 0;
    // Daylight saving is decided for the day reached, not kept from today, so
    // that each end is that day's midnight also across a change.
    fields.tm_isdst = -1;
    node.to = saturate(makeLocal(fields, now));
    const int remembered = fields.tm_mday;
    const int n = int(count > kMaxWithinCount ? kMaxWithinCount : count);
    switch (unit) {
    case protocol::kUnitDays: fields.tm_mday -= n; break;
    case protocol::kUnitMonths:
        fields.tm_mon -= n;
        fields.tm_isdst = -1;
        makeLocal(fields, 0);  // normalises the fields
        if (fields.tm_mday < remembered) {
            if (--fields.tm_mon < 0) {
                fields.tm_mon = 11;
                --fields.tm_year;
            }
            fields.tm_mday = lastDayOfMonth(fields.tm_mon, fields.tm_year + 1900);
        }
        break;
    case protocol::kUnitYears: fields.tm_year -= n; break;
    default: break;  // an unknown unit counts nothing: from today on
    }
    fields.tm_isdst = -1;
    node.from = saturate(makeLocal(fields, INT32_MIN));
}

// "MM/DD/YY hh:mm:ss" of calendar fields.
std::string formatFields(const struct tm& t) {
    char text[64];
    snprintf(text, sizeof text, "%02d/%02d/%02d %02d:%02d:%02d", t.tm_mon + 1, t.tm_mday, t.tm_year % 100,
             t.tm_hour, t.tm_min, t.tm_sec);
    return text;
}

// A stored time in local time.
std::string formatFilterTime(int32_t when) {
    const time_t instant = when;
    struct tm t {};
    localtime_r(&instant, &t);
    return formatFields(t);
}

// A date as the front-end sent it: its UTC calendar fields are the day meant.
std::string formatSentDay(int32_t date) {
    const time_t instant = date;
    struct tm t {};
    gmtime_r(&instant, &t);
    return formatFields(t);
}

const char* whichWord(uint8_t which) {
    switch (which) {
    case protocol::kWhichChanged: return MSG_CREATED;
    case protocol::kWhichModified: return MSG_MODIFIED;
    case protocol::kWhichAccessed: return MSG_LAST_ACCESSED;
    default: return "?";
    }
}

// The item in words, before it is stored: the days as the front-end sent
// them, in its order (a "between" item is put in order only when stored);
// a "within" item as the range it stands for today.
void logTimeItem(const protocol::TimeItem& item, time_t now) {
    const char* sense = item.exclude ? MSG_EXCLUDE : MSG_INCLUDE;
    const char* word = whichWord(item.which);
    switch (item.kind) {
    case protocol::kOnOrBefore: ulog(MSG_FILES_OR_BEFORE, sense, word, formatSentDay(item.first).c_str()); break;
    case protocol::kOnOrAfter: ulog(MSG_FILES_OR_AFTER, sense, word, formatSentDay(item.first).c_str()); break;
    case protocol::kBetween:
        ulog(MSG_FILES_BETWEEN, sense, word, formatSentDay(item.first).c_str(), formatSentDay(item.second).c_str());
        break;
    case protocol::kWithin: {
        TimeNode range;
        withinRange(uint32_t(item.first), item.unit, now, range);
        ulog(MSG_FILES_BETWEEN, sense, word, formatFilterTime(range.from).c_str(), formatFilterTime(range.to).c_str());
        break;
    }
    default: ulog("%s files %s: unknown date filter kind %d", sense, word, item.kind); break;
    }
}

void dumpPatternList(const char* name, const PatternList& list) {
    if (list.empty()) return;
    ulog("%s:", name);
    for (const PatternNode& n : list) ulog("  [%c][%s][%s]", n.nameOnly ? 'R' : 'A', n.dir.c_str(), n.name.c_str());
}

void dumpTimeList(const char* name, const TimeList& list) {
    static constexpr const char* kWhich[] = {"ctime", "mtime", "atime"};
    static constexpr const char* kKind[] = {"on/before", "on/after", "between", "within"};
    if (list.empty()) return;
    ulog("%s:", name);
    for (const TimeNode& n : list) {
        ulog("  %s %s [%s-%s]", n.which < 3 ? kWhich[n.which] : "?", n.rangeKind < 4 ? kKind[n.rangeKind] : "?",
             formatFilterTime(n.from).c_str(), formatFilterTime(n.to).c_str());
    }
}

void dumpFilter(const Filter& f) {
    dumpPatternList("DirIncPattern", f.DirIncPattern);
    dumpPatternList("DirExcPattern", f.DirExcPattern);
    dumpPatternList("FileIncPattern", f.FileIncPattern);
    dumpPatternList("FileExcPattern", f.FileExcPattern);
    dumpTimeList("TimeIncPattern", f.TimeIncPattern);
    dumpTimeList("TimeExcPattern", f.TimeExcPattern);
}

// The patterns of one file or directory item. The data is the item's slice of
// the pattern text area, clipped to it; a last pattern without its NUL ends
// at the end of the data.
int storePatternItem(Filter& filter, const protocol::ReceivedFilter& node, const protocol::ReceivedItem& received, bool logItems) {
    const protocol::PatternItem item = protocol::decodePatternItem(received.record);
    const bool isDirectory = item.type == protocol::kDirPatternItem;
    const size_t areaSize = node.patternArea.size();
    const size_t start = received.dataOffset < areaSize ? received.dataOffset : areaSize;
    const size_t length = received.dataLength < areaSize - start ? received.dataLength : areaSize - start;
    const std::string_view data(node.patternArea.data() + start, length);
    PatternList& list = isDirectory ? (item.exclude ? filter.DirExcPattern : filter.DirIncPattern)
                                    : (item.exclude ? filter.FileExcPattern : filter.FileIncPattern);
    const char* format = isDirectory ? MSG_FILTER_DIRECTORY : MSG_FILTER_FILE;
    int sum = 0;
    size_t pos = 0;
    for (uint32_t i = 0; i < item.count && pos < data.size(); ++i) {
        size_t end = data.find('\0', pos);
        if (end == std::string_view::npos) end = data.size();
        const std::string text(data.substr(pos, end - pos));
        pos = end + 1;
        if (logItems) ulog(format, item.exclude ? MSG_EXCLUDE : MSG_INCLUDE, text.c_str());
        if (!item.exclude && text == "*") continue;
        sum += StorePattern(filter, isDirectory, text, list, logItems);
    }
    return sum;
}

}  // namespace

void ClearFilter(Filter& filter) {
    filter.DirIncPattern.clear();
    filter.DirExcPattern.clear();
    filter.FileIncPattern.clear();
    filter.FileExcPattern.clear();
    filter.TimeIncPattern.clear();
    filter.TimeExcPattern.clear();
    filter.patternCount = 0;
}

int InitializeFilter(Filter& filter, const protocol::ReceivedFilter& node, std::string_view rootPath, bool logItems) {
    return InitializeFilter(filter, node, rootPath, logItems, time(nullptr));
}

int InitializeFilter(Filter& filter, const protocol::ReceivedFilter& node, std::string_view rootPath, bool logItems,
                     time_t now) {
    filter.filterRoot.assign(rootPath);
    if (filter.filterRoot.empty() || filter.filterRoot.back() != '/') filter.filterRoot += '/';
    filter.filterRootLen = filter.filterRoot.size();
    ClearFilter(filter);
    if (logVerbose()) ulog("%snode->nFilterItems=%d", kInitPrefix, int(node.items.size()));
    if (node.items.empty()) return 0;

    int sum = 0;
    for (const protocol::ReceivedItem& received : node.items) {
        const uint16_t type = protocol::itemType(received.record);
        if (type == protocol::kFilePatternItem || type == protocol::kDirPatternItem) {
            sum += storePatternItem(filter, node, received, logItems);
        } else if (type == protocol::kTimeItem) {
            const protocol::TimeItem item = protocol::decodeTimeItem(received.record);
            TimeList& list = item.exclude ? filter.TimeExcPattern : filter.TimeIncPattern;
            if (logItems) logTimeItem(item, now);
            sum += StoreTime(item, list, now);
        } else {
            ulog(MSG_UNKNOWN_FILTER_TYPE, kInitPrefix, unsigned(type));
        }
    }
    if (logVerbose() && filter.dumpPending) {
        filter.dumpPending = false;
        dumpFilter(filter);
    }
    return sum;
}

int StorePattern(Filter& filter, bool isDirectory, std::string_view text, PatternList& list, bool logItems) {
    if (filter.patternCount >= kPatternTableSize) {
        ulog(MSG_FAILED_ALLOCATE_MEMORY, kStorePatternPrefix, "pattern table of 100 entries is full");
        return -1;
    }
    try {
        PatternNode patternNode;
        if (StorePath(filter, isDirectory, text, patternNode, logItems) != 0) return -1;
        list.push_back(std::move(patternNode));
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        ulog(MSG_FAILED_ALLOCATE_MEMORY, kStorePatternPrefix, errText());
        return -1;
    }
    ++filter.patternCount;
    return 0;
}

int StorePath(const Filter& filter, bool isDirectory, std::string_view text, PatternNode& patternNode,
              bool logItems) {
    if (text.find('/') == std::string_view::npos) {
        patternNode.nameOnly = 1;
        patternNode.dir.clear();
        patternNode.name.assign(text);
        return 0;
    }
    if (text.front() != '/' || !text.starts_with(filter.filterRoot)) {
        if (logItems) ulog(MSG_IGNORE_INVALID_FILTER, kStorePathPrefix, std::string(text).c_str());
        return -1;
    }
    // A file pattern is kept relative to the root (from the root's last "/"),
    // a directory pattern whole.
    const size_t keep = filter.filterRootLen > 0 ? filter.filterRootLen - 1 : 0;
    std::string_view rest = isDirectory ? text : text.substr(keep);
    if (rest.size() > 1 && rest.back() == '/') rest.remove_suffix(1);
    const size_t last = rest.rfind('/');
    patternNode.nameOnly = 0;
    patternNode.name.assign(rest.substr(last + 1));
    if (isDirectory) {
        patternNode.dir.assign(rest.substr(0, last));
    } else {
        patternNode.dir.assign(last == 0 ? std::string_view() : rest.substr(1, last - 1));
    }
    return 0;
}

int StoreTime(const protocol::TimeItem& item, TimeList& list, time_t now) {
    TimeNode node;
    node.which = item.which;
    node.rangeKind = item.kind;
    switch (item.kind) {
    case protocol::kOnOrBefore:
    case protocol::kOnOrAfter:
        node.from = localDayOf(item.first);
        break;
    case protocol::kBetween: {
        const bool swap = item.first > item.second;
        node.from = localDayOf(swap ? item.second : item.first);
        node.to = localDayOf(swap ? item.first : item.second);
        break;
    }
    case protocol::kWithin: withinRange(uint32_t(item.first), item.unit, now, node); break;
    default:  // kept as received; such a node never matches
        node.from = item.first;
        node.to = item.second;
        break;
    }
    if (item.kind == protocol::kOnOrBefore) node.from = saturate(int64_t(node.from) + kLastSecondOfDay);
    if (item.kind == protocol::kBetween || item.kind == protocol::kWithin) node.to = saturate(int64_t(node.to) + kLastSecondOfDay);
    try {
        list.push_back(node);
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        ulog(MSG_FAILED_ALLOCATE_MEMORY, kStoreTimePrefix, errText());
        return -1;
    }
    return 0;
}

}  // namespace tavik::filter
