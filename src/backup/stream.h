// The backup stream: the packets the backup process builds in the packet
// queue for every entry (attribute record, data, status and text packets),
// the per-entry checks (open, lock, link, special file) with their error
// packets, the database file list of raw devices, and the access times.
//
// Order of one directory: the files (file header, then MOF packets of
// exactly ioBufferSize bytes and one ENDF; or an error packet instead),
// then each subdirectory (file header, its stream, ENDDIR), then ENDDIR.
// While a restart is pending (restartPath set or restartOffset not 0) no
// file header and no status packet is queued.
//
// Requires: the job's queue open; runs only in the backup process. Fails: a queue
// failure is Outcome::jobOver() and ends the job; a problem of one entry is
// logged, reported to the front-end (Outcome::entryFailed()) and the stream
// goes on.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <string>
#include <string_view>

#include "platform/fd.h"
#include "platform/outcome.h"
#include "backup/backup_state.h"

namespace tavik::backup {

// The attribute record's kind argument for special files: written as 0, the
// size taken from the database file list.
inline constexpr uint8_t kKindSpecial = 1;

bool restartPending(const JobContext& ctx);

Outcome queueStatus(BackupJob& job, int8_t code, const char* text = nullptr);
// A problem of one entry, already logged, told to the front-end by the
// status packet `code`: the entry failed, or the job is over when the queue
// broke.
Outcome reportEntry(BackupJob& job, int8_t code, const char* text = nullptr);
Outcome queuePacket(BackupJob& job, int8_t code, const uint8_t* payload, uint16_t length, uint8_t version);
// With `dataFollows` the header is held back to be published with the data
// that send_file queues next.
Outcome sendAttributes(BackupJob& job, struct stat& st, std::string_view name, uint8_t kind,
                       const std::string& path, bool dataFollows = false);
// `file` is the open regular file (closed once sent); `linkTarget` a link's
// target. A special file needs neither.
Outcome send_file(BackupJob& job, platform::UniqueFd file, const struct stat& st, std::string_view linkTarget,
                  const std::string& path);
// `name` is the entry's name in the open directory `dirFd`, `path` its full
// path (for the messages, the filters and the database file list).
Outcome backup_file(BackupJob& job, int dirFd, const std::string& path, std::string_view name, struct stat& st,
                    int spare);

int setFileTimes(const std::string& path, const struct stat& st);
int setFileTimesAt(int dirFd, const char* name, const struct stat& st);
bool lookupRawSize(const JobContext& ctx, const char* path, uint32_t& sizeOut);
void dumpRawList(const JobContext& ctx);

// The watchdog: SIGALRM is deferred to an action that queues WATCH_DOG and
// re-arms the alarm, or, while a packet is being built, does so right after
// it; the alarm is cancelled while a file header or file data are built and
// re-armed to 30 s after.
void installWatchdog(BackupJob& job);
void watchdogOff(BackupJob& job);
void watchdogOn(BackupJob& job);
// Runs deferred signals between entries of the walk (a due WATCH_DOG, the
// sender's death, SIGTERM).
void atPacketBoundary(BackupJob& job);

}  // namespace tavik::backup
