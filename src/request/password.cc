#include "request/password.h"

#include <cstring>

namespace tavik {

void descramblePassword(char (&plain)[kPasswordSize], const uint8_t* scrambled) {
    std::memset(plain, 0, sizeof plain);
    size_t len = strnlen(reinterpret_cast<const char*>(scrambled), kPasswordSize);
    for (size_t i = 0; i < len + 1 && i < kPasswordSize; ++i) {
        // The position past the text holds its NUL: it stays a NUL, so an
        // all-zero field is the empty password.
        if (scrambled[i] == 0) break;
        plain[i] = static_cast<char>(scrambled[i] ^ static_cast<uint8_t>(kScrambleKey[i]));
    }
    plain[kPasswordSize - 1] = '\0';
}

std::array<uint8_t, kPasswordSize> scramblePassword(const char* plain) {
    std::array<uint8_t, kPasswordSize> out{};
    size_t len = strnlen(plain, kPasswordSize - 1);
    for (size_t i = 0; i <= len; ++i) {
        char c = i < len ? plain[i] : '\0';
        out[i] = static_cast<uint8_t>(c ^ kScrambleKey[i]);
    }
    return out;
}

void wipeSecret(void* data, size_t size) {
    volatile unsigned char* p = static_cast<volatile unsigned char*>(data);
    while (size--) *p++ = 0;
}

}  // namespace tavik
