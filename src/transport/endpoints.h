// The agent's socket endpoints: the UDP query socket and the TCP listening
// socket on one port, accepting a job connection, and sizing a connection's
// kernel send or receive buffer.
//
// All addresses are IPv4 on INADDR_ANY. Failures are logged with the
// operation's prefix and returned as -1; bind failures are also printed on
// standard output, because they happen at start-up before the daemon detaches.
//
// Buffer sizes are "requested" sizes throughout: Linux reports twice the size
// that was set (the other half is its bookkeeping allowance), so getBufSize
// halves what the kernel reports, and a size that was granted reads back as
// the size that was set.
#pragma once

#include <cstdint>

namespace tavik::transport {

int udpOpen(uint16_t port);
// Port 0 asks the system for a port; on return `port` holds the bound port.
int tcpOpen(uint16_t& port);
int tcpAccept(int listening);

// `kind` is SO_SNDBUF or SO_RCVBUF.
int getBufSize(int sock, int kind);
// 0 when the size in force afterwards equals the size set, else -1. Size 0
// leaves the socket alone; a negative size asks for the largest granted size;
// sizes 1..4095 become 4096.
int setBufSize(int sock, int kind, int size);
int probeBufSize(int kind, int& initialOut, int& largestOut);

// Turns off the coalescing of small sends on a connection, which also sends
// at once whatever it holds back. Coalescing (on by default) holds a short
// segment while earlier data is unacknowledged, and the receiver may delay
// its acknowledgement by up to 40 ms: a sender that next waits for the
// receiver (for an answer, or for the connection to end) would wait that
// long for nothing. Failure is harmless and returned for the caller to
// ignore.
int sendAtOnce(int sock);

// Bounds each receive on `sock` to `seconds` (divided by the time
// divisor; 0: no bound): a blocking receive that waits longer fails as a
// timed-out receive. 0, or -1 with errno.
int setReceiveTimeout(int sock, unsigned seconds, int divisor);
// Has the kernel probe an idle connection, so that a front-end that
// vanished (its host down, its network gone) ends the job within minutes
// even while a long wait is allowed. Failure is harmless.
int keepAlive(int sock);

// The kernel's report for a requested size, and back (the platform's rule).
inline int kernelReportFor(int requested) { return requested * 2; }
inline int requestedFromReport(int reported) { return reported / 2; }

}  // namespace tavik::transport
