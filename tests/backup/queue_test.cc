// The packet queue on the real kernel: the registry file's lines, the
// whole-file lock with retries, the IPC objects GetIPC makes and ReleaseIPC
// removes, the ring's indexes and the producer's adaptive sleep, and a
// producer and consumer in two processes.
#include "backup/ipc_registry.h"
#include "backup/queue.h"

#include <fcntl.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <fstream>

#include "daemon/scratch_home.h"
#include "daemon/state.h"
#include "request/job_context.h"
#include "transport/packet.h"

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
        prepareForConnection(job());
    }
    tavik::testing::ScratchHome home_;
};

TEST_F(QueueTest, RegistryLinesAreWrittenClearedAndReused) {
    EXPECT_EQ(ClearIPC('m', 5), 0);  // no registry yet: nothing, silently
    EXPECT_FALSE(home_.logHas("not registered"));

    RegisterIPC('m', 123);
    RegisterIPC('s', 77);
    EXPECT_EQ(registry(), "m       123    \ns        77    \n");
    ClearIPC('m', 123);
    EXPECT_EQ(registry(), "#m      123    \ns        77    \n");
    RegisterIPC('s', 4567);  // the cleared line is reused in place
    EXPECT_EQ(registry(), "s      4567    \ns        77    \n");
    ClearIPC('s', 999);
    EXPECT_EQ(registry(), "s      4567    \ns        77    \n");
    EXPECT_TRUE(home_.logHas("(ClearIPC) The specified IPC was not registered"));

    // A wider identifier does not fit a free line: appended instead.
    ClearIPC('s', 77);
    RegisterIPC('m', 1234567890);
    EXPECT_EQ(registry(), "s      4567    \n#s       77    \nm  1234567890    \n");
    ClearIPC('m', 1234567890);
    EXPECT_EQ(registry(), "s      4567    \n#s       77    \n#m 1234567890    \n");
    RegisterIPC('m', 8);  // the first free line
    EXPECT_EQ(registry(), "s      4567    \nm         8    \n#m 1234567890    \n");
    RegisterIPC('s', 9);  // a longer free line: padded, never running into the next
    EXPECT_EQ(registry(), "s      4567    \nm         8    \ns         9      \n");
}

TEST_F(QueueTest, LockFileRetriesThenGivesUp) {
    std::string path = home_.dir() + "/lockme";
    std::ofstream(path) << "x";
    int fd = open(path.c_str(), O_RDWR);
    EXPECT_EQ(platform::lockFile(fd, platform::kWriteLock, 0, 0, 1), -2);  // no attempt at all
    EXPECT_EQ(platform::lockFile(fd, platform::kWriteLock, 1, 0, 1), 0);
    close(fd);  // releases this process's lock

    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    pid_t holder = fork();
    if (holder == 0) {
        int own = open(path.c_str(), O_RDWR);
        struct flock l {};
        l.l_type = F_WRLCK;
        fcntl(own, F_SETLK, &l);
        write(ready[1], "x", 1);
        pause();
        _exit(0);
    }
    char c;
    ASSERT_EQ(read(ready[0], &c, 1), 1);
    int other = open(path.c_str(), O_RDWR);
    EXPECT_EQ(platform::lockFile(other, platform::kReadLock, 3, 0, 1), -2);
    kill(holder, SIGKILL);
    waitpid(holder, nullptr, 0);
    EXPECT_EQ(platform::lockFile(other, platform::kReadLock, 3, 0, 1), 0);
    EXPECT_EQ(platform::lockFile(-1, platform::kReadLock, 3, 0, 1), -1);
    close(other);
}

TEST_F(QueueTest, GetIpcMakesTheObjectsAndReleaseRemovesThem) {
    startupSettings().verbose = true;
    ASSERT_EQ(GetIPC(), 0);
    EXPECT_TRUE(home_.logHas("(GetIPC) sizeof(SHM_BUFF)=2064,shm_size=20568, shmbuff->pkque=8"));
    std::string lines = registry();
    ASSERT_EQ(lines.size(), 32u);
    int shm = std::atoi(lines.c_str() + 2), sem = std::atoi(lines.c_str() + 18);
    shmid_ds ds{};
    ASSERT_EQ(shmctl(shm, IPC_STAT, &ds), 0);
    EXPECT_EQ(ds.shm_segsz, 20568u);
    EXPECT_EQ(semctl(sem, 0, GETVAL), 1);
    EXPECT_EQ(queuedCount(), 0);

    EXPECT_EQ(ReleaseIPC(), 0);
    EXPECT_NE(shmctl(shm, IPC_STAT, &ds), 0);
    EXPECT_LT(semctl(sem, 0, GETVAL), 0);
    EXPECT_EQ(registry()[0], '#');
    EXPECT_EQ(registry()[16], '#');
    EXPECT_EQ(ReleaseIPC(), 0);  // twice is harmless
}

