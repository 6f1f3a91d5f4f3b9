// How many callers the daemon serves at once: connections waiting for
// admission (their request not yet read and checked, each in a process of
// its own) and admitted jobs. A call beyond either bound is closed at once
// with a log line.
//
// The defaults, well above what one front-end uses, may be changed in the
// control file limits.cntl in the home directory, read once at start-up:
// lines "waiting N" and "jobs N" (N from 1 to 65536); blanks separate,
// "#" begins a comment, other lines are logged and ignored.
#pragma once

#include <string>

#include "daemon/state.h"

namespace tavik {

inline constexpr int kDefaultMaxWaiting = 256;
inline constexpr int kDefaultMaxJobs = 256;
inline constexpr int kMaxLimit = 65536;

// Applies limits.cntl at `path` (when present) to `s`, logging what it
// changes and what it cannot read.
void readLimits(const std::string& path, Settings& s);

}  // namespace tavik
