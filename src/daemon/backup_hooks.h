// What the daemon gives the backup library: the protected-directory test of
// tvk.cntl, the sender's-death action of cleanup, and the estimate and
// database-list handlers of the command phase. Installed once at start-up,
// inherited by every job process.
#pragma once

namespace tavik {

void installBackupHooks();

}  // namespace tavik
