#include "backup/queue_size.h"

#include <sys/ipc.h>
#include <sys/shm.h>

#include <cerrno>

#include "log/ulog.h"

namespace tavik::backup {
namespace {

constexpr const char* kPrefix = "(DecideShmBuf) ";

}  // namespace

int grantedSlotCount(int ioBufferSize, unsigned wanted, const SegmentProbe& probe, int& errorOut) {
    int count = int(wanted);
    for (;;) {
        int err = probe(segmentSize(ioBufferSize, unsigned(count)));
        if (err == 0) return count;
        if (err != EINVAL) {
            errorOut = err;
            return -2;
        }
        count -= 10;
        if (count < 10) return -1;
    }
}

int DecideShmBuf(int ioBufferSize, uint16_t& ioBufferCount, int& sleepScale) {
    bool removeFailed = false;
    auto probe = [&removeFailed](size_t bytes) {
        int id = shmget(IPC_PRIVATE, bytes, 0600);
        if (id < 0) return errno;
        if (shmctl(id, IPC_RMID, nullptr) != 0) {
            removeFailed = true;
            ulog(MSG_FAILED_REMOVE_SHARED_MEMORY, kPrefix, errText());
        }
        return 0;
    };
    int error = 0;
    int count = grantedSlotCount(ioBufferSize, ioBufferCount, probe, error);
    if (count == -1) {
        ulog(MSG_NOT_ENOUGH_SHARED_MEMORY, kPrefix);
        return -1;
    }
    if (count == -2) {
        errno = error;
        ulog(MSG_FAILED_GET_SHARED_MEMORY, kPrefix, errText());
        return -1;
    }
    if (removeFailed) return -1;
    ioBufferCount = uint16_t(count);
    sleepScale = count * 9 / 10;
    return 0;
}

}  // namespace tavik::backup
