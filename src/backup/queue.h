// The backup's packet queue: a ring of packet slots in one System V shared
// memory segment between the backup process (the only producer) and its
// sender (the only consumer), the ring's one-member semaphore (made,
// registered and removed with the segment; the fill count itself changes by
// atomic read-modify-writes in the segment, so publishing and releasing need
// no system call). Each object is listed in the registry file tvk.ipc
// (backup/ipc_registry.h) while it exists.
//
// Ring layout (native byte order): count (16 bits) at 0, outIndex at 2,
// inIndex at 4, a word at 6 in which a side that is about to wait marks
// itself, then the slots: slot k at 8 + k * slotSize, each a packet header
// and its payload. The producer fills the slot at inIndex and publishes it
// (countup); the consumer sends the slot at outIndex and releases it
// (countdown). Each side wakes the other at once when it publishes or
// releases a slot while the other waits (a futex on the ring's first word),
// so the poll intervals are only upper bounds.
//
// Requires: open() in the job process before the fork of the sender; the
// sender calls disown() so that only the job process removes the objects.
// Fails: every system-call failure is logged with the operation's prefix
// (GetIPC, ReleaseIPC); open, waitFreeSlot, countup and countdown return -1;
// registry problems are logged and never stop a job.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "backup/ipc_registry.h"
#include "platform/sysv_ipc.h"
#include "protocol/packet.h"

namespace tavik {
struct JobContext;
}

namespace tavik::backup {

// Ring header offsets.
inline constexpr size_t kRingCountAt = 0;
inline constexpr size_t kRingOutAt = 2;
inline constexpr size_t kRingInAt = 4;
inline constexpr size_t kRingWaitersAt = 6;
inline constexpr size_t kRingSlotsAt = 8;
// The declared record: the ring header and one slot of 2048 payload bytes.
inline constexpr int kDeclaredShmBuffSize = 2064;

// One backup job's queue, owned by the job process: the sender, a forked
// child, works on its copy of the object (after disown()).
class PacketQueue {
public:
    PacketQueue() = default;
    PacketQueue(const PacketQueue&) = delete;
    PacketQueue& operator=(const PacketQueue&) = delete;

    // Makes the queue for the job (GetIPC): its slots sized by the job's I/O
    // buffer, as many as the start-up granted, its waits as the job's
    // settings say, its objects registered in the job's registry.
    int open(const JobContext& ctx);
    // Terminates the sender (when there is one), removes the semaphore and
    // the segment that this process made and clears their registry lines
    // (ReleaseIPC). 0, or -1 when a removal failed. Safe to call more than
    // once.
    int release();
    // In the sender: keep the attachment, leave the objects to the job process.
    void disown();
    // In the job process once the sender is attached too: the segment is
    // marked for removal (and its registry line cleared), so that the kernel
    // frees it with the last detach, however the two processes end.
    void markSegmentForRemoval();
    bool isOpen() const { return segment_.data() != nullptr; }

    // The sender's pid, terminated by release(); -1 when there is none.
    void setSenderPid(pid_t pid) { sender_ = pid; }
    pid_t senderPid() const { return sender_; }

    // Producer.
    int waitFreeSlot();
    uint8_t* inSlot();             // the slot at inIndex: header, then payload
    size_t slotPayloadCapacity() const { return slotSize_ - protocol::kHeaderSize; }
    // Publishes the slot at inIndex and the `n` - 1 after it at once,
    // together with any held before. With `hold` they are only filled and
    // held back, to leave together with the next slots the producer
    // publishes, which it does without blocking in between (waitFreeSlot
    // publishes them before it would wait).
    int countup(uint16_t n = 1, bool hold = false);
    // Producer's view: slots that can be filled without waiting, and the slot
    // `ahead` places after inIndex (for filling several before publishing
    // them).
    uint16_t freeSlots();
    uint8_t* inSlotAhead(uint16_t ahead);
    // Writes the tape-change signals from the sender not yet in the log.
    void reportSpanTape();

    // Consumer.
    uint16_t queuedCount();
    uint16_t capacity() const { return capacity_; }
    const uint8_t* outSlot();
    // The slot `ahead` places after outIndex (for sending several at once).
    const uint8_t* slotAfterOut(uint16_t ahead);
    // Releases `n` slots.
    int countdown(uint16_t n = 1);
    // The consumer's wait while the ring is empty, with the escalating retry
    // steps of timeOut: returns count + 1, or -1 at `limit`. Ends early when
    // a slot is published.
    int waitForPacket(int count, int limit);

    // The producer's adaptive sleep, for tests.
    uint16_t producerSleepMs() const { return sleepMs_; }

private:
    std::atomic_ref<uint16_t> field(size_t at);
    uint32_t futexWord();
    uint32_t* futexAddress();
    void wakeIfWaiting(uint16_t bit);
    template <typename Ready>
    void waitUntil(uint16_t bit, Ready ready, long long micros);
    template <typename Ready>
    int retryStep(int count, int limit, uint16_t bit, Ready ready);
    uint8_t* slotAt(uint16_t index);
    int changeCount(int delta);

    platform::SharedSegment segment_;
    platform::SemaphoreSet semaphore_;
    size_t slotSize_ = protocol::kHeaderSize;
    uint16_t capacity_ = 0;
    uint16_t sleepMs_ = 1;
    uint16_t held_ = 0;  // filled slots after inIndex's old value not yet published
    pid_t sender_ = -1;
    bool owner_ = true;  // false in the sender
    // The job's settings for the queue's waits, copied in by open().
    bool boundedWait_ = false;
    int sleepScale_ = 0;
    int timeDivisor_ = 1;
    RegistryAccess registry_;
    int lastReportedSleep_ = 0;  // the last wait written to the log
    long spanTapeReported_ = 0;  // tape-change signals already in the log
};

}  // namespace tavik::backup
