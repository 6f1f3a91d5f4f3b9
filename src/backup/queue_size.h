// Sizing of the backup packet queue: the shared-memory ring of packet slots
// that the backup process fills and the sender drains.
//
// A slot holds an 8-byte packet header and at least 2048 payload bytes (more
// when the I/O buffer is larger), so status and attribute packets always fit.
// The segment adds an 8-byte ring header. DecideShmBuf runs once at daemon
// start-up and lowers ioBufferCount, ten slots at a time, until the system
// grants a segment of that size.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>

namespace tavik::backup {

inline constexpr size_t kRingHeaderSize = 8;
inline constexpr size_t kMinSlotPayload = 2048;

constexpr size_t slotSize(int ioBufferSize) {
    return (size_t(ioBufferSize) > kMinSlotPayload ? size_t(ioBufferSize) : kMinSlotPayload) + 8;
}
constexpr size_t segmentSize(int ioBufferSize, unsigned slots) {
    return slotSize(ioBufferSize) * slots + kRingHeaderSize;
}
static_assert(segmentSize(2048, 100) == 205608);
static_assert(slotSize(1024) == 2056 && slotSize(8192) == 8200);

// Tries a segment of `bytes`: 0 when granted, else the errno of the refusal.
using SegmentProbe = std::function<int(size_t bytes)>;

// The slot count the system grants, starting from `wanted` and stepping down
// by ten while the probe answers EINVAL. Returns the count, or -1 when it
// falls below ten; other refusals are returned as -2 with `errorOut` set.
int grantedSlotCount(int ioBufferSize, unsigned wanted, const SegmentProbe& probe, int& errorOut);

// Probes System V shared memory for a queue of `ioBufferCount` buffers of
// `ioBufferSize` bytes and lowers the count to what the system grants;
// `sleepScale` becomes nine tenths of it. Returns 0, or -1 after logging why.
int DecideShmBuf(int ioBufferSize, uint16_t& ioBufferCount, int& sleepScale);

}  // namespace tavik::backup
