// Opening a file in a directory that other users may write to.
//
// The agent's LOG/ directory is writable by every job process (each runs as
// its job's login), while the daemon itself runs as root. A neighbour there
// can plant, under a name the agent is about to open, a symbolic link to a
// file of root's, a hard link to one, or a FIFO that would hold the opener.
// openPlainFile opens only a regular file with exactly one link:
//  - the name is never followed (O_NOFOLLOW); the open never waits
//    (O_NONBLOCK, kept on the descriptor: reads and writes of a regular file
//    ignore it), never takes a controlling terminal and is closed on exec;
//  - an existing file is opened without O_CREAT (so that the kernel's
//    protected_regular rule for sticky directories does not refuse a file
//    that another login made); a missing one is made with O_CREAT | O_EXCL,
//    which never follows a link, and `*created` says so;
//  - with O_EXCL in `flags` only a new file is made;
//  - O_TRUNC is applied with ftruncate after the checks, so that a file
//    that fails them is never emptied.
//
// Returns an invalid descriptor with errno set on failure: ELOOP for a
// symbolic link, EISDIR for a directory, EINVAL for anything else that is
// not a regular file, EMLINK for a file with more (or fewer) than one link,
// or the error of open, fstat or ftruncate.
#pragma once

#include <sys/types.h>

#include "platform/fd.h"

namespace tavik::platform {

UniqueFd openPlainFile(const char* path, int flags, mode_t mode = 0, bool* created = nullptr);

}  // namespace tavik::platform
