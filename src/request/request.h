// The job request: the first packet of every job connection.
//
// GetRequest reads the header and the 680-byte record (and the root text
// that follows it when the header's length says so) into the job context,
// and derives jobRoot, serverVersion and conflictPolicy. It never refuses a
// caller: admission is the listener's. Fails with 100 after logging
// "(GetRequest) " lines; a header length above 680 + 1023 is a failed
// receive, checked before anything is read after the header.
#pragma once

#include "request/channel.h"
#include "request/job_context.h"

namespace tavik {

[[nodiscard]] int GetRequest(Channel& channel, JobContext& ctx);
// The verbose dump; the password is shown as "*".
void dumpRequest(const JobContext& ctx);

// The server version after the header's flags: "2" with bit 6 is "4", with
// bit 7 (and not 6) "3"; everything else stays as sent.
int8_t refineServerVersion(int8_t version, uint8_t flags);

}  // namespace tavik
