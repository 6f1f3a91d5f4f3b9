// Changing a file's mode, owner and times through a descriptor of it.
//
// A name can be swapped for another file between two system calls; a
// descriptor cannot. These work on descriptors opened for reading or
// writing and on O_PATH descriptors alike (for an O_PATH descriptor Linux
// refuses fchmod and futimens: the change then goes through the
// descriptor's /proc/self/fd name, which names that very file). The owner of
// an O_PATH descriptor of a symbolic link is the link's own.
//
// Each returns 0, or -1 with errno set.
#pragma once

#include <sys/types.h>

#include <ctime>

namespace tavik::platform {

int changeMode(int fd, mode_t mode);
int changeOwner(int fd, uid_t uid, gid_t gid);
// times[0] access, times[1] modification.
int changeTimes(int fd, const timespec times[2]);

}  // namespace tavik::platform
