// Opening a file whose contents the backup reads.
//
// The agent reset each file's access time with utime after reading it, which
// costs a system call per file and also moves the file's status-change time
// (so that every backed-up file looks changed to a later ctime test). Linux
// can instead read without touching the access time: O_NOATIME, granted to
// the file's owner and to the superuser. When it is granted the reset is
// unnecessary; when it is refused (a job running under a login that does not
// own the file) the file is opened plainly and the caller resets the times as
// before.
//
// The open never waits: O_NONBLOCK keeps an entry that became a FIFO after it
// was examined, or a file held under a lease, from blocking the job. Reads
// from a regular file ignore the flag; a read that reports EAGAIN anyway is
// repeated by readBlocking after the flag is cleared.
#pragma once

#include <sys/types.h>
#include <sys/uio.h>

namespace tavik::platform {

struct ReadOpen {
    int fd = -1;                  // -1 with errno set on failure
    bool accessTimeKept = false;  // opened with O_NOATIME
};

// `name` is opened relative to the directory `dirFd` (or AT_FDCWD), with
// `extraFlags` (O_NOFOLLOW, say) besides the above.
ReadOpen openToRead(int dirFd, const char* name, bool keepAccessTime, int extraFlags = 0);

// readv that retries EINTR (after running the deferred signal actions), and
// EAGAIN once the descriptor is made blocking.
ssize_t readvBlocking(int fd, const iovec* iov, int count);
// The same for one buffer.
ssize_t readBlocking(int fd, void* buffer, size_t length);

}  // namespace tavik::platform
