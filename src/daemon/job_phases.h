// The data phase of each job type, one file each (backup_phase.cc,
// restore_phase.cc, compare_phase.cc, browse_phase.cc). A phase runs in the
// job process after the command exchange (browse: after the identity switch)
// and returns when its job is over: Outcome::done() when it ran to its end,
// Outcome::jobOver() when the connection, the queue or the IPC broke. Either
// way serveJob then ends the process through cleanup.
#pragma once

#include "platform/outcome.h"
#include "request/channel.h"
#include "request/job_context.h"
#include "backup/backup_state.h"

namespace tavik {

// Bounds of the waits for the front-end after admission, each receive on
// its own (seconds, divided by the time divisor). The parameter phase's
// commands follow one another at once. The data phase allows what the
// sender allows a stalled front-end, the tape-change allowance: the
// front-end may be changing tapes; a front-end that vanished is noticed by
// the connection's keep-alive probes within minutes anyway. After END the
// front-end only has to close.
inline constexpr unsigned kCommandWait = 600;
inline constexpr unsigned kDataWait = 259200;
inline constexpr unsigned kClosingWait = 600;

Outcome backupPhase(Channel& channel, backup::BackupJob& job);
Outcome restorePhase(Channel& channel, JobContext& ctx);
Outcome comparePhase(Channel& channel, JobContext& ctx);
Outcome browsePhase(int connection, JobContext& ctx);

// Makes the restore's root under the login's identity before code 4:
// 0 made, 1 the identity switch failed, other values the root could not be
// made. Until the restore path builder exists the root must already exist;
// the common directory change then tests it.
int prepareRestoreRoot(JobContext& ctx);

}  // namespace tavik
