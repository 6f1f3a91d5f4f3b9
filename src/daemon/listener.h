// The daemon's listener loop: waits on the UDP query socket and the TCP
// listening socket, answers machine queries in place and hands each accepted
// connection to handleJobConnection. Never returns; the daemon ends through
// cleanup (SIGTERM, or a failure of select, accept or fork).
#pragma once

namespace tavik {

[[noreturn]] void serveForever();

}  // namespace tavik
