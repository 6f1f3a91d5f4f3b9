// The machine identification with the 257-byte fields the agent reports.
//
// Linux's utsname fields are 65 bytes; this copies each into a 257-byte
// field, NUL-terminated and zero-padded, so the rest of the agent can treat
// them as the wider fields of the system it was first written for.
#pragma once

#include <cstddef>

namespace tavik::platform {

inline constexpr size_t kUnameFieldSize = 257;

struct MachineName {
    char sysname[kUnameFieldSize];
    char nodename[kUnameFieldSize];
    char release[kUnameFieldSize];
    char version[kUnameFieldSize];
    char machine[kUnameFieldSize];
};

// Fills `out` (all fields zeroed first). Returns 0, or -1 with errno set.
int nuname(MachineName& out);

}  // namespace tavik::platform
