#include "nls/mbstring.h"

#include <cctype>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <cwctype>
#include <memory>
#include <new>

#include "nls/messages.h"

namespace tavik::nls {
namespace {

bool japanese() { return LocaleKind() == kKindJapanese; }

// Converts `text` into `wide` (kWideMax wide characters). False when the text
// does not convert or is too long to convert whole.
bool toWide(const char* text, wchar_t (&wide)[kWideMax]) {
    size_t n = mbstowcs(nullptr, text, 0);
    if (n == size_t(-1) || n >= size_t(kWideMax)) return false;
    return mbstowcs(wide, text, kWideMax) != size_t(-1);
}

// The first character of `mbchar` as a wide character.
bool firstWide(const char* mbchar, wchar_t& out) {
    mbtowc(nullptr, nullptr, 0);
    int n = mbtowc(&out, mbchar, MB_CUR_MAX);
    return n >= 0;
}

bool oneByteWide(int c, wchar_t& out) {
    char one[2] = {char(c), '\0'};
    if (one[0] == '\0') {
        out = L'\0';
        return true;
    }
    return firstWide(one, out);
}

// The byte position in `text` of the wide match `match` inside `wide`: the
// text's end less the byte length of the wide rest. Null when the rest does
// not convert back.
const char* bytePosition(const char* text, const wchar_t* match) {
    char rest[kWideMax * MB_LEN_MAX];
    size_t n = wcstombs(rest, match, sizeof rest);
    if (n == size_t(-1) || n == sizeof rest) return nullptr;
    size_t len = strlen(text);
    if (n > len) return nullptr;
    return text + (len - n);
}

enum class Scan { First, Last };

// The wide search of one character; `fallback` tells whether the caller
// should go byte-wise.
const char* wideFind(const char* text, wchar_t wc, Scan scan, bool& fallback) {
    fallback = false;
    wchar_t wide[kWideMax];
    if (!toWide(text, wide)) {
        fallback = true;
        return nullptr;
    }
    const wchar_t* match = scan == Scan::First ? wcschr(wide, wc) : wcsrchr(wide, wc);
    if (!match) return nullptr;
    const char* at = bytePosition(text, match);
    if (!at) fallback = true;
    return at;
}

}  // namespace

const char* MbStrChr(const char* text, int c) {
    if (!japanese()) return strchr(text, c);
    wchar_t wc;
    bool fallback = true;
    const char* at = oneByteWide(c, wc) ? wideFind(text, wc, Scan::First, fallback) : nullptr;
    return fallback ? strchr(text, c) : at;
}

const char* MbStrRChr(const char* text, int c) {
    if (!japanese()) return strrchr(text, c);
    wchar_t wc;
    bool fallback = true;
    const char* at = oneByteWide(c, wc) ? wideFind(text, wc, Scan::Last, fallback) : nullptr;
    return fallback ? strrchr(text, c) : at;
}

const char* MbFindChar(const char* text, const char* mbchar) {
    wchar_t wc;
    bool fallback = true;
    const char* at = firstWide(mbchar, wc) ? wideFind(text, wc, Scan::First, fallback) : nullptr;
    return fallback ? strstr(text, mbchar) : at;
}

const char* MbFindLastChar(const char* text, const char* mbchar) {
    wchar_t wc;
    bool fallback = true;
    const char* at = firstWide(mbchar, wc) ? wideFind(text, wc, Scan::Last, fallback) : nullptr;
    return fallback ? nullptr : at;
}

const char* MbStrStr(const char* text, const char* needle) {
    if (!japanese()) return strstr(text, needle);
    wchar_t wideNeedle[kWideMax];
    wchar_t wide[kWideMax];
    if (!toWide(needle, wideNeedle) || !toWide(text, wide)) return strstr(text, needle);
    const wchar_t* match = wcsstr(wide, wideNeedle);
    if (!match) return nullptr;
    const char* at = bytePosition(text, match);
    return at ? at : strstr(text, needle);
}

namespace {

// Byte length of one wide character in the current locale.
size_t mbLength(wchar_t wc) {
    char buf[MB_LEN_MAX];
    int n = wctomb(buf, wc);
    return n < 0 ? 1 : size_t(n);
}

}  // namespace

char* MbStrTok(char* text, const char* delimiters, MbTokenizer& t) {
    if (!japanese()) {
        t.wideMode = false;
        return strtok_r(text, delimiters, &t.saved);
    }
    wchar_t wideDelims[kWideMax];
    if (!toWide(delimiters, wideDelims)) {
        t.wideMode = false;
        return strtok_r(text, delimiters, &t.saved);
    }
    if (text) {
        if (!toWide(text, t.wide)) {
            t.wideMode = false;
            return strtok_r(text, delimiters, &t.saved);
        }
        t.wideMode = true;
        t.bytes = text;
        t.widePos = 0;
    }
    if (!t.wideMode) return strtok_r(nullptr, delimiters, &t.saved);
    if (!t.bytes) return nullptr;
    const wchar_t* w = t.wide + t.widePos;
    size_t skip = wcsspn(w, wideDelims);
    for (size_t i = 0; i < skip; ++i) t.bytes += mbLength(w[i]);
    w += skip;
    t.widePos += skip;
    if (*w == L'\0') {
        t.bytes = nullptr;
        return nullptr;
    }
    size_t tokenLen = wcscspn(w, wideDelims);
    size_t tokenBytes = 0;
    for (size_t i = 0; i < tokenLen; ++i) tokenBytes += mbLength(w[i]);
    char* start = t.bytes;
    if (w[tokenLen] == L'\0') {
        t.widePos += tokenLen;
        t.bytes = nullptr;
        return start;
    }
    size_t delimBytes = mbLength(w[tokenLen]);
    start[tokenBytes] = '\0';
    t.bytes = start + tokenBytes + delimBytes;
    t.widePos += tokenLen + 1;
    return start;
}

char* MbToLower(char* text) {
    if (!japanese()) {
        for (char* p = text; *p; ++p) *p = char(tolower(static_cast<unsigned char>(*p)));
        return text;
    }
    mbtowc(nullptr, nullptr, 0);
    char* p = text;
    while (*p) {
        wchar_t wc;
        int n = mbtowc(&wc, p, MB_CUR_MAX);
        if (n <= 0) break;
        if (iswupper(wint_t(wc))) {
            char lower[MB_LEN_MAX];
            int m = wctomb(lower, wchar_t(towlower(wint_t(wc))));
            // Written back in place only when it takes the same bytes.
            if (m == n) memcpy(p, lower, size_t(n));
        }
        p += n;
    }
    return text;
}

char* MbStripSpace(char* text, int* length) {
    if (!text || !length || *length <= 0) return text;
    size_t total = size_t(*length);
    std::unique_ptr<wchar_t[]> kept(new (std::nothrow) wchar_t[total + 1]);
    if (!kept) return text;
    size_t count = 0;
    size_t at = 0;
    mbtowc(nullptr, nullptr, 0);
    while (at < total) {
        wchar_t wc;
        int n = mbtowc(&wc, text + at, total - at);
        if (n < 0) return text;
        if (n == 0) break;  // an embedded NUL ends the text
        if (!iswspace(wint_t(wc))) kept[count++] = wc;
        at += size_t(n);
    }
    kept[count] = L'\0';
    std::unique_ptr<char[]> out(new (std::nothrow) char[total + 1]);
    if (!out) return text;
    size_t n = wcstombs(out.get(), kept.get(), total + 1);
    if (n == size_t(-1) || n > total) return text;
    memcpy(text, out.get(), n);
    if (n < total) text[n] = '\0';
    *length = int(n);
    return text;
}

}  // namespace tavik::nls
