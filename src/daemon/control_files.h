// The protected-directory list read from tvk.cntl: no backup may start in or
// below one of its directories.
//
// tvk.cntl holds one entry per line; only lines that begin with "/" count,
// taken without their newline and otherwise untrimmed. The list is re-read
// only when the file is newer than at the last successful read in this
// process. A missing file protects nothing. Failures: dir_cntl returns -1
// (file present but unreadable, or memory exhausted; the part of the list
// built so far stays), after logging with its prefix.
#pragma once

#include <optional>
#include <string>

#include "request/job_context.h"

namespace tavik {

inline constexpr int kProtected = 104;

int dir_cntl(const char* path, DirList& list);
// The line without its trailing newline; none when memory ran out.
std::optional<std::string> new_element(const std::string& line);
// 104 when `root` is a listed directory or lies below one, else 0. A trailing
// "/" of the root is ignored; "/" itself is never protected, and entries that
// end in "/" protect nothing.
int isProtected(const std::string& root, const DirList& list);
void freeDirList(DirList& list);

}  // namespace tavik
