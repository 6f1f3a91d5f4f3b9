// A scratch place for tests that write much: a memory file system when the
// machine has one, else /tmp. Every restore ends with a syncfs of the file
// systems it wrote; gigabytes written to the disk by one test would make
// every other test's restore wait for their write-back. (Trees that a
// grooming job works on stay on the disk: grooming never touches /dev.)
#pragma once

#include <sys/statfs.h>
#include <unistd.h>

#include <linux/magic.h>

namespace tavik::testing {

inline bool isWritableMemoryFs(const char* dir) {
    struct statfs fs {};
    return ::statfs(dir, &fs) == 0 && fs.f_type == TMPFS_MAGIC && ::access(dir, W_OK) == 0;
}

// "/dev/shm" when it is a writable tmpfs, else "/tmp".
inline const char* scratchBase() { return isWritableMemoryFs("/dev/shm") ? "/dev/shm" : "/tmp"; }

}  // namespace tavik::testing
