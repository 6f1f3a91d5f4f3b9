#include "platform/sysv_ipc.h"

#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>

#include <cerrno>

#include "platform/signals.h"

namespace tavik::platform {

SharedSegment::~SharedSegment() {
    detach();
    if (owned_) remove();
}

SharedSegment& SharedSegment::operator=(SharedSegment&& other) noexcept {
    if (this != &other) {
        detach();
        if (owned_) remove();
        id_ = std::exchange(other.id_, -1);
        addr_ = std::exchange(other.addr_, nullptr);
        size_ = std::exchange(other.size_, 0);
        owned_ = other.owned_;
    }
    return *this;
}

int SharedSegment::create(size_t size) {
    int id = ::shmget(IPC_PRIVATE, size, 0600);
    if (id < 0) return errno;
    id_ = id;
    size_ = size;
    owned_ = true;
    return 0;
}

int SharedSegment::attach() {
    void* at = ::shmat(id_, nullptr, 0);
    if (at == reinterpret_cast<void*>(-1)) return errno;
    addr_ = at;
    return 0;
}

int SharedSegment::detach() {
    if (!addr_) return 0;
    void* at = std::exchange(addr_, nullptr);
    return ::shmdt(at) == 0 ? 0 : errno;
}

int SharedSegment::remove() {
    if (id_ < 0) return 0;
    int id = std::exchange(id_, -1);
    return ::shmctl(id, IPC_RMID, nullptr) == 0 ? 0 : errno;
}

SemaphoreSet::~SemaphoreSet() {
    if (owned_) remove();
}

SemaphoreSet& SemaphoreSet::operator=(SemaphoreSet&& other) noexcept {
    if (this != &other) {
        if (owned_) remove();
        id_ = std::exchange(other.id_, -1);
        owned_ = other.owned_;
    }
    return *this;
}

int SemaphoreSet::create(int members) {
    int id = ::semget(IPC_PRIVATE, members, 0600);
    if (id < 0) return errno;
    id_ = id;
    owned_ = true;
    return 0;
}

int SemaphoreSet::setValue(int member, int value) {
    return ::semctl(id_, member, SETVAL, value) == 0 ? 0 : errno;
}

int SemaphoreSet::operate(int member, short delta) {
    sembuf op{static_cast<unsigned short>(member), delta, SEM_UNDO};
    for (;;) {
        if (::semop(id_, &op, 1) == 0) return 0;
        if (errno != EINTR) return errno;
        dispatchPendingSignals();
    }
}

int SemaphoreSet::remove() {
    if (id_ < 0) return 0;
    int id = std::exchange(id_, -1);
    return ::semctl(id, 0, IPC_RMID) == 0 ? 0 : errno;
}

long segmentAttachments(int id) {
    shmid_ds ds{};
    return ::shmctl(id, IPC_STAT, &ds) == 0 ? static_cast<long>(ds.shm_nattch) : -1;
}

pid_t semaphoreLastProcess(int id) { return ::semctl(id, 0, GETPID); }

int removeSegmentById(int id) { return ::shmctl(id, IPC_RMID, nullptr) == 0 ? 0 : errno; }

int removeSemaphoreById(int id) { return ::semctl(id, 0, IPC_RMID) == 0 ? 0 : errno; }

}  // namespace tavik::platform
