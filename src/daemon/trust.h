// Who may have root-level jobs: the trusted logins.
//
// A job of a trusted login may run without the identity switch when the
// front-end asks for it (bit 7 of request byte 674), and its restore runs as
// the agent's user (root), so that it can give files their owners, set-id
// bits and device nodes. Every other login's jobs run wholly under its own
// identity: the kernel decides what it may read, create, own or delete.
//
// Trusted are root (user id 0), the logins named in trust.cntl in the home
// directory, and, in single-user mode, every caller. trust.cntl holds one
// login per line; blanks around it are ignored, as are empty lines and lines
// that begin with "#". The file counts only when it is a regular file owned
// by root that no one else may write; otherwise it is ignored with a log
// line "(trust_cntl) ...". It is read afresh for every job.
#pragma once

#include <string>

#include "request/job_context.h"

namespace tavik {

// Whether `login` is named in the trust file at `path` (false when the file
// is missing, or ignored as above).
bool listedAsTrusted(const std::string& path, const std::string& login);

// Decides the job's trust and whether it keeps the agent's identity, once,
// before the job touches the file system: sets ctx.trusted and
// ctx.keepIdentity. A request to run unswitched from a login that is not
// trusted is ignored with a log line.
void decideTrust(JobContext& ctx);

}  // namespace tavik
