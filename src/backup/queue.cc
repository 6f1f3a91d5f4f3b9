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

struct Ipc {
    platform::SharedSegment segment;
    platform::SemaphoreSet semaphore;
    size_t slotSize = 0;
    uint16_t capacity = 0;
    uint16_t sleepMs = 1;
    uint16_t held = 0;  // filled slots after inIndex's old value not yet published
    pid_t sender = -1;
    bool owner = true;  // false in the sender
    // The job's settings for the queue's waits, copied in by GetIPC: the
    // queue also serves the watchdog's deferred action, which has no job
    // at hand.
    bool boundedWait = false;
    int sleepScale = 0;
    int timeDivisor = 1;
    RegistryAccess registry;
    int lastReportedSleep = 0;  // the last wait written to the log
};

// Deliberately never destroyed: the objects are removed by ReleaseIPC on
// the job's exit path, never by a destructor running in whichever process
// happens to exit.
Ipc& ipc() {
    static Ipc* state = new Ipc;
    return *state;
}

std::atomic_ref<uint16_t> field(size_t at) {
    return std::atomic_ref<uint16_t>(*reinterpret_cast<uint16_t*>(ipc().segment.data() + at));
}

uint32_t futexWord() {
    return uint32_t(field(kRingCountAt).load()) | (uint32_t(field(kRingOutAt).load()) << 16);
}

uint32_t* futexAddress() { return reinterpret_cast<uint32_t*>(ipc().segment.data() + kRingCountAt); }

void wakeIfWaiting(uint16_t bit) {
    if (field(kRingWaitersAt).load() & bit)
        ::syscall(SYS_futex, futexAddress(), FUTEX_WAKE, INT_MAX, nullptr, nullptr, 0);
}

// Waits at most `micros` until `ready()` holds or the other side changes the
// ring; returns at once when it already holds. Signals end the wait early.
template <typename Ready>
void waitUntil(uint16_t bit, Ready ready, long long micros) {
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
int retryStep(int count, int limit, uint16_t bit, Ready ready) {
    int n = count + 1;
    if (n > limit) return -1;
    long long micros = 10000;
    if (n > 1000) {
        int wait = (n - 1000) / 100 + 1;
        Ipc& q = ipc();
        if (logVerbose() && wait != q.lastReportedSleep) {
            ulog("%sTimeCount=%d, sleep(%d)...", "(timeOut) ", n, wait);
            q.lastReportedSleep = wait;
        }
        micros = wait * 1000000LL;
    }
    waitUntil(bit, ready, micros / ipc().timeDivisor);
    platform::dispatchPendingSignals();
    return n;
}

uint8_t* slotAt(uint16_t index) { return ipc().segment.data() + kRingSlotsAt + size_t(index) * ipc().slotSize; }

// Publishing and releasing change `count` with one atomic read-modify-write
// in the shared segment: each index has a single writer and `count` is the
// only word both sides change, so no system call is needed per packet. The
// semaphore stays the ring's mutex of record (made, registered and removed
// with the segment). The other side is woken only when it marked itself
// waiting: the marker and the count are both sequentially consistent, so a
// side that marks itself and then finds the ring unchanged is always seen.
int changeCount(int delta, const char*) {
    std::atomic_ref<uint16_t> count = field(kRingCountAt);
    if (delta > 0)
        count.fetch_add(uint16_t(delta));
    else
        count.fetch_sub(uint16_t(-delta));
    wakeIfWaiting(delta > 0 ? kConsumerWaits : kProducerWaits);
    return 0;
}

}  // namespace

int GetIPC(const JobContext& ctx) {
    constexpr const char* kPrefix = "(GetIPC) ";
    Ipc& q = ipc();
    const JobSettings& js = ctx.jobSettings;
    q.boundedWait = js.boundedWait;
    q.sleepScale = js.sleepScale;
    q.timeDivisor = js.divisor();
    q.registry = {.path = ctx.paths.ipcPath,
                  .retryCount = ctx.retryCount(),
                  .retryInterval = ctx.retryInterval(),
                  .timeDivisor = js.divisor()};
    q.owner = true;
    q.slotSize = slotSize(js.ioBufferSize);
    q.capacity = js.ioBufferCount;
    q.sleepMs = js.waitSleepMs ? js.waitSleepMs : 1;
    q.held = 0;
    size_t size = segmentSize(js.ioBufferSize, js.ioBufferCount);
    if (logVerbose())
        ulog("%ssizeof(SHM_BUFF)=%d,shm_size=%d, shmbuff->pkque=%d", kPrefix, kDeclaredShmBuffSize, int(size),
             int(kRingSlotsAt));
    if (int err = q.segment.create(size); err != 0) {
        errno = err;
        ulog(MSG_FAILED_GET_SHARED_MEMORY, kPrefix, errText());
        return -1;
    }
    RegisterIPC(q.registry, 'm', q.segment.id());
    if (int err = q.segment.attach(); err != 0) {
        errno = err;
        ulog(MSG_FAILED_ATTACH_SHARED_MEMORY, kPrefix, errText());
        return -1;
    }
    std::memset(q.segment.data(), 0, size);
    if (int err = q.semaphore.create(1); err != 0) {
        errno = err;
        ulog(MSG_FAILED_GET_SEMAPHORE, kPrefix, errText());
        return -1;
    }
    RegisterIPC(q.registry, 's', q.semaphore.id());
    if (int err = q.semaphore.setValue(0, 1); err != 0) {
        errno = err;
        ulog(MSG_FAILED_INITIALIZE_SEMAPHORE, kPrefix, errText());
        return -1;
    }
    return 0;
}

