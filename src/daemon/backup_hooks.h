// What the daemon gives the backup library: the protected-directory test of
// tvk.cntl against the job's list, and the sender's-death action of
// cleanup. Installed by the job process for its job, before the command
// phase (whose estimate walks too).
#pragma once

#include "backup/backup_state.h"

namespace tavik {

void installBackupHooks(backup::BackupJob& job);

}  // namespace tavik
