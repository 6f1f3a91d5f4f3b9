// Selection tests: the wildcard matcher, the verdicts of the pattern filter
// (filter.h) for directories and files, and the older selection that a
// server below version 50 carries in the job request itself.
//
// Everything here reads only its arguments and allocates nothing; the lists
// are walked in order and the first success ends the walk. Names and
// patterns are byte strings whose characters are sized by the current
// LC_CTYPE locale; no input can make a test read outside its strings.
#pragma once

#include <sys/stat.h>

#include <array>
#include <cstdint>
#include <ctime>
#include <span>
#include <string>
#include <string_view>

#include "filter/filter.h"

namespace tavik::filter {

// 1 if `name` matches `pattern`, else 0. "*" alone matches everything; a
// leading "!" inverts the match of the rest. Inside a pattern "*" stands for
// one or more characters (a trailing "*" also for none), "?" for one, "[...]"
// for one of a class with ranges x-y; every other character for itself.
int MatchName(std::string_view name, std::string_view pattern);

enum class DirVerdict : int {
    Excluded = 0,     // neither it nor anything below it is backed up
    DescendOnly = 1,  // its subdirectories are examined, its files are not backed up
    BackUp = 2,       // its files are candidates for backup
};

// The verdict for a directory, given by its absolute path under filterRoot.
DirVerdict DirVerdictOf(const Filter& filter, std::string_view path);

// 1 if the file at the absolute path `path`, with status `status`, is selected.
int FileSelected(const Filter& filter, std::string_view path, const struct stat& status);

// A time in the packed form of the older date test (UTC fields): year-1980
// in bits 31..25, month 24..21, day 20..16, hour 15..11, minute 10..5,
// second/2 4..0.
int32_t packedTime(time_t when);

// The older selection of the job request.
inline constexpr size_t kOldListEntries = 16;
struct OldSelection {
    uint8_t fileCount = 0;  // counts above 16 are read as 16
    uint8_t fileMode = 0;   // not 0: the list includes; 0: it excludes
    std::array<std::string, kOldListEntries> files;  // name patterns
    uint8_t dirCount = 0;
    uint8_t dirMode = 0;
    std::array<std::string, kOldListEntries> dirs;  // directory names
    int32_t timeThresh = 0;  // a packedTime()
    uint8_t method = 0;      // 1 all, 2 modified after timeThresh, 3 at or before; other: all
};

// 1 if the entry `name` passes the request's file list and date test.
int OldFileSelected(const OldSelection& selection, std::string_view name, const struct stat& status);
// The request's directory list's verdict for `name`: 1 or 0.
int OldDirListed(const OldSelection& selection, std::string_view name);

// 1 if `name` equals one of the first `count` names exactly (0 for a count
// below 1; names beyond the span are never read).
int InNameList(std::string_view name, int count, std::span<const char* const> names);
int InNameList(std::string_view name, int count, std::span<const std::string> names);

}  // namespace tavik::filter
