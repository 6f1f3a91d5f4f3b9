// The job request's password field: the login's password with its NUL,
// each byte XORed with the key byte at the same position (24 bytes at most).
// The agent descrambles it for the password check; the front-end scrambles.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace tavik {

inline constexpr size_t kPasswordSize = 24;
// Only the first 24 characters of the key take part.
inline constexpr const char kScrambleKey[] = "Kemub7,rd(5,90);QGBcnn_cHc[r];NBSdhuUSBssmBHBreJ";

// `scrambled` is the request's 24-byte field; `plain` is cleared first and
// always ends in a NUL. A password character equal to the key character at
// its position scrambles to NUL and ends the password there.
void descramblePassword(char (&plain)[kPasswordSize], const uint8_t* scrambled);
// A password of at most 23 characters (longer ones are cut).
std::array<uint8_t, kPasswordSize> scramblePassword(const char* plain);

// Overwrites a secret so that the compiler cannot drop the stores.
void wipeSecret(void* data, size_t size);

}  // namespace tavik
