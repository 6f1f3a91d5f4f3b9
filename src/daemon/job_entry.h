// What the listener does with one accepted job connection once it has
// identified the caller (listener().jobSocket, peerAddress, peerName).
//
// handleJobConnection() prepares the per-connection job state, reads the job
// request, admits the caller and forks the job process. It returns 0 when the
// calling process must go back to serving (the daemon, which has closed its
// copy of the connection), and non-zero when the calling process must end
// through cleanup(0): the job process after its job, or the daemon when the
// fork failed.
#pragma once

namespace tavik {

int handleJobConnection();

}  // namespace tavik
