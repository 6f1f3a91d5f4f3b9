// The estimate: how many entries a backup of a source would send and how
// many kilobytes of data, counted with the backup's selection rules but
// without opening a file or queueing a packet; and the ESTIMATE command's
// handler, which answers with 8 raw bytes (u32 files, u32 kilobytes,
// little-endian).
//
// Byte counts pass 4294967295 by the overflow rule: each overflow unit
// stands for 4294967295 bytes and is reported as 4194303 kilobytes.
// Fails: estimate returns -1 when the source cannot be examined (the reply
// then carries 0 and 0); the handler returns 100 when the reply cannot be
// sent.
#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "backup/backup_state.h"

namespace tavik {
class Channel;
}

namespace tavik::backup {

inline constexpr uint32_t kKilobytesPerOverflow = 4194303;

struct EstimateCount {
    uint32_t files = 0;
    uint32_t bytes = 0;
    uint32_t overflows = 0;

    void addBytes(uint64_t n);
    uint32_t kilobytes() const { return overflows * kKilobytesPerOverflow + bytes / 1024; }
};

int estimate(BackupJob& job, const std::string& sourcePath, uint32_t& filesOut, uint32_t& kilobytesOut);

// The ESTIMATE command, after code 4 was sent.
int estimateCommand(Channel& channel, BackupJob& job, std::span<const uint8_t> payload);

}  // namespace tavik::backup
