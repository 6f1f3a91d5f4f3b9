// Whole-file advisory locks (fcntl F_SETLK) with the job's retries.
#pragma once

#include <cstdint>

namespace tavik::platform {

inline constexpr int kReadLock = 1;
inline constexpr int kWriteLock = 2;

// 0 locked, -1 error (errno set), -2 still locked by another process after
// `retryCount` attempts `retryInterval` seconds apart (no attempt at all
// when retryCount is 0). The interval is divided by `timeDivisor` (tests
// shorten it); a signal during the wait has its deferred action run and
// the rest is waited.
int lockFile(int fd, int lockType, uint16_t retryCount, uint16_t retryInterval, unsigned timeDivisor);

}  // namespace tavik::platform
