// The job process: runJob forks it for an admitted caller. It checks the
// root path, switches to the login's identity (unless exempt), refuses
// protected or inaccessible roots with their codes, answers ready (code 4),
// reads the job's parameters and hands over to the job type's data phase.
//
// runJob returns 0 in the daemon (after closing its copy of the
// connection), -1 when the fork failed, and 1 in the job process when the
// job is over, whatever its outcome; the caller then ends the process
// through cleanup(0).
#pragma once

#include "request/job_context.h"

namespace tavik {

int runJob(JobContext& ctx);

// The job process's work after the fork (exposed for tests that run it in
// a process of their own). Returns 1.
int serveJob(JobContext& ctx);

// True when the job runs without switching to the login's identity.
bool identitySwitchExempt(const JobContext& ctx, bool browse);

}  // namespace tavik
