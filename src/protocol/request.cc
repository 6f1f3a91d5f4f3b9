#include "protocol/request.h"

#include <cstring>

#include "wire/bytes.h"

namespace tavik::protocol {

namespace {

std::string fixedText(const uint8_t* at, size_t width) {
    size_t len = strnlen(reinterpret_cast<const char*>(at), width);
    return std::string(reinterpret_cast<const char*>(at), len);
}

}  // namespace

std::string JobRequest::root() const {
    return fixedText(raw.data() + request_layout::kRootAt, request_layout::kRootWidth);
}

std::string JobRequest::loginID() const {
    // The field keeps room for its NUL: at most 47 characters count.
    return fixedText(raw.data() + request_layout::kLoginAt, request_layout::kLoginWidth - 1);
}

uint16_t JobRequest::tpSize() const { return wire::loadLe16(raw.data() + request_layout::kTpSizeAt); }

int32_t JobRequest::timeThresh() const {
    return static_cast<int32_t>(wire::loadLe32(raw.data() + request_layout::kTimeThreshAt));
}

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

}  // namespace tavik::protocol
