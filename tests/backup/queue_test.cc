// The packet queue on the real kernel: the registry file's lines, held
// slots and the producer's adaptive sleep over a ring that wraps, and the
// ring's size from what the system grants. End to end: a producer and a sender in two processes
// keeping the order over a ring that wraps
// (BackupFlowTest.ThirtyTwoBackupsAtOnceReassembleExactly), the IPC objects
// gone after every backup and after a killed job
// (BackupFaultTest.KilledJobProcessTakesItsSenderAndItsIpcObjects), and the
// file lock's retries (BackupFlowTest.WatchdogAndLockTests).
#include "backup/ipc_registry.h"
#include "backup/queue.h"
#include "backup/queue_size.h"

#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <fstream>

#include "daemon/scratch_home.h"
#include "daemon/state.h"
#include "protocol/packet.h"
#include "request/job_context.h"

namespace {

using namespace tavik;
using namespace tavik::backup;

std::string registry() {
    std::ifstream in(paths().ipcPath);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

class QueueTest : public ::testing::Test {
protected:
    void SetUp() override {
        startupSettings() = Settings{};
        startupSettings().ioBufferCount = 10;
        startupSettings().sleepScale = 9;
        publishSettings();
        prepareJob(ctx_);
    }
    tavik::testing::ScratchHome home_;
    JobContext ctx_;
    PacketQueue q_;
    const RegistryAccess registry_{.path = paths().ipcPath};
};

TEST_F(QueueTest, RegistryLinesAreWrittenClearedAndReused) {
    EXPECT_EQ(ClearIPC(registry_, 'm', 5), 0);  // no registry yet: nothing, silently
    EXPECT_FALSE(home_.logHas("not registered"));

    RegisterIPC(registry_, 'm', 123);
    RegisterIPC(registry_, 's', 77);
    EXPECT_EQ(registry(), "m       123    \ns        77    \n");
    ClearIPC(registry_, 'm', 123);
    EXPECT_EQ(registry(), "#m      123    \ns        77    \n");
    RegisterIPC(registry_, 's', 4567);  // the cleared line is reused in place
    EXPECT_EQ(registry(), "s      4567    \ns        77    \n");
    ClearIPC(registry_, 's', 999);
    EXPECT_EQ(registry(), "s      4567    \ns        77    \n");
    EXPECT_TRUE(home_.logHas("(ClearIPC) The specified IPC was not registered"));

    // A wider identifier does not fit a free line: appended instead.
    ClearIPC(registry_, 's', 77);
    RegisterIPC(registry_, 'm', 1234567890);
    EXPECT_EQ(registry(), "s      4567    \n#s       77    \nm  1234567890    \n");
    ClearIPC(registry_, 'm', 1234567890);
    EXPECT_EQ(registry(), "s      4567    \n#s       77    \n#m 1234567890    \n");
    RegisterIPC(registry_, 'm', 8);  // the first free line
    EXPECT_EQ(registry(), "s      4567    \nm         8    \n#m 1234567890    \n");
    RegisterIPC(registry_, 's', 9);  // a longer free line: padded, never running into the next
    EXPECT_EQ(registry(), "s      4567    \nm         8    \ns         9      \n");
}

// Held slots are invisible to the sender until the next publication, and
// are published before the producer waits for a full ring to drain (else
// producer and sender would wait for each other). The ring wraps; after the
// wait the producer's sleep becomes 1 x 9 / 10 freed slots, kept within
// 1..1000.
TEST_F(QueueTest, HeldSlotsLeaveWithTheNextPublicationOrBeforeAWait) {
    ASSERT_EQ(q_.open(ctx_), 0);
    ASSERT_EQ(q_.waitFreeSlot(), 0);
    q_.inSlot()[2] = 1;
    ASSERT_EQ(q_.countup(1, true), 0);
    EXPECT_EQ(q_.queuedCount(), 0);
    EXPECT_EQ(q_.freeSlots(), 9);
    ASSERT_EQ(q_.waitFreeSlot(), 0);
    q_.inSlot()[2] = 2;
    ASSERT_EQ(q_.countup(), 0);
    ASSERT_EQ(q_.queuedCount(), 2);
    EXPECT_EQ(q_.outSlot()[2], 1);
    EXPECT_EQ(q_.slotAfterOut(1)[2], 2);
    ASSERT_EQ(q_.countdown(2), 0);

    for (int i = 0; i < 9; ++i) {
        ASSERT_EQ(q_.waitFreeSlot(), 0);
        q_.inSlot()[2] = 7;  // the slot the producer comes back to once the ring wraps
        ASSERT_EQ(q_.countup(), 0);
    }
    ASSERT_EQ(q_.waitFreeSlot(), 0);
    ASSERT_EQ(q_.countup(1, true), 0);
    EXPECT_EQ(q_.queuedCount(), 9);
    EXPECT_EQ(q_.freeSlots(), 0);
    pid_t consumer = fork();
    if (consumer == 0) {
        q_.disown();
        // Up to 3 s: reached only if the held slot is never published.
        for (int i = 0; q_.queuedCount() != 10; ++i) {
            if (i == 3000) _exit(2);
            usleep(1000);
        }
        _exit(q_.countdown(10) == 0 ? 0 : 3);
    }
    ASSERT_EQ(q_.waitFreeSlot(), 0);  // woken by the release
    EXPECT_EQ(tavik::testing::exitStatusOf(consumer), 0);
    EXPECT_EQ(q_.queuedCount(), 0);
    EXPECT_EQ(q_.freeSlots(), 10);
    EXPECT_GE(q_.producerSleepMs(), 1);
    EXPECT_LE(q_.producerSleepMs(), 9);
    // The slot's header is cleared for the next packet.
    EXPECT_EQ(std::count(q_.inSlot(), q_.inSlot() + protocol::kHeaderSize, 0), long(protocol::kHeaderSize));
    q_.release();
}

TEST(QueueSize, StepsDownByTenUntilTheSystemGrantsOrFails) {
    std::vector<size_t> tried;
    size_t limit = segmentSize(2048, 35);  // a system that grants 35 slots' worth
    auto probe = [&](size_t bytes) {
        tried.push_back(bytes);
        return bytes <= limit ? 0 : EINVAL;
    };
    int err = 0;
    EXPECT_EQ(grantedSlotCount(2048, 100, probe, err), 30);
    EXPECT_EQ(tried.size(), 8u);  // 100, 90, ..., 40, 30
    EXPECT_EQ(tried.back(), segmentSize(2048, 30));
    // Fewer than ten slots, or another error, fail.
    EXPECT_EQ(grantedSlotCount(2048, 100, [](size_t) { return EINVAL; }, err), -1);
    EXPECT_EQ(grantedSlotCount(2048, 100, [](size_t) { return ENOSPC; }, err), -2);
    EXPECT_EQ(err, ENOSPC);
    // The real system keeps the default and sets the sleep scale.
    startupSettings() = Settings{};
    publishSettings();
    Settings& s = startupSettings();
    ASSERT_EQ(DecideShmBuf(s.ioBufferSize, s.ioBufferCount, s.sleepScale), 0);
    EXPECT_EQ(settings().ioBufferCount, 100);
    EXPECT_EQ(settings().sleepScale, 90);
}

}  // namespace
