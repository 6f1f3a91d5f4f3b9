// Move-only owners of System V IPC objects: a shared-memory segment (its id
// and this process's attachment) and a semaphore set.
//
// The owner that made an object removes it; a forked child that inherits a
// copy calls disown() so that its exit detaches but removes nothing. The
// explicit operations return 0 or the errno of the failure so that the
// caller can log it in its own words; destructors act quietly and never
// throw.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <utility>

namespace tavik::platform {

class SharedSegment {
public:
    SharedSegment() = default;
    ~SharedSegment();
    SharedSegment(SharedSegment&& other) noexcept
        : id_(std::exchange(other.id_, -1)), addr_(std::exchange(other.addr_, nullptr)),
          size_(std::exchange(other.size_, 0)), owned_(other.owned_) {}
    SharedSegment& operator=(SharedSegment&& other) noexcept;
    SharedSegment(const SharedSegment&) = delete;
    SharedSegment& operator=(const SharedSegment&) = delete;

    // shmget(IPC_PRIVATE, size, 0600): 0 or errno.
    int create(size_t size);
    // shmat read-write: 0 or errno.
    int attach();
    // shmdt: 0 or errno (0 when not attached).
    int detach();
    // shmctl(IPC_RMID): 0 or errno (0 when there is no segment).
    int remove();
    // Keeps using the segment but leaves its removal to the process that
    // made it.
    void disown() { owned_ = false; }

    int id() const { return id_; }
    unsigned char* data() const { return static_cast<unsigned char*>(addr_); }
    size_t size() const { return size_; }

private:
    int id_ = -1;
    void* addr_ = nullptr;
    size_t size_ = 0;
    bool owned_ = true;
};

class SemaphoreSet {
public:
    SemaphoreSet() = default;
    ~SemaphoreSet();
    SemaphoreSet(SemaphoreSet&& other) noexcept : id_(std::exchange(other.id_, -1)), owned_(other.owned_) {}
    SemaphoreSet& operator=(SemaphoreSet&& other) noexcept;
    SemaphoreSet(const SemaphoreSet&) = delete;
    SemaphoreSet& operator=(const SemaphoreSet&) = delete;

    // semget(IPC_PRIVATE, members, 0600): 0 or errno.
    int create(int members);
    // semctl SETVAL: 0 or errno.
    int setValue(int member, int value);
    // One semop of `delta` on `member` with SEM_UNDO, repeated after EINTR
    // (the interrupting signal is dispatched first): 0 or errno.
    int operate(int member, short delta);
    // semctl(IPC_RMID): 0 or errno (0 when there is none).
    int remove();
    void disown() { owned_ = false; }
    int id() const { return id_; }

private:
    int id_ = -1;
    bool owned_ = true;
};

// Objects known only by id (listed by an earlier process, owned by none
// here): the number of attachments of a segment, the process that last set
// or operated a semaphore set (-1 with errno, EINVAL or EIDRM when the
// object is gone), and their removal (0 or errno).
long segmentAttachments(int id);
pid_t semaphoreLastProcess(int id);
int removeSegmentById(int id);
int removeSemaphoreById(int id);

}  // namespace tavik::platform
