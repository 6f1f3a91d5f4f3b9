#include "platform/wire_stat.h"

#include <sys/sysmacros.h>

namespace tavik::platform {
namespace {

constexpr unsigned kMinorBits = 18;
constexpr uint32_t kMinorMask = (1u << kMinorBits) - 1;
constexpr uint32_t kMajorLimit = 1u << (32 - kMinorBits);

}  // namespace

bool dev32Exact(dev_t dev) { return major(dev) < kMajorLimit && minor(dev) <= kMinorMask; }

uint32_t encodeDev32(dev_t dev) {
    uint32_t maj = uint32_t(major(dev));
    uint32_t min = uint32_t(minor(dev));
    if (maj >= kMajorLimit || min > kMinorMask) {
        // Fold what does not fit; identity is kept as far as 32 bits allow.
        maj = (maj ^ (min >> kMinorBits)) % kMajorLimit;
        min &= kMinorMask;
    }
    return (maj << kMinorBits) | min;
}

dev_t decodeDev32(uint32_t wire) { return makedev(wire >> kMinorBits, wire & kMinorMask); }

uint32_t InodeNumbering::wireInode(dev_t dev, ino_t ino, nlink_t nlink) {
    bool fits = uint64_t(ino) <= UINT32_MAX;
    uint32_t dev32 = encodeDev32(dev);
    if (nlink <= 1 && fits && !used_.count({dev32, uint32_t(ino)})) return uint32_t(ino);
    auto key = std::make_pair(dev, ino);
    if (auto it = given_.find(key); it != given_.end()) return it->second;
    uint32_t number = uint32_t(ino);
    if (!fits || used_.count({dev32, number})) {
        while (used_.count({dev32, next_})) --next_;
        number = next_--;
    }
    if (nlink > 1) {
        used_.insert({dev32, number});
        given_[key] = number;
    }
    return number;
}

}  // namespace tavik::platform
