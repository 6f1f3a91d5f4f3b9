// The command line of `tavikctl backup` and `tavikctl estimate`: the target
// HOST:/path, the login options, selection filters (name patterns for files
// and directories, dates), top-level items and the job's option flags.
// Parsing only: nothing is sent.
#pragma once

#include "frontend/net.h"

#include <string>
#include <vector>

#include "frontend/backup_client.h"

namespace tavik::frontend {

struct BackupCommandLine {
    BackupJobSpec job;
    std::string output;  // backup: -o ARCHIVE
};

// "YYYY-MM-DD" as seconds since 1970 whose UTC fields name that day.
bool parseDay(const std::string& text, int32_t& out);
// "PATH", "PATH:N" (resume at byte N) or "PATH:-1" (resend the file).
bool parseRestart(const std::string& text, uint32_t& offset, std::string& path);

// `forBackup` admits the options that only a backup takes (-o, --ack,
// --restart, --watchdog, --renew, --buffer-from-agent). The password is
// not read here.
bool parseBackupCommandLine(std::vector<std::string> args, bool forBackup, BackupCommandLine& out,
                            std::string& error);

extern const char kBackupUsage[];
extern const char kEstimateUsage[];

}  // namespace tavik::frontend
