// Reaching a directory by name without being led astray by a link that
// another user planted.
//
// A process that acts on names it was sent (a restore writing as root, a
// grooming deleting) must not follow a symbolic link that a user other than
// root or itself could have made: such a link could turn a name below a
// user's directory into a name in /etc. These routines walk a path one
// component at a time with openat(O_PATH | O_NOFOLLOW) relative to the
// directory before it. A symbolic link on the way is followed only when it
// belongs to root or to the process's effective user (so /bin -> usr/bin
// still works), through a descriptor of the link itself, at most kMaxLinks
// times in one walk. Any other link fails with EACCES, the answer Linux
// gives for a link it refuses to follow in a sticky directory.
//
// A walk first tries the kernel's own resolution with every symbolic link
// refused (openat2 with RESOLVE_NO_SYMLINKS, one system call); only a path
// that holds a link is walked component by component.
//
// Requires: nothing; relative paths start at the working directory.
// Fails: an invalid descriptor with errno set, nothing left open.
#pragma once

#include <sys/stat.h>

#include <string_view>

#include "platform/fd.h"

namespace tavik::platform {

inline constexpr int kMaxLinks = 40;

// Whether a symbolic link with status `st` may be followed: it belongs to
// root or to the effective user.
bool linkMayBeFollowed(const struct stat& st);

// An O_PATH descriptor of the directory `path` names ("" is the working
// directory), every link on the way, the last component's included, judged
// by linkMayBeFollowed.
UniqueFd openDirectory(std::string_view path);
// The same, for `path` relative to the directory `dirFd` (an absolute `path`
// starts at "/").
UniqueFd openDirectoryAt(int dirFd, std::string_view path);

// A path cut before its last component: "/a/b/c" gives "/a/b" and "c",
// "/c" gives "/" and "c", "c" gives "" (the working directory) and "c",
// "a/b/" gives "a/b" and "".
struct PathParts {
    std::string_view directory;
    std::string_view name;
};
PathParts splitLast(std::string_view path);

}  // namespace tavik::platform
