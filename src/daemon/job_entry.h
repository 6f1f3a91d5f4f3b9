// What the connection process does with its connection once the caller's
// address and name are known (listener().jobSocket, peerAddress, peerName).
//
// handleJobConnection() takes the job (its context made by prepareJob, its
// receive deadline set at the acceptance), reads the job
// request (the whole of it within the request deadline, counted from the
// acceptance), admits the caller, tells the daemon through `admittedPipe`
// that this process is now a job (its process id, once), and serves the job.
// It returns when the process must end through cleanup(0): after a refusal
// or a request that could not be read (Outcome::jobOver()), or with the
// job's outcome.
#pragma once

#include "daemon/job_session.h"
#include "platform/outcome.h"

namespace tavik {

// How long a caller has, from its acceptance, to deliver its whole request
// (divided by the time divisor).
inline constexpr unsigned kRequestTimeout = 120;

Outcome handleJobConnection(JobProcess& job, int admittedPipe);

}  // namespace tavik
