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
// Returns 0 after ABORT or a completed END, 100 when an answer could not be
// sent; after a failed receive (also a payload larger than the data area or
// a record larger than the record area) it answers 100 and returns 0 if that
// went out, 100 if not. A record whose name has 1024 bytes or more is
// answered as an object that cannot be examined.
//
// sync_send_file sends a file as MOF packets of 2048 bytes and a closing
// shorter ENDF packet: 0 sent, 100 a send failed, -1 the file cannot be
// opened (a read error is answered with code 103).
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "request/job_context.h"
#include "restore/restore_record.h"

namespace tavik::compare {

// Contents are compared once this many bytes have gathered; one more data
// payload must always fit.
inline constexpr size_t kCompareBatch = 4296;
inline constexpr size_t kDataAreaSize = kCompareBatch + restore::kMaxDataPayload;
static_assert(kDataAreaSize == 6344);

// The grooming count follows code 14 as decimal text in 16 bytes.
inline constexpr size_t kGroomCountSize = 16;
// sync_send_file's packet payload.
inline constexpr size_t kFilePacketSize = 2048;

// Verdict codes (one byte, header only).
namespace verdict {
inline constexpr uint8_t kSame = 0;
inline constexpr uint8_t kEnd = 3;
inline constexpr uint8_t kGroomCount = 14;
inline constexpr uint8_t kStop = 100;
inline constexpr uint8_t kReadErr = 103;
inline constexpr uint8_t kNoFile = 0xD2;
inline constexpr uint8_t kNoDirectory = 0xD3;
inline constexpr uint8_t kCannotOpen = 0xD4;
inline constexpr uint8_t kSize = 0xD5;
inline constexpr uint8_t kFileDiffers = 0xD6;
inline constexpr uint8_t kDirectoryDiffers = 0xD7;
inline constexpr uint8_t kReadFailed = 0xD8;
inline constexpr uint8_t kLinkUnreadable = 0xD9;
inline constexpr uint8_t kContent = 0xDA;
inline constexpr uint8_t kLockTestFailed = 0xDB;
inline constexpr uint8_t kLocked = 0xDC;
inline constexpr uint8_t kMode = 0xDD;
inline constexpr uint8_t kLinks = 0xDE;
inline constexpr uint8_t kOwner = 0xDF;
inline constexpr uint8_t kGroup = 0xE0;
inline constexpr uint8_t kMtime = 0xE2;
inline constexpr uint8_t kRdev = 0xE3;
}  // namespace verdict

int ws_compare(int socket, const std::string& root, const JobContext& ctx);

int sync_send_file(int socket, const char* name);

}  // namespace tavik::compare
