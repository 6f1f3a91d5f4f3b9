// The backup job's two processes: startbackup forks the sender (SendDaemon
// over the packet queue) and then, in the job process, sends the source's
// attribute record, starts grooming, walks the tree and ends grooming,
// sending the grooming report. Also the backup process's signal wiring:
// SIGUSR1 toggles the tape-change sleep, SIGALRM asks for a WATCH_DOG
// packet, SIGCHLD (the sender died) ends the job through the daemon's hook.
//
// Requires: the filter built, the job's queue open, its hooks set.
// Fails: Outcome::jobOver() for a failed fork or source record, or the
// queue's failure during the walk; otherwise the walk reached its end (a
// source that cannot be examined is reported as a failed entry).
#pragma once

#include <string>

#include "platform/outcome.h"
#include "backup/backup_state.h"

namespace tavik::backup {

Outcome startbackup(BackupJob& job, int jobSocket, const std::string& sourcePath);

// Before END: no WATCH_DOG may follow the last packet.
void stopWatchdog(BackupJob& job);

// Waits until the sender has taken every queued packet (the job's end).
void waitQueueEmpty(BackupJob& job);

}  // namespace tavik::backup
