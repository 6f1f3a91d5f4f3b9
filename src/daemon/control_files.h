// The protected-directory list read from tvk.cntl: no backup may start in or
// below one of its directories.
//
// tvk.cntl holds one entry per line; only lines that begin with "/" count,
// taken without their newline and otherwise untrimmed. The list is re-read
// only when the file is newer than at the last successful read in this
// process. A missing file protects nothing.
//
// A directory is protected by what it is, not by how its name is spelled:
// each entry is resolved with stat (a link leads to its directory) to a
// device and inode pair, and a directory is protected when it, or one of
// its ancestors up to but not including "/", has the identity of an entry.
// An entry that ends in "/" (so "/" itself) protects nothing, nor does one
// that names nothing or no directory.
//
// Requires: dir_cntl runs with the rights the entries are to be resolved
// with (the job process calls it before it takes the login's identity).
// Failures: dir_cntl returns -1 (file present but unreadable, or memory
// exhausted; the part of the list built so far stays), after logging with
// its prefix.
#pragma once

#include <optional>
#include <string>

#include "request/job_context.h"

namespace tavik {

inline constexpr int kProtected = 104;

// Reads the names when the file is newer, then takes every name's identity
// afresh (a directory can be replaced while the file stays as it was).
int dir_cntl(const char* path, DirList& list);
// The line without its trailing newline; none when memory ran out.
std::optional<std::string> new_element(const std::string& line);
// 104 when the directory `root` is a listed directory or lies below one, else
// 0. The root is opened with the caller's rights and its ancestors are
// reached through "..", so links and ".." in the root's name lead where they
// lead; "/" is never protected. A root that cannot be opened, or whose
// ancestors cannot all be reached, counts as protected when the list has
// identities: it cannot be shown to lie outside them.
int isProtected(const std::string& root, const DirList& list);
// Whether a directory with identity `id` is itself listed. No system call:
// for a walk that meets directories below a root already found unprotected.
bool listsDirectory(const DirList& list, platform::FileIdentity id);
void freeDirList(DirList& list);

}  // namespace tavik
