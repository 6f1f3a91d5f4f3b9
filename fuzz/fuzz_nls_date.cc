// Arbitrary text through the date reading and the multibyte helpers: the
// reading must never write past the capacity it is given, and the helpers
// must stay inside the text.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "nls/dates.h"
#include "nls/mbstring.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    size_t capacity = data[0] % 48;
    std::vector<char> text(data + 1, data + size);
    text.push_back('\0');
    size_t len = strlen(text.data());
    // The reading gets exactly `capacity` bytes (at least the text) of its own.
    std::vector<char> buf(text.begin(), text.begin() + std::ptrdiff_t(len));
    buf.resize(capacity > len ? capacity : len + 1, '\0');
    int year, month, day;
    for (int style : {1, 2, 3, 4}) {
        std::vector<char> copy(buf);
        tavik::nls::ReadDate(copy.data(), copy.size(), &year, &month, &day, style);
        if (strnlen(copy.data(), copy.size()) == copy.size()) abort();
    }
    const char* t = text.data();
    const char* end = t + len;
    for (const char* at : {tavik::nls::MbStrChr(t, '/'), tavik::nls::MbStrRChr(t, '.'),
                           tavik::nls::MbStrStr(t, "/LOG"), tavik::nls::MbFindChar(t, "="),
                           tavik::nls::MbFindLastChar(t, "/")}) {
        if (at && (at < t || at > end)) abort();
    }
    std::vector<char> strip(text);
    int n = int(len);
    tavik::nls::MbStripSpace(strip.data(), &n);
    if (n < 0 || size_t(n) > len) abort();
    std::vector<char> tok(text);
    tavik::nls::MbTokenizer tokenizer;
    for (char* p = tavik::nls::MbStrTok(tok.data(), "/ =", tokenizer); p;
         p = tavik::nls::MbStrTok(nullptr, "/ =", tokenizer)) {
        if (p < tok.data() || p >= tok.data() + tok.size()) abort();
    }
    return 0;
}
