// The job process: the connection process becomes it once its caller is
// admitted. It checks the root path, switches to the login's identity
// (unless exempt), refuses protected or inaccessible roots with their
// codes, answers ready (code 4), reads the job's parameters and hands over
// to the job type's data phase. serveJob returns when the job is over:
// Outcome::done() when it ran to its end, Outcome::jobOver() when it was
// refused or broke; the caller then ends the process through cleanup(0).
#pragma once

#include "backup/backup_state.h"
#include "platform/outcome.h"
#include "request/job_context.h"

namespace tavik {

// What a connection process holds for its one job: the context that every
// phase is passed, and the backup's state and packet queue. The connection
// process makes it and names it in the listener's record, for cleanup.
struct JobProcess {
    JobProcess() : backup(ctx) {}
    JobProcess(const JobProcess&) = delete;
    JobProcess& operator=(const JobProcess&) = delete;

    JobContext ctx;
    backup::BackupJob backup;
};

Outcome serveJob(JobProcess& job);

// True when the job runs without switching to the login's identity.
bool identitySwitchExempt(const JobContext& ctx, bool browse);

}  // namespace tavik
