#include "backup/queue_size.h"

#include <cerrno>

#include <gtest/gtest.h>

#include <vector>

#include "daemon/state.h"

namespace {

using tavik::backup::grantedSlotCount;
using tavik::backup::segmentSize;

TEST(QueueSize, StepsDownByTenUntilTheSystemGrantsOrFails) {
    std::vector<size_t> tried;
    size_t limit = segmentSize(2048, 35);  // a system that grants 35 slots' worth
    auto probe = [&](size_t bytes) {
        tried.push_back(bytes);
        return bytes <= limit ? 0 : EINVAL;
    };
    int err = 0;
    EXPECT_EQ(grantedSlotCount(2048, 100, probe, err), 30);
    ASSERT_EQ(tried.size(), 8u);  // 100, 90, ..., 40, 30
    EXPECT_EQ(tried.front(), 205608u);
    EXPECT_EQ(tried.back(), segmentSize(2048, 30));
    // Fewer than ten slots, or another error, fail.
    EXPECT_EQ(grantedSlotCount(2048, 100, [](size_t) { return EINVAL; }, err), -1);
    EXPECT_EQ(grantedSlotCount(2048, 100, [](size_t) { return ENOSPC; }, err), -2);
    EXPECT_EQ(err, ENOSPC);
}

TEST(QueueSize, ProbeOnTheRealSystemKeepsTheDefaultAndSetsSleepScale) {
    tavik::startupSettings() = tavik::Settings{};
    ASSERT_EQ(tavik::backup::DecideShmBuf(), 0);
    EXPECT_EQ(tavik::settings().ioBufferCount, 100);
    EXPECT_EQ(tavik::settings().sleepScale, 90);
}

}  // namespace