int ReleaseIPC() {
    constexpr const char* kPrefix = "(ReleaseIPC) ";
    Ipc& q = ipc();
    int result = 0;
    if (!q.owner) {
        q.segment.detach();
        return 0;
    }
    if (q.sender != -1) {
        ::kill(q.sender, SIGTERM);
        q.sender = -1;
    }
    if (int id = q.semaphore.id(); id >= 0) {
        if (int err = q.semaphore.remove(); err != 0) {
            errno = err;
            ulog(MSG_FAILED_REMOVE_SEMAPHORE, kPrefix, errText());
            result = -1;
        }
        ClearIPC(q.registry, 's', id);
    }
    if (int err = q.segment.detach(); err != 0) {
        errno = err;
        ulog(MSG_FAILED_DETACH_SHARED_MEMORY, kPrefix, errText());
        result = -1;
    }
    if (int id = q.segment.id(); id >= 0) {
        if (int err = q.segment.remove(); err != 0) {
            errno = err;
            ulog(MSG_FAILED_REMOVE_SHARED_MEMORY, kPrefix, errText());
            result = -1;
        }
        ClearIPC(q.registry, 'm', id);
    }
    return result;
}

void markSegmentForRemoval() {
    constexpr const char* kPrefix = "(GetIPC) ";
    Ipc& q = ipc();
    int id = q.segment.id();
    if (id < 0) return;
    if (int err = q.segment.remove(); err != 0) {
        errno = err;
        ulog(MSG_FAILED_REMOVE_SHARED_MEMORY, kPrefix, errText());
        return;
    }
    ClearIPC(q.registry, 'm', id);
}

void disownIPC() {
    Ipc& q = ipc();
    q.segment.disown();
    q.semaphore.disown();
    // A sender that ends through cleanup must not remove or unregister what
    // belongs to the job process.
    q.owner = false;
    q.sender = -1;
}

bool haveIPC() { return ipc().segment.data() != nullptr; }

void setSenderPid(pid_t pid) { ipc().sender = pid; }
pid_t senderPid() { return ipc().sender; }

int waitFreeSlot() {
    Ipc& q = ipc();
    auto notFull = [&q] { return field(kRingCountAt).load() < q.capacity; };
    unsigned waited = 0;
    int n = 0;
    // Held slots are published before the producer could wait for the
    // sender to free one.
    if (q.held != 0 && field(kRingCountAt).load() + q.held >= q.capacity && countup(0) != 0) return -1;
    while (!notFull()) {
        if (spanTapeAsleep()) {
            // The server is changing tapes: no time-out. The sender's wake-up
            // signal interrupts the wait, and so does its release of a slot:
            // a wake-up that arrives just before the wait begins (or that
            // merges with the sleep signal, as two quick SIGUSR1 do) is then
            // not lost, because a sender that sends again frees slots.
            waitUntil(kProducerWaits, notFull, kAsleepWaitMicros);
        } else if (q.boundedWait) {
            n = retryStep(n, transport::kFullQueueRetryLimit, kProducerWaits, notFull);
            if (n == -1) return -1;
            continue;
        } else {
            waitUntil(kProducerWaits, notFull, (long long)q.sleepMs * 1000);
            if (waited == 0) {
                waited = unsigned(q.capacity - field(kRingCountAt).load());
                if (waited == 0) waited = 1;
            }
        }
        platform::dispatchPendingSignals();
        reportSpanTape(backupState().spanTapeReported);
    }
    if (waited != 0) {
        unsigned scale = unsigned(q.sleepScale > 0 ? q.sleepScale : q.capacity * 9 / 10);
        uint32_t next = uint32_t(q.sleepMs) * scale / waited;
        if (next == 0) next = 1;
        if (next > 1000) next = 1000;
        q.sleepMs = uint16_t(next);
    }
    std::memset(inSlot(), 0, protocol::kHeaderSize);
    return 0;
}

uint8_t* inSlot() { return slotAt(field(kRingInAt).load()); }

size_t slotPayloadCapacity() { return ipc().slotSize - protocol::kHeaderSize; }

int countup(uint16_t n, bool hold) {
    Ipc& q = ipc();
    uint16_t in = field(kRingInAt).load();
    field(kRingInAt).store(uint16_t((in + n) % q.capacity));
    if (hold) {
        q.held = uint16_t(q.held + n);
        return 0;
    }
    int total = int(n) + q.held;
    q.held = 0;
    return changeCount(total, "(countup) ");
}

uint16_t freeSlots() { return uint16_t(ipc().capacity - field(kRingCountAt).load() - ipc().held); }

uint8_t* inSlotAhead(uint16_t ahead) {
    return slotAt(uint16_t((field(kRingInAt).load() + ahead) % ipc().capacity));
}

uint16_t queuedCount() { return haveIPC() ? field(kRingCountAt).load() : 0; }
uint16_t queueCapacity() { return ipc().capacity; }

const uint8_t* outSlot() { return slotAt(field(kRingOutAt).load()); }

const uint8_t* slotAfterOut(uint16_t ahead) {
    return slotAt(uint16_t((field(kRingOutAt).load() + ahead) % ipc().capacity));
}

int countdown(uint16_t n) {
    uint16_t out = field(kRingOutAt).load();
    field(kRingOutAt).store(uint16_t((out + n) % ipc().capacity));
    return changeCount(-int(n), "(countdown) ");
}

int waitForPacket(int count, int limit) {
    return retryStep(count, limit, kConsumerWaits, [] { return field(kRingCountAt).load() != 0; });
}

uint16_t producerSleepMs() { return ipc().sleepMs; }

}  // namespace tavik::backup
