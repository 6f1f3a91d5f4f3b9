// Multibyte-aware string scanning.
//
// In a Japanese locale (LocaleKind() == kKindJapanese) a byte of a two-byte
// character can look like "/" or "=", so these routines convert the text to
// wide characters, scan those, and report results as byte positions in the
// caller's text. In the other locales MbStrChr, MbStrRChr, MbStrStr, MbStrTok
// and MbToLower are the byte-wise C routines; MbFindChar, MbFindLastChar and
// MbStripSpace convert in every locale.
//
// Texts of kWideMax characters or more, and texts that do not convert, are
// scanned byte-wise (MbFindLastChar returns null instead). Nothing here
// reports an error. MbStrTok keeps its position between calls in the caller's
// MbTokenizer, like strtok_r.
#pragma once

#include <cstddef>

namespace tavik::nls {

// The wide work buffers hold this many wide characters, the NUL included.
inline constexpr int kWideMax = 1024;

const char* MbStrChr(const char* text, int c);
const char* MbStrRChr(const char* text, int c);
// `mbchar`'s first character is the one searched for.
const char* MbFindChar(const char* text, const char* mbchar);
const char* MbFindLastChar(const char* text, const char* mbchar);
const char* MbStrStr(const char* text, const char* needle);
// MbStrTok's memory between the calls of one scan: the caller's text, its
// wide copy and the positions reached in both.
struct MbTokenizer {
    bool wideMode = false;
    char* bytes = nullptr;  // next byte of the caller's text (wide mode)
    char* saved = nullptr;  // strtok_r's position (byte-wise mode)
    wchar_t wide[kWideMax] = {};
    size_t widePos = 0;
};
char* MbStrTok(char* text, const char* delimiters, MbTokenizer& t);
char* MbToLower(char* text);
// Removes white-space characters from the first *length bytes of text;
// *length becomes the new byte length and the text is NUL-terminated when it
// got shorter.
char* MbStripSpace(char* text, int* length);

// Writable-text overloads, as the C library's strchr gives.
inline char* MbStrChr(char* text, int c) { return const_cast<char*>(MbStrChr(static_cast<const char*>(text), c)); }
inline char* MbStrRChr(char* text, int c) { return const_cast<char*>(MbStrRChr(static_cast<const char*>(text), c)); }
inline char* MbStrStr(char* text, const char* needle) {
    return const_cast<char*>(MbStrStr(static_cast<const char*>(text), needle));
}

}  // namespace tavik::nls
