#include "filter/match.h"

#include <cwchar>

namespace tavik::filter {
namespace {

// The longest multibyte character the matcher steps over at once.
constexpr size_t kMaxCharBytes = 4;

// Bytes of the character at `pos` (< s.size()) in the current locale. An
// invalid or cut-off sequence, and an embedded NUL, count as one byte so that
// the matcher always moves forward. (mbrlen with a fresh state is the
// restartable form of mblen: the same answer for the stateless encodings
// in use, without a hidden state shared between calls.)
size_t charLength(std::string_view s, size_t pos) {
    const size_t available = s.size() - pos < kMaxCharBytes ? s.size() - pos : kMaxCharBytes;
    mbstate_t state{};
    const size_t n = mbrlen(s.data() + pos, available, &state);
    if (n == 0 || n == size_t(-1) || n == size_t(-2) || n > available) return 1;
    return n;
}

// Characters are compared by their first byte, as signed values.
signed char firstByte(std::string_view s, size_t pos) { return static_cast<signed char>(s[pos]); }

enum class ClassResult { Hit, Miss, Unterminated };

// The class that opens with "[" at `open` against the name's character `c`.
// On Hit and Miss, `after` is the position after the closing "]".
ClassResult matchClass(std::string_view pattern, size_t open, signed char c, size_t& after) {
    size_t q = open + 1;
    bool hit = false;
    bool havePrevious = false;
    signed char previous = 0;
    while (q < pattern.size() && pattern[q] != ']') {
        const size_t len = charLength(pattern, q);
        const signed char pc = firstByte(pattern, q);
        const size_t next = q + len;
        if (pc == '-' && havePrevious && next < pattern.size() && pattern[next] != ']') {
            // x-y: the upper end is then taken as a class character of its own.
            if (previous <= c && c <= firstByte(pattern, next)) hit = true;
            q = next;
            continue;
        }
        if (pc == c) hit = true;
        previous = pc;
        havePrevious = true;
        q = next;
    }
    if (q >= pattern.size()) return ClassResult::Unterminated;
    after = q + 1;
    return hit ? ClassResult::Hit : ClassResult::Miss;
}

// The wildcard match. A "*" inside the pattern takes one or more characters,
// a trailing one none or more. Backtracking returns only to the latest "*":
// the earliest place where the pattern between two stars fits leaves the
// later star the most room, so earlier stars never need another try. This
// keeps the work at most name length times pattern length.
bool wildcard(std::string_view name, std::string_view pattern) {
    size_t n = 0;
    size_t p = 0;
    bool haveStar = false;
    size_t starPattern = 0;
    size_t starName = 0;
    for (;;) {
        if (p < pattern.size() && pattern[p] == '*') {
            ++p;
            if (p == pattern.size()) return true;
            if (n == name.size()) return false;
            n += charLength(name, n);
            haveStar = true;
            starPattern = p;
            starName = n;
            continue;
        }
        bool stepped = false;
        if (p == pattern.size()) {
            if (n == name.size()) return true;
        } else if (n < name.size()) {
            const size_t patternLen = charLength(pattern, p);
            const size_t nameLen = charLength(name, n);
            const signed char pc = firstByte(pattern, p);
            if (pc == '?') {
                p += patternLen;
                n += nameLen;
                stepped = true;
            } else if (pc == '[') {
                size_t after = 0;
                switch (matchClass(pattern, p, firstByte(name, n), after)) {
                case ClassResult::Unterminated: return false;  // fails wherever it is tried
                case ClassResult::Hit:
                    p = after;
                    n += nameLen;
                    stepped = true;
                    break;
                case ClassResult::Miss: break;
                }
            } else if (pc == firstByte(name, n)) {
                p += patternLen;
                n += nameLen;
                stepped = true;
            }
        }
        if (stepped) continue;
        if (!haveStar || starName == name.size()) return false;
        starName += charLength(name, starName);
        n = starName;
        p = starPattern;
    }
}

// A path under the root, seen from the root's last "/": the directory part
// between its first and last "/", and the name after the last.
struct SplitPath {
    std::string_view dirPart;
    std::string_view namePart;
};

SplitPath splitUnderRoot(const Filter& filter, std::string_view path) {
    const size_t keep = filter.filterRootLen > 0 ? filter.filterRootLen - 1 : 0;
    const std::string_view rest = path.size() > keep ? path.substr(keep) : std::string_view();
    const size_t first = rest.find('/');
    if (first == std::string_view::npos) return {{}, rest};
    const size_t last = rest.rfind('/');
    return {rest.substr(first + 1, last - first - (last > first ? 1 : 0)), rest.substr(last + 1)};
}

bool dirListMatches(const PatternList& list, std::string_view path, const SplitPath& split) {
    for (const PatternNode& node : list) {
        if (node.nameOnly) {
            std::string_view dirs = split.dirPart;
            while (!dirs.empty()) {
                const size_t slash = dirs.find('/');
                if (MatchName(dirs.substr(0, slash), node.name)) return true;
                if (slash == std::string_view::npos) break;
                dirs.remove_prefix(slash + 1);
            }
            if (MatchName(split.namePart, node.name)) return true;
        } else if (path.size() > node.dir.size() && path.starts_with(node.dir)) {
            const size_t start = node.dir.size() + 1;
            const size_t end = path.find('/', start);
            const std::string_view component =
                path.substr(start, end == std::string_view::npos ? std::string_view::npos : end - start);
            if (MatchName(component, node.name)) return true;
        }
    }
    return false;
}

bool fileListMatches(const PatternList& list, const SplitPath& split) {
    for (const PatternNode& node : list) {
        if (!node.nameOnly && split.dirPart != node.dir) continue;
        if (MatchName(split.namePart, node.name)) return true;
    }
    return false;
}

// File times are compared at the platform's 64-bit width against the
// filter's 32-bit bounds, so a time past 2038 is later, not negative.
bool timeListAccepts(const TimeList& list, const struct stat& status) {
    for (const TimeNode& node : list) {
        int64_t t = 0;
        switch (node.which) {
        case protocol::kWhichChanged: t = status.st_ctime; break;
        case protocol::kWhichModified: t = status.st_mtime; break;
        case protocol::kWhichAccessed: t = status.st_atime; break;
        default: continue;  // an unknown time never matches
        }
        switch (node.rangeKind) {
        case protocol::kOnOrBefore:
            if (t <= node.from) return true;
            break;
        case protocol::kOnOrAfter:
            if (t >= node.from) return true;
            break;
        case protocol::kBetween:
        case protocol::kWithin:
            if (node.from <= t && t <= node.to) return true;
            break;
        default: break;  // an unknown kind never matches
        }
    }
    return false;
}

size_t boundedCount(uint8_t count) { return count > kOldListEntries ? kOldListEntries : count; }

}  // namespace

int MatchName(std::string_view name, std::string_view pattern) {
    if (pattern == "*") return 1;
    if (!pattern.empty() && pattern[0] == '!' && charLength(pattern, 0) == 1) {
        return wildcard(name, pattern.substr(1)) ? 0 : 1;
    }
    return wildcard(name, pattern) ? 1 : 0;
}

DirVerdict DirVerdictOf(const Filter& filter, std::string_view path) {
    if (filter.DirExcPattern.empty() && filter.DirIncPattern.empty()) return DirVerdict::BackUp;
    const SplitPath split = splitUnderRoot(filter, path);
    if (!filter.DirExcPattern.empty() && dirListMatches(filter.DirExcPattern, path, split)) {
        return DirVerdict::Excluded;
    }
    if (filter.DirIncPattern.empty()) return DirVerdict::BackUp;
    return dirListMatches(filter.DirIncPattern, path, split) ? DirVerdict::BackUp : DirVerdict::DescendOnly;
}

int FileSelected(const Filter& filter, std::string_view path, const struct stat& status) {
    if (filter.FileExcPattern.empty() && filter.FileIncPattern.empty() && filter.TimeExcPattern.empty() &&
        filter.TimeIncPattern.empty()) {
        return 1;
    }
    const SplitPath split = splitUnderRoot(filter, path);
    if (!filter.FileExcPattern.empty() && fileListMatches(filter.FileExcPattern, split)) return 0;
    if (!filter.TimeExcPattern.empty() && timeListAccepts(filter.TimeExcPattern, status)) return 0;
    if (!filter.FileIncPattern.empty() && !fileListMatches(filter.FileIncPattern, split)) return 0;
    if (!filter.TimeIncPattern.empty() && !timeListAccepts(filter.TimeIncPattern, status)) return 0;
    return 1;
}

int32_t packedTime(time_t when) {
    struct tm t {};
    if (gmtime_r(&when, &t) == nullptr) return 0;
    const uint32_t year = uint32_t(t.tm_year + 1900 - 1980) & 0x7f;
    const uint32_t packed = year << 25 | uint32_t(t.tm_mon + 1) << 21 | uint32_t(t.tm_mday) << 16 |
                            uint32_t(t.tm_hour) << 11 | uint32_t(t.tm_min) << 5 | uint32_t(t.tm_sec / 2);
    return int32_t(packed);
}

int OldFileSelected(const OldSelection& selection, std::string_view name, const struct stat& status) {
    const size_t count = boundedCount(selection.fileCount);
    if (count != 0) {
        bool selected = selection.fileMode == 0;  // no match: the opposite of the mode
        for (size_t i = 0; i < count; ++i) {
            if (MatchName(name, selection.files[i])) {
                selected = selection.fileMode != 0;
                break;
            }
        }
        if (!selected) return 0;
    }
    switch (selection.method) {
    case 2: return selection.timeThresh < packedTime(status.st_mtime) ? 1 : 0;
    case 3: return packedTime(status.st_mtime) <= selection.timeThresh ? 1 : 0;
    default: return 1;
    }
}

int OldDirListed(const OldSelection& selection, std::string_view name) {
    const size_t count = boundedCount(selection.dirCount);
    for (size_t i = 0; i < count; ++i) {
        if (selection.dirs[i] == name) return selection.dirMode != 0 ? 1 : 0;
    }
    return selection.dirMode != 0 ? 0 : 1;
}

int InNameList(std::string_view name, int count, std::span<const char* const> names) {
    if (count < 1) return 0;
    const size_t n = size_t(count) < names.size() ? size_t(count) : names.size();
    for (size_t i = 0; i < n; ++i) {
        if (names[i] != nullptr && name == names[i]) return 1;
    }
    return 0;
}

int InNameList(std::string_view name, int count, std::span<const std::string> names) {
    if (count < 1) return 0;
    const size_t n = size_t(count) < names.size() ? size_t(count) : names.size();
    for (size_t i = 0; i < n; ++i) {
        if (name == names[i]) return 1;
    }
    return 0;
}

}  // namespace tavik::filter