TEST_F(QueueTest, RingWrapsAndTheProducerAdaptsItsSleep) {
    ASSERT_EQ(GetIPC(), 0);
    // Publish and release past the end of the ring: indexes wrap.
    for (int i = 0; i < 25; ++i) {
        ASSERT_EQ(waitFreeSlot(), 0);
        inSlot()[2] = uint8_t(i);
        ASSERT_EQ(countup(), 0);
        EXPECT_EQ(outSlot()[2], uint8_t(i));
        ASSERT_EQ(countdown(), 0);
    }
    // Full ring: a consumer frees 5 slots; the producer's sleep becomes
    // 1 x 9 / 5 = 1, then stays within 1..1000.
    for (int i = 0; i < 10; ++i) {
        ASSERT_EQ(waitFreeSlot(), 0);
        ASSERT_EQ(countup(), 0);
    }
    EXPECT_EQ(queuedCount(), 10);
    pid_t consumer = fork();
    if (consumer == 0) {
        disownIPC();
        usleep(50000);
        for (int i = 0; i < 5; ++i) countdown();
        _exit(0);
    }
    ASSERT_EQ(waitFreeSlot(), 0);  // woken by the release
    waitpid(consumer, nullptr, 0);
    EXPECT_GE(producerSleepMs(), 1);
    EXPECT_LE(producerSleepMs(), 9);
    EXPECT_EQ(queuedCount(), 5);
    // The slot's header is cleared for the next packet.
    for (size_t i = 0; i < protocol::kHeaderSize; ++i) EXPECT_EQ(inSlot()[i], 0);
    ReleaseIPC();
}

// Held slots are invisible to the sender until the next publication, and
// are published before the producer waits for a full ring to drain (else
// producer and sender would wait for each other).
TEST_F(QueueTest, HeldSlotsLeaveWithTheNextPublicationOrBeforeAWait) {
    ASSERT_EQ(GetIPC(), 0);
    ASSERT_EQ(waitFreeSlot(), 0);
    inSlot()[2] = 1;
    ASSERT_EQ(countup(1, true), 0);
    EXPECT_EQ(queuedCount(), 0);
    EXPECT_EQ(freeSlots(), 9);
    ASSERT_EQ(waitFreeSlot(), 0);
    inSlot()[2] = 2;
    ASSERT_EQ(countup(), 0);
    ASSERT_EQ(queuedCount(), 2);
    EXPECT_EQ(outSlot()[2], 1);
    EXPECT_EQ(slotAfterOut(1)[2], 2);
    ASSERT_EQ(countdown(2), 0);

    for (int i = 0; i < 9; ++i) {
        ASSERT_EQ(waitFreeSlot(), 0);
        ASSERT_EQ(countup(), 0);
    }
    ASSERT_EQ(waitFreeSlot(), 0);
    ASSERT_EQ(countup(1, true), 0);
    EXPECT_EQ(queuedCount(), 9);
    EXPECT_EQ(freeSlots(), 0);
    pid_t consumer = fork();
    if (consumer == 0) {
        disownIPC();
        // Up to 3 s: reached only if the held slot is never published.
        for (int i = 0; queuedCount() != 10; ++i) {
            if (i == 3000) _exit(2);
            usleep(1000);
        }
        _exit(countdown(10) == 0 ? 0 : 3);
    }
    ASSERT_EQ(waitFreeSlot(), 0);
    EXPECT_EQ(tavik::testing::exitStatusOf(consumer), 0);
    EXPECT_EQ(queuedCount(), 0);
    EXPECT_EQ(freeSlots(), 10);
    ReleaseIPC();
}

TEST_F(QueueTest, ProducerAndConsumerInTwoProcessesKeepOrder) {
    ASSERT_EQ(GetIPC(), 0);
    constexpr int kPackets = 2000;
    pid_t consumer = fork();
    if (consumer == 0) {
        disownIPC();
        int wait = 0;
        for (int i = 0; i < kPackets; ++i) {
            while (queuedCount() == 0) {
                wait = waitForPacket(wait, transport::kZeroSendRetryLimit);
                if (wait < 0) _exit(2);
            }
            uint16_t v = uint16_t(outSlot()[8] | (outSlot()[9] << 8));
            if (v != uint16_t(i)) _exit(3);
            if (countdown() != 0) _exit(4);
            wait = 0;
        }
        _exit(0);
    }
    for (int i = 0; i < kPackets; ++i) {
        ASSERT_EQ(waitFreeSlot(), 0);
        inSlot()[8] = uint8_t(i);
        inSlot()[9] = uint8_t(i >> 8);
        ASSERT_EQ(countup(), 0);
    }
    EXPECT_EQ(tavik::testing::exitStatusOf(consumer), 0);
    EXPECT_EQ(queuedCount(), 0);
    ReleaseIPC();
}

}  // namespace
