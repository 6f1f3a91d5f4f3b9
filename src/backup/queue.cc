#include "backup/queue.h"

#include <fcntl.h>
#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "backup/backup_state.h"
#include "backup/ipc_registry.h"
#include "backup/queue_size.h"
#include "backup/span_tape.h"
#include "log/ulog.h"
#include "platform/fd.h"
#include "platform/plain_file.h"
#include "platform/signals.h"
#include "platform/sysv_ipc.h"
#include "request/job_context.h"
#include "transport/packet.h"

namespace tavik::backup {

namespace {

// Bits of the waiters word.
constexpr uint16_t kConsumerWaits = 1;
constexpr uint16_t kProducerWaits = 2;
// The tape-change wait has no time-out; it re-checks once an hour.
constexpr long long kAsleepWaitMicros = 3600LL * 1000000;

}  // namespace

std::atomic_ref<uint16_t> PacketQueue::field(size_t at) {
    return std::atomic_ref<uint16_t>(*reinterpret_cast<uint16_t*>(segment_.data() + at));
}

uint32_t PacketQueue::futexWord() {
    return uint32_t(field(kRingCountAt).load()) | (uint32_t(field(kRingOutAt).load()) << 16);
}

uint32_t* PacketQueue::futexAddress() { return reinterpret_cast<uint32_t*>(segment_.data() + kRingCountAt); }

void PacketQueue::wakeIfWaiting(uint16_t bit) {
    if (field(kRingWaitersAt).load() & bit)
        ::syscall(SYS_futex, futexAddress(), FUTEX_WAKE, INT_MAX, nullptr, nullptr, 0);
}

// Waits at most `micros` until `ready()` holds or the other side changes the
// ring; returns at once when it already holds. Signals end the wait early.
template <typename Ready>
void PacketQueue::waitUntil(uint16_t bit, Ready ready, long long micros) {
    field(kRingWaitersAt).fetch_or(bit);
    uint32_t seen = futexWord();
    if (!ready()) {
        timespec ts{};
        ts.tv_sec = time_t(micros / 1000000);
        ts.tv_nsec = long(micros % 1000000) * 1000;
        ::syscall(SYS_futex, futexAddress(), FUTEX_WAIT, seen, &ts, nullptr, 0);
    }
    field(kRingWaitersAt).fetch_and(uint16_t(~bit));
}

// One step of the escalating retry wait (10 ms for the first 1000 steps,
// then whole seconds growing every 100 steps), logged like timeOut's, but
// ended early by the other side's progress.
template <typename Ready>
int PacketQueue::retryStep(int count, int limit, uint16_t bit, Ready ready) {
    int n = count + 1;
    if (n > limit) return -1;
    long long micros = 10000;
    if (n > 1000) {
        int wait = (n - 1000) / 100 + 1;
        if (logVerbose() && wait != lastReportedSleep_) {
            ulog("%sTimeCount=%d, sleep(%d)...", "(timeOut) ", n, wait);
            lastReportedSleep_ = wait;
        }
        micros = wait * 1000000LL;
    }
    waitUntil(bit, ready, micros / timeDivisor_);
    platform::dispatchPendingSignals();
    return n;
}

uint8_t* PacketQueue::slotAt(uint16_t index) { return segment_.data() + kRingSlotsAt + size_t(index) * slotSize_; }

// Publishing and releasing change `count` with one atomic read-modify-write
// in the shared segment: each index has a single writer and `count` is the
// only word both sides change, so no system call is needed per packet. The
// semaphore stays the ring's mutex of record (made, registered and removed
// with the segment). The other side is woken only when it marked itself
// waiting: the marker and the count are both sequentially consistent, so a
// side that marks itself and then finds the ring unchanged is always seen.
int PacketQueue::changeCount(int delta) {
    std::atomic_ref<uint16_t> count = field(kRingCountAt);
    if (delta > 0)
        count.fetch_add(uint16_t(delta));
    else
        count.fetch_sub(uint16_t(-delta));
    wakeIfWaiting(delta > 0 ? kConsumerWaits : kProducerWaits);
    return 0;
}

int PacketQueue::open(const JobContext& ctx) {
    constexpr const char* kPrefix = "(GetIPC) ";
    const JobSettings& js = ctx.jobSettings;
    boundedWait_ = js.boundedWait;
    sleepScale_ = js.sleepScale;
    timeDivisor_ = js.divisor();
    registry_ = {.path = ctx.paths.ipcPath,
                 .retryCount = ctx.retryCount(),
                 .retryInterval = ctx.retryInterval(),
                 .timeDivisor = js.divisor()};
    owner_ = true;
    slotSize_ = slotSize(js.ioBufferSize);
    capacity_ = js.ioBufferCount;
    sleepMs_ = js.waitSleepMs ? js.waitSleepMs : 1;
    held_ = 0;
    spanTapeReported_ = 0;
    size_t size = segmentSize(js.ioBufferSize, js.ioBufferCount);
    if (logVerbose())
        ulog("%ssizeof(SHM_BUFF)=%d,shm_size=%d, shmbuff->pkque=%d", kPrefix, kDeclaredShmBuffSize, int(size),
             int(kRingSlotsAt));
    if (int err = segment_.create(size); err != 0) {
        errno = err;
        ulog(MSG_FAILED_GET_SHARED_MEMORY, kPrefix, errText());
        return -1;
    }
    RegisterIPC(registry_, 'm', segment_.id());
    if (int err = segment_.attach(); err != 0) {
        errno = err;
        ulog(MSG_FAILED_ATTACH_SHARED_MEMORY, kPrefix, errText());
        return -1;
    }
    std::memset(segment_.data(), 0, size);
    if (int err = semaphore_.create(1); err != 0) {
        errno = err;
        ulog(MSG_FAILED_GET_SEMAPHORE, kPrefix, errText());
        return -1;
    }
    RegisterIPC(registry_, 's', semaphore_.id());
    if (int err = semaphore_.setValue(0, 1); err != 0) {
        errno = err;
        ulog(MSG_FAILED_INITIALIZE_SEMAPHORE, kPrefix, errText());
        return -1;
    }
    return 0;
}

int PacketQueue::release() {
    constexpr const char* kPrefix = "(ReleaseIPC) ";
    int result = 0;
    if (!owner_) {
        segment_.detach();
        return 0;
    }
    if (sender_ != -1) {
        ::kill(sender_, SIGTERM);
        sender_ = -1;
    }
    if (int id = semaphore_.id(); id >= 0) {
        if (int err = semaphore_.remove(); err != 0) {
            errno = err;
            ulog(MSG_FAILED_REMOVE_SEMAPHORE, kPrefix, errText());
            result = -1;
        }
        ClearIPC(registry_, 's', id);
    }
    if (int err = segment_.detach(); err != 0) {
        errno = err;
        ulog(MSG_FAILED_DETACH_SHARED_MEMORY, kPrefix, errText());
        result = -1;
    }
    if (int id = segment_.id(); id >= 0) {
        if (int err = segment_.remove(); err != 0) {
            errno = err;
            ulog(MSG_FAILED_REMOVE_SHARED_MEMORY, kPrefix, errText());
            result = -1;
        }
        ClearIPC(registry_, 'm', id);
    }
    return result;
}

void PacketQueue::markSegmentForRemoval() {
    constexpr const char* kPrefix = "(GetIPC) ";
    int id = segment_.id();
    if (id < 0) return;
    if (int err = segment_.remove(); err != 0) {
        errno = err;
        ulog(MSG_FAILED_REMOVE_SHARED_MEMORY, kPrefix, errText());
        return;
    }
    ClearIPC(registry_, 'm', id);
}

void PacketQueue::disown() {
    segment_.disown();
    semaphore_.disown();
    // A sender that ends through cleanup must not remove or unregister what
    // belongs to the job process.
    owner_ = false;
    sender_ = -1;
}

int PacketQueue::waitFreeSlot() {
    auto notFull = [this] { return field(kRingCountAt).load() < capacity_; };
    unsigned waited = 0;
    int n = 0;
    // Held slots are published before the producer could wait for the
    // sender to free one.
    if (held_ != 0 && field(kRingCountAt).load() + held_ >= capacity_ && countup(0) != 0) return -1;
    while (!notFull()) {
        if (spanTapeAsleep()) {
            // The server is changing tapes: no time-out. The sender's wake-up
            // signal interrupts the wait, and so does its release of a slot:
            // a wake-up that arrives just before the wait begins (or that
            // merges with the sleep signal, as two quick SIGUSR1 do) is then
            // not lost, because a sender that sends again frees slots.
            waitUntil(kProducerWaits, notFull, kAsleepWaitMicros);
        } else if (boundedWait_) {
            n = retryStep(n, transport::kFullQueueRetryLimit, kProducerWaits, notFull);
            if (n == -1) return -1;
            continue;
        } else {
            waitUntil(kProducerWaits, notFull, (long long)sleepMs_ * 1000);
            if (waited == 0) {
                waited = unsigned(capacity_ - field(kRingCountAt).load());
                if (waited == 0) waited = 1;
            }
        }
        platform::dispatchPendingSignals();
        reportSpanTape();
    }
    if (waited != 0) {
        unsigned scale = unsigned(sleepScale_ > 0 ? sleepScale_ : capacity_ * 9 / 10);
        uint32_t next = uint32_t(sleepMs_) * scale / waited;
        if (next == 0) next = 1;
        if (next > 1000) next = 1000;
        sleepMs_ = uint16_t(next);
    }
    std::memset(inSlot(), 0, protocol::kHeaderSize);
    return 0;
}

uint8_t* PacketQueue::inSlot() { return slotAt(field(kRingInAt).load()); }

void PacketQueue::reportSpanTape() { backup::reportSpanTape(spanTapeReported_); }

int PacketQueue::countup(uint16_t n, bool hold) {
    uint16_t in = field(kRingInAt).load();
    field(kRingInAt).store(uint16_t((in + n) % capacity_));
    if (hold) {
        held_ = uint16_t(held_ + n);
        return 0;
    }
    int total = int(n) + held_;
    held_ = 0;
    return changeCount(total);
}

uint16_t PacketQueue::freeSlots() { return uint16_t(capacity_ - field(kRingCountAt).load() - held_); }

uint8_t* PacketQueue::inSlotAhead(uint16_t ahead) {
    return slotAt(uint16_t((field(kRingInAt).load() + ahead) % capacity_));
}

uint16_t PacketQueue::queuedCount() { return isOpen() ? field(kRingCountAt).load() : 0; }

const uint8_t* PacketQueue::outSlot() { return slotAt(field(kRingOutAt).load()); }

const uint8_t* PacketQueue::slotAfterOut(uint16_t ahead) {
    return slotAt(uint16_t((field(kRingOutAt).load() + ahead) % capacity_));
}

int PacketQueue::countdown(uint16_t n) {
    uint16_t out = field(kRingOutAt).load();
    field(kRingOutAt).store(uint16_t((out + n) % capacity_));
    return changeCount(-int(n));
}

int PacketQueue::waitForPacket(int count, int limit) {
    return retryStep(count, limit, kConsumerWaits, [this] { return field(kRingCountAt).load() != 0; });
}

}  // namespace tavik::backup
