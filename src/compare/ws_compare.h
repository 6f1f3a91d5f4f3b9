// The compare job: ws_compare receives the same command stream a restore
// receives (MKDIR and OPENFILE records, file data in MOF and ENDF packets),
// writes nothing, and answers every object with a verdict byte: after MKDIR
// (the directory's attributes), after OPENFILE (the file's attributes) and
// after ENDF (its contents). With a GROOMING record in the job, everything
// found identical is recorded for grooming; at END grooming runs and its
// report (code 14, the count, the work file) goes back to the front-end.
//
// Requires: the job's working directory is its root (OPENFILE names are
// used as they are, relative to it; MKDIR names are looked up under `root`,
// which ends in "/").
// Returns Outcome::done() after ABORT or a completed END, Outcome::jobOver()
// when an answer could not be sent; after a failed receive (also a payload
// larger than the data area or a record larger than the record area) it
// answers 100 and is done if that went out, over if not. A record whose name has 1024 bytes or more is
// answered as an object that cannot be examined.
//
// sync_send_file sends a file as MOF packets of 2048 bytes and a closing
// shorter ENDF packet: 0 sent, 100 a send failed, -1 the file cannot be
// opened (a read error is answered with code 103).
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "platform/outcome.h"
#include "request/job_context.h"
#include "protocol/restore_record.h"

namespace tavik::compare {

// Contents are compared once this many bytes have gathered; one more data
// payload must always fit.
inline constexpr size_t kCompareBatch = 4296;
inline constexpr size_t kDataAreaSize = kCompareBatch + protocol::kMaxDataPayload;
static_assert(kDataAreaSize == 6344);

// sync_send_file's packet payload.
inline constexpr size_t kFilePacketSize = 2048;

Outcome ws_compare(int socket, const std::string& root, JobContext& ctx);

int sync_send_file(transport::TransportState& link, int socket, const char* name);

}  // namespace tavik::compare
