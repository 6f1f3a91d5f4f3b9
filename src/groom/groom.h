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
// read "catgetsErr". Temporary files are made with mkstemp in the job's
// GroomingEnvironment::tempDir; RemoveGroomingTempFiles removes them on any
// exit path (cleanup calls it).
//
// Requires: one Grooming per job, made with the job's context and passed to
// every call. Fails: never ends the job;
// operations return 0, -1 or 2 as documented.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <ctime>
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

// Protected list element; new elements go to the front.
struct GroomElement {
    std::string name;
    std::unique_ptr<GroomElement> next;
};
using GroomList = std::unique_ptr<GroomElement>;

namespace detail {

// One candidate's identities: the file's device and inode, its directory's,
// each 64 bits little-endian, and its kind.
inline constexpr size_t kFileDevAt = 0;
inline constexpr size_t kFileInoAt = 8;
inline constexpr size_t kDirDevAt = 16;
inline constexpr size_t kDirInoAt = 24;
inline constexpr size_t kKindAt = 32;
inline constexpr size_t kIdentityRecordSize = 33;
inline constexpr uint8_t kKindFile = 1;
inline constexpr uint8_t kKindDirectory = 2;  // never deleted
inline constexpr size_t kIdentityBatch = 64;

struct GroomState {
    int kind = 0;
    std::string workFile;           // chosen by BeginGrooming
    int workFd = -1;                // -1 not yet opened, -2 could not be opened
    std::string copyFile;
    std::string candidatesFile;
    FILE* candidates = nullptr;
    // The identities of the candidates, a fixed-width record per sequence
    // number in a file removed as soon as it was made (the descriptor is
    // all that is left of it); records wait in `pending` until it is full.
    int identitiesFd = -1;
    std::array<uint8_t, kIdentityBatch * kIdentityRecordSize> pending{};
    size_t pendingCount = 0;
    // The directory the last file recorded without its directory's identity
    // lay in, and that identity ({0, 0}: it could not be reached).
    std::string lastDirectory;
    bool lastDirectoryKnown = false;
    platform::FileIdentity lastDirectoryId;
    std::string sortedFile;         // set only while EndGrooming runs
    pid_t sortPid = -1;             // the running "sort", for RemoveGroomingTempFiles
    int sequence = 1;
    time_t startTime = 0;
    time_t ageLimit = 0;
    GroomList protectedList;
    int groomedCount = 0;
    time_t controlFileTime = 0;
    protocol::GroomingRecord record;
    pid_t owner = -1;               // the process whose temporary files these are
};

}  // namespace detail

// One job's grooming: where its files go, and what it has recorded. The
// job's context holds it; every call below is passed it.
struct Grooming {
    GroomingEnvironment environment;
    detail::GroomState state;
};

// --- gr_lib -------------------------------------------------------------

// Starts grooming. groomSet is GROOMSET (used for rotation-set grooming's
// copy file name). Returns 0, or -1 when the control file could not be read,
// the protected list could not be built, or a temporary file could not be
// made.
int BeginGrooming(Grooming& g, const char* logDir, const char* groomSet, const protocol::GroomingRecord& record, const protocol::TapeRecord& tape);
// Records a candidate; always 0. Paths that are not eligible are passed over.
// `status` is what the caller found at `path`; `directory` the identity of
// the directory that holds it (a walk has it at hand).
int RecordGrooming(Grooming& g, const char* path, const struct stat& status, platform::FileIdentity directory);
// The same for a caller without the directory's identity: a file's directory
// is reached here as deletion will reach it, once for a run of files in the
// same directory.
int RecordGrooming(Grooming& g, const char* path, const struct stat& status);
// Deletes the candidates. 0 done, 2 the sorted list could not be made or
// read, -1 grooming had not begun.
int EndGrooming(Grooming& g);
// Appends one formatted text (at most 2048 bytes) to the grooming work file.
void grlog(Grooming& g, const char* format, ...) __attribute__((format(printf, 2, 3)));
// One "Delete %s" agent log line per deleted file listed in the work file.
int MigrateLog(const char* workFile);

// Removes grooming's temporary files (work file, candidates file, and the
// sorted list if one is in progress) and closes what is open. Safe to call
// at any time and more than once; a missing file is no error. In a process
// forked after BeginGrooming it removes nothing: the files belong to the
// process that began grooming, and the child only forgets them.
void RemoveGroomingTempFiles(Grooming& g);

// What the job reads once grooming has ended.
const char* GroomingWorkFile(const Grooming& g);
const char* GroomingCopyFile(const Grooming& g);
int GroomedCount(const Grooming& g);
int GroomingKind(const Grooming& g);
// The candidates file (empty text when none is open); for inspection.
const char* GroomingCandidatesFile(const Grooming& g);
// Forgets all grooming state, the control file time included, after
// removing the temporary files: a fresh start within the same process.
void ResetGrooming(Grooming& g);

// Midnight at the start of the day nMonths months before `start` (local
// time), the day clamped to the end of a shorter month.
time_t GroomAgeLimit(time_t start, int nMonths);

// --- gr_cntl ------------------------------------------------------------

// Reads the protected paths of the control file into `list`; 0 or -1.
int dir_cntl(Grooming& g, const char* controlFile, GroomList& list);
// One element holding `text` less its last character; null on failure.
GroomList new_element(Grooming& g, const char* text);
// The value of `name` in a NAME=value package information file, or "" with
// false when there is none.
bool PackageValue(const char* file, const char* name, std::string& value);
// -1 when `path` is protected by an element of `list`, 0 otherwise.
int IsProtected(const char* path, const GroomElement* list);
// The control file that belongs to a log directory.
std::string ControlFileOf(const char* logDir);

}  // namespace tavik::groom
