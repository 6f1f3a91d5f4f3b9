// The restore command stream: ws_restore obeys the front-end's commands on
// the job's connection (MKDIR, OPENFILE with its MOF/ENDF data, UNLINK, END,
// ABORT), creating directories, files, symbolic and hard links, FIFOs and
// device files, and answers one status byte after each file's ENDF.
//
// Requires: the job's working directory is its root; `links` was reset for
// this job; `owner` is the job's login (owner of directories made for
// missing parents).
// Returns Outcome::done() after END (answered with 3) or ABORT, and after a
// 'd' status (no space: the job ends) that went out; Outcome::jobOver() when
// a packet could not be received or an answer not sent (a payload longer
// than a data packet may carry, or a record larger than the record area, is
// a failed receive).
//
// A file is made apart (an unnamed file, or a temporary name beside its
// own) and takes its name only at ENDF, after all of its data was written
// and its mode, owner and times were set; until then an existing file of
// that name stays as it is. A file whose data could not all be written, or
// whose stream broke off, never takes its name and is answered with its
// status. END is answered once what was restored is on stable storage
// (syncfs of each file system the restore reached).
#pragma once

#include <string>

#include "platform/outcome.h"
#include "request/job_context.h"
#include "restore/paths.h"

namespace tavik::restore {

// The data area: data is written once 4296 bytes have gathered, and one more
// payload must always fit.
inline constexpr size_t kWriteBatch = 4296;
inline constexpr size_t kDataAreaSize = kWriteBatch + protocol::kMaxDataPayload;
static_assert(kDataAreaSize == 6344);

Outcome ws_restore(int socket, const std::string& root, JobContext& ctx, HardLinkTable& links,
                   const Owner& owner);

}  // namespace tavik::restore
