// Dates and times in the order and punctuation of the locale kind.
//
// Date styles 1..4 and time styles 1..3 by LocaleKind(); any other style
// gives an empty text. The texts come back by value (at most 99 bytes), so
// a date and a time, or two dates, can stand in one call.
// ReadDate reads back a short numeric date such as 3/7/96, typed in the
// kind's order, and rewrites it in place as 03/07/96.
//
// Requires: one thread. The "%x", "%b", "%A" and "%p" parts come from the
// platform's strftime for the current LC_TIME.
#pragma once

#include <cstddef>
#include <ctime>

namespace tavik::nls {

inline constexpr size_t kDateTextSize = 100;

struct DateString {
    char text[kDateTextSize] = {};
    const char* c_str() const { return text; }
};

DateString DateText(const struct tm* when, int style);
DateString DateTextOf(time_t when, int style);
// Year counted from 1900, month 1..12. Sets LC_TIME from the environment first.
DateString DateTextOfParts(int year, int month, int day, int style);

DateString TimeText(const struct tm* when, int style);
DateString TimeTextOf(time_t when, int style);
// Sets LC_TIME from the environment first.
DateString TimeTextOfParts(int hour, int minute, int second, int style);

// Reads "a/b/c" or "a.b.c" (styles 1 and 4; 2 and 3 read nothing). The text
// is rewritten as "%02d<sep>%02d<sep>%02d" when that fits in `capacity`
// bytes (the NUL included); year, month and day receive the numbers in the
// kind's order and are 0 when nothing was read.
void ReadDate(char* text, size_t capacity, int* year, int* month, int* day, int style);

}  // namespace tavik::nls
