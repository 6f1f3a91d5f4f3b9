#include "platform/file_lock.h"

#include <fcntl.h>

#include <cerrno>
#include <ctime>

#include "platform/signals.h"

namespace tavik::platform {

namespace {

void sleepFully(unsigned seconds, unsigned timeDivisor) {
    long long micros = (long long)seconds * 1000000 / (timeDivisor ? timeDivisor : 1);
    timespec left{time_t(micros / 1000000), long(micros % 1000000) * 1000};
    while (::nanosleep(&left, &left) != 0 && errno == EINTR) dispatchPendingSignals();
}

}  // namespace

int lockFile(int fd, int lockType, uint16_t retryCount, uint16_t retryInterval, unsigned timeDivisor) {
    struct flock lock {};
    lock.l_type = short(lockType == kReadLock ? F_RDLCK : F_WRLCK);
    lock.l_whence = SEEK_SET;
    lock.l_start = 0;
    lock.l_len = 0;
    for (unsigned attempt = 0; attempt < retryCount; ++attempt) {
        if (::fcntl(fd, F_SETLK, &lock) == 0) return 0;
        if (errno != EACCES && errno != EAGAIN) return -1;
        sleepFully(retryInterval, timeDivisor);
    }
    return -2;
}

}  // namespace tavik::platform
