// The backup's tree walk: each directory read twice through one stream,
// first its files (mode 2 only), then its subdirectories, depth first;
// selection by the top-level list, the filter (or the old servers'
// request lists) and the protected directories; the file-system boundary,
// NFS skip, the depth limit, loop detection through the ancestor stack, and
// the restart point.
//
// Requires: the backup state's filter, hooks and rootDev set, the source on
// the ancestor stack. Fails: only a queue failure ends the walk
// (Outcome::jobOver()); every per-directory or per-entry problem is logged,
// reported, and the walk goes on.
#pragma once

#include <sys/stat.h>

#include <string>

#include "platform/outcome.h"
#include "backup/backup_state.h"

namespace tavik::backup {

// `accessTimeKept`, when given, tells whether the directory was read without
// touching its access time (so that the caller need not reset it).
Outcome ws_backup(BackupJob& job, const std::string& dirPath, int mode, const struct stat& dirStat,
                  bool* accessTimeKept = nullptr);
void checkRestartPoint(BackupJob& job, const std::string& path);

}  // namespace tavik::backup
