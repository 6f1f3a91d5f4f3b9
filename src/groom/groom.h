// The grooming library: recording what a job has safely backed up or found
// identical, and deleting it at the job's end.
//
// A backup or compare job whose commands carried a GROOMING record calls
// BeginGrooming before its work, RecordGrooming for every object it has
// secured, and EndGrooming at its end. Deleting grooming (fOptions 0x04)
// deletes every recorded file; rotation-set grooming (0x02) deletes only
// files neither read nor modified during the last nMonths months. Files are
// deleted latest recorded first (the candidates are ordered by the external
// "sort"); directories and files directly under "/" are never deleted, nor
// any protected path: the built-in system names, the package homes named by
// the package information files, and the paths listed in groom.cntl.
// Each deleted file gets a line in the grooming work file, which the job then
// sends to the server, copies or migrates to the agent log (MigrateLog), and
// removes.
//
// A file is deleted only while it is still what was recorded: recording
// keeps the device and inode of the file and of its directory; at the end the
// directory is reached again without links that another user could have
// planted (platform::openDirectory), and the file is deleted relative to it
// only when both identities are unchanged. Anything else is reported in the
// work file as not removed (the directory or file replaced: ESTALE; a link
// refused: EACCES); a file or directory that is gone is passed over.
//
// Texts come from message catalogue set 13; without an open catalogue they
// read "catgetsErr". Temporary files are made with mkstemp in
// groomingEnvironment().tempDir; RemoveGroomingTempFiles removes them on any
// exit path (cleanup calls it).
//
// Requires: one process, one grooming at a time. Fails: never ends the job;
// operations return 0, -1 or 2 as documented.
#pragma once

#include <sys/stat.h>

#include <memory>
#include <string>

#include "protocol/commands.h"
#include "platform/file_identity.h"

namespace tavik::groom {

inline constexpr int kGroomSet = 13;
// Catalogue message numbers of set 13.
enum GroomMessage : int {
    kMsgCannotOpen = 1,        // prefix, file name, error text
    kMsgNoMemory = 2,          // prefix, size, error text
    kMsgWorkFileOpen = 3,      // prefix, file name, error text
    kMsgTapeName = 4,          // tapeName
    kMsgSessionNumber = 5,     // sessionNumber
    kMsgControlFile = 6,       // none
    kMsgProtectedList = 7,     // none
    kMsgNoSortedName = 8,      // prefix, error text
    kMsgCannotRemove = 9,      // prefix, path, error text
    kMsgDeletedCount = 11,     // count
};

// The catalogue text of set 13 `number`, or "catgetsErr" when its
// conversions do not fit the arguments grooming passes for that number (a
// damaged catalogue must not crash the job).
const char* GroomText(int number);

// Grooming kinds.
inline constexpr int kKindRotation = 1;
inline constexpr int kKindDelete = 2;

// Where grooming makes its temporary files and finds the package
// information files. Production keeps the defaults; tests point both into a
// scratch tree.
struct GroomingEnvironment {
    std::string tempDir = "/tmp";
    // Prepended to "/var/sadm/pkg/...". On Linux these System V package
    // files are normally absent, and the lookup then finds nothing.
    std::string packageRoot;
};
GroomingEnvironment& groomingEnvironment();

// Protected list element; new elements go to the front.
struct GroomElement {
    std::string name;
    std::unique_ptr<GroomElement> next;
};
using GroomList = std::unique_ptr<GroomElement>;

// --- gr_lib -------------------------------------------------------------

// Starts grooming. groomSet is GROOMSET (used for rotation-set grooming's
// copy file name). Returns 0, or -1 when the control file could not be read,
// the protected list could not be built, or a temporary file could not be
// made.
int BeginGrooming(const char* logDir, const char* groomSet, const protocol::GroomingRecord& record, const protocol::TapeRecord& tape);
// Records a candidate; always 0. Paths that are not eligible are passed over.
// `status` is what the caller found at `path`; `directory` the identity of
// the directory that holds it (a walk has it at hand).
int RecordGrooming(const char* path, const struct stat& status, platform::FileIdentity directory);
// The same for a caller without the directory's identity: a file's directory
// is reached here as deletion will reach it, once for a run of files in the
// same directory.
int RecordGrooming(const char* path, const struct stat& status);
// Deletes the candidates. 0 done, 2 the sorted list could not be made or
// read, -1 grooming had not begun.
int EndGrooming();
// Appends one formatted text (at most 2048 bytes) to the grooming work file.
void grlog(const char* format, ...) __attribute__((format(printf, 1, 2)));
// One "Delete %s" agent log line per deleted file listed in the work file.
int MigrateLog(const char* workFile);

// Removes grooming's temporary files (work file, candidates file, and the
// sorted list if one is in progress) and closes what is open. Safe to call
// at any time and more than once; a missing file is no error. In a process
// forked after BeginGrooming it removes nothing: the files belong to the
// process that began grooming, and the child only forgets them.
void RemoveGroomingTempFiles();

// What the job reads once grooming has ended.
const char* GroomingWorkFile();
const char* GroomingCopyFile();
int GroomedCount();
int GroomingKind();
// The candidates file (empty text when none is open); for inspection.
const char* GroomingCandidatesFile();
// Forgets all grooming state, the control file time included, after
// removing the temporary files: a fresh start within the same process.
void ResetGrooming();

// Midnight at the start of the day nMonths months before `start` (local
// time), the day clamped to the end of a shorter month.
time_t GroomAgeLimit(time_t start, int nMonths);

// --- gr_cntl ------------------------------------------------------------

// Reads the protected paths of the control file into `list`; 0 or -1.
int dir_cntl(const char* controlFile, GroomList& list);
// One element holding `text` less its last character; null on failure.
GroomList new_element(const char* text);
// The value of `name` in a NAME=value package information file, or "" with
// false when there is none.
bool PackageValue(const char* file, const char* name, std::string& value);
// -1 when `path` is protected by an element of `list`, 0 otherwise.
int IsProtected(const char* path, const GroomElement* list);
// The control file that belongs to a log directory.
std::string ControlFileOf(const char* logDir);

}  // namespace tavik::groom
