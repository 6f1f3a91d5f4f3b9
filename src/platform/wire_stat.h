// Linux's 64-bit stat fields in the 32-bit fields of the wire records.
//
// The records were laid out for a system with 32-bit dev_t, ino_t, off_t and
// time_t. On Linux x86-64 all four are 64-bit; this is the one place that
// decides how they are carried:
//
// - Device numbers use the 32-bit layout with a 14-bit major and an 18-bit
//   minor number: (major << 18) | minor. Every device whose numbers fit (all
//   the usual disks, terminals and pseudo devices) round-trips exactly, so a
//   device node backed up and restored is the same device. A device whose
//   numbers do not fit is folded into the encoding; its node cannot be
//   restored faithfully (decodeDev32 gives the folded numbers).
// - Inode numbers that fit in 32 bits go as they are. A file with more than
//   one link whose number does not fit (or whose number would collide with
//   one already given out) gets a per-job number from InodeNumbering, so two
//   different files of one job never share a (device, inode) pair on the
//   wire: a restore would make them hard links of each other.
// - Times are unsigned 32-bit seconds: before 1970 reads as 0, after 2106 as
//   the largest value.
// - Sizes carry the low 32 bits; the data of a larger file is streamed whole.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <set>
#include <utility>

namespace tavik::platform {

uint32_t encodeDev32(dev_t dev);
dev_t decodeDev32(uint32_t wire);
// True when encodeDev32 is exact for this device.
bool dev32Exact(dev_t dev);

inline uint32_t wireTime(int64_t seconds) {
    if (seconds < 0) return 0;
    if (seconds > int64_t(UINT32_MAX)) return UINT32_MAX;
    return uint32_t(seconds);
}

inline uint32_t wireSize(int64_t size) { return uint32_t(uint64_t(size) & 0xFFFFFFFFu); }

// Per-job numbering of (device, inode) pairs for the wire.
class InodeNumbering {
public:
    // The 32-bit inode number to send for a file with this device, inode and
    // link count.
    uint32_t wireInode(dev_t dev, ino_t ino, nlink_t nlink);

private:
    // Pairs already sent for multiply-linked files, by wire (dev, ino).
    std::set<std::pair<uint32_t, uint32_t>> used_;
    // Real (dev, ino) of multiply-linked files to the number they were given.
    std::map<std::pair<dev_t, ino_t>, uint32_t> given_;
    uint32_t next_ = UINT32_MAX;
};

}  // namespace tavik::platform
