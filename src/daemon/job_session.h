// The job process: the connection process becomes it once its caller is
// admitted. It checks the root path, switches to the login's identity
// (unless exempt), refuses protected or inaccessible roots with their
// codes, answers ready (code 4), reads the job's parameters and hands over
// to the job type's data phase. serveJob returns when the job is over:
// Outcome::done() when it ran to its end, Outcome::jobOver() when it was
// refused or broke; the caller then ends the process through cleanup(0).
#pragma once

#include "platform/outcome.h"
#include "request/job_context.h"

namespace tavik {

Outcome serveJob(JobContext& ctx);

// True when the job runs without switching to the login's identity.
bool identitySwitchExempt(const JobContext& ctx, bool browse);

}  // namespace tavik
