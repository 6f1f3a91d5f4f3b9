// The job process: the connection process becomes it once its caller is
// admitted. It checks the root path, switches to the login's identity
// (unless exempt), refuses protected or inaccessible roots with their
// codes, answers ready (code 4), reads the job's parameters and hands over
// to the job type's data phase. serveJob returns 1 when the job is over,
// whatever its outcome; the caller then ends the process through
// cleanup(0).
#pragma once

#include "request/job_context.h"

namespace tavik {

int serveJob(JobContext& ctx);

// True when the job runs without switching to the login's identity.
bool identitySwitchExempt(const JobContext& ctx, bool browse);

}  // namespace tavik
