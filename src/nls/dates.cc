#include "nls/dates.h"

#include <cctype>
#include <climits>
#include <clocale>
#include <cstdio>
#include <cstring>

#include "nls/mbstring.h"
#include "nls/messages.h"

namespace tavik::nls {
namespace {

void format(char* out, const char* fmt, const struct tm* when) {
    if (strftime(out, kDateTextSize, fmt, when) == 0) out[0] = '\0';
}

// A short strftime result: at most 10 bytes, empty when it does not fit.
size_t shortFormat(char (&out)[11], const char* fmt, const struct tm* when) {
    size_t n = strftime(out, sizeof out, fmt, when);
    if (n == 0) out[0] = '\0';
    return n;
}

// Kind 4 style 4: "%m%b" gives e.g. "03 3<month>": its first two bytes and
// its last two; "%e%A" gives "13<weekday>": its first two bytes and the two
// at positions 6 and 7.
void japaneseShortDate(char* out, const struct tm* when) {
    char month[11];
    char day[11];
    size_t m = shortFormat(month, "%m%b", when);
    size_t d = shortFormat(day, "%e%A", when);
    size_t at = 0;
    for (size_t i = 0; i < 2 && i < m; ++i) out[at++] = month[i];
    for (size_t i = m >= 2 ? m - 2 : m; i < m; ++i) out[at++] = month[i];
    for (size_t i = 0; i < 2 && i < d; ++i) out[at++] = day[i];
    for (size_t i = 6; i < 8 && i < d; ++i) out[at++] = day[i];
    out[at] = '\0';
}

// The decimal value at the start of `text`, as atoi reads it, saturated
// instead of overflowing.
int decimal(const char* text) {
    while (isspace(static_cast<unsigned char>(*text))) ++text;
    bool negative = false;
    if (*text == '+' || *text == '-') negative = *text++ == '-';
    long long value = 0;
    while (isdigit(static_cast<unsigned char>(*text))) {
        value = value * 10 + (*text++ - '0');
        if (value > INT_MAX) value = INT_MAX;
    }
    return int(negative ? -value : value);
}

const char* findSeparator(const char* text) {
    const char* at = MbStrChr(text, '/');
    return at ? at : MbStrChr(text, '.');
}

}  // namespace

DateString DateText(const struct tm* when, int style) {
    DateString date;
    char* out = date.text;
    int kind = LocaleKind();
    static const char* const kFormats[4][4] = {
        {"%x", "%m/%d/%Y", "%b %d %Y", "%b-%d"},
        {"%x", "%d/%m/%Y", "%d %b %Y", "%e %b"},
        {"%x", "%d.%m.%Y", "%d. %b %Y", "%e. %b"},
        {nullptr, "%m/%d/%Y", "%x", nullptr},
    };
    if (style < 1 || style > 4 || kind < 1 || kind > 4) return date;
    if (kind == kKindJapanese) {
        switch (style) {
        case 1: {
            int year = when->tm_year >= 100 ? when->tm_year - 100 : when->tm_year;
            snprintf(out, kDateTextSize, "%02d/%02d/%02d", year, when->tm_mon + 1, when->tm_mday);
            return date;
        }
        case 3: {
            format(out, "%x", when);
            size_t n = strlen(out);
            out[n >= 5 ? n - 5 : 0] = '\0';
            return date;
        }
        case 4:
            japaneseShortDate(out, when);
            return date;
        default:
            break;
        }
    }
    format(out, kFormats[kind - 1][style - 1], when);
    return date;
}

DateString DateTextOf(time_t when, int style) {
    struct tm parts;
    if (!localtime_r(&when, &parts)) return DateString{};
    return DateText(&parts, style);
}

DateString DateTextOfParts(int year, int month, int day, int style) {
    setlocale(LC_TIME, "");
    struct tm parts = {};
    parts.tm_year = year;
    parts.tm_mon = month - 1;
    parts.tm_mday = day;
    parts.tm_isdst = -1;
    return DateText(&parts, style);
}

DateString TimeText(const struct tm* when, int style) {
    DateString time;
    switch (style) {
    case 1: format(time.text, "%H:%M", when); break;
    case 2: format(time.text, "%T", when); break;
    case 3: format(time.text, "%I:%M %p", when); break;
    default: break;
    }
    return time;
}

DateString TimeTextOf(time_t when, int style) {
    struct tm parts;
    if (!localtime_r(&when, &parts)) return DateString{};
    return TimeText(&parts, style);
}

DateString TimeTextOfParts(int hour, int minute, int second, int style) {
    setlocale(LC_TIME, "");
    struct tm parts = {};
    parts.tm_hour = hour;
    parts.tm_min = minute;
    parts.tm_sec = second;
    parts.tm_isdst = -1;
    return TimeText(&parts, style);
}

void ReadDate(char* text, size_t capacity, int* year, int* month, int* day, int style) {
    *year = *month = *day = 0;
    if (style == 2 || style == 3) return;
    const char* first = findSeparator(text);
    if (!first) return;
    char separator = *first;
    const char* second = findSeparator(first + 1);
    if (!second) return;
    int a = decimal(text);
    int b = decimal(first + 1);
    int c = decimal(second + 1);
    // At most 3 * 11 digits and signs, 2 separators and the NUL.
    char rewritten[40];
    snprintf(rewritten, sizeof rewritten, "%02d%c%02d%c%02d", a, separator, b, separator, c);
    int kind = LocaleKind();
    int f0 = decimal(rewritten);
    int f3 = decimal(rewritten + 3);
    int f6 = decimal(rewritten + 6);
    switch (kind) {
    case kKindFrench: *day = f0; *month = f3; *year = f6; break;
    case kKindGerman:
        *day = f0; *month = f3; *year = f6;
        rewritten[2] = '.';
        rewritten[5] = '.';
        break;
    case kKindJapanese: *year = f0; *month = f3; *day = f6; break;
    default: *month = f0; *day = f3; *year = f6; break;
    }
    size_t len = strlen(rewritten);
    if (len < capacity) memcpy(text, rewritten, len + 1);
}

}  // namespace tavik::nls
