// The backup's sender: SendDaemon drains the packet queue onto the job
// connection in order, waits for the front-end's acknowledgement every
// ackInterval packets of codes 6, 7 and 8, and renews the connection
// (reestablishTCP: a code-16 packet with a new port, then the stream goes on
// over the connection the front-end makes to it) after reconnectKB kilobytes
// or reconnectFiles files when the job's options permit it. Renewals come
// before the packet that reaches a limit, which is the first one on the new
// connection; an ENDF that reaches the file limit and, counted afresh, the
// kilobyte limit too is preceded by two. Packets that are ready together
// leave in one vectored send unless an acknowledgement or a renewal falls
// between them.
//
// Requires: runs in the sender process only; the queue is reached through
// PacketSource (the backup library's ring). Fails: SendDaemon returns -1
// after logging; a connection the front-end dropped ends the process
// through connrelease ("Job aborted by front-end", exit status 1). After the
// END packet SendDaemon waits until it is terminated.
#pragma once

#include <cstdint>
#include <functional>

#include "transport/packet.h"

namespace tavik::transport {

struct PacketSource {
    // The wait while the queue is empty: count + 1, or -1 at `limit`.
    std::function<int(int count, int limit)> waitForPacket;
    std::function<uint16_t()> count;
    // The filled slot `ahead` places after the next one to send.
    std::function<const uint8_t*(uint16_t ahead)> slotAhead;
    // Releases the next `n` slots; non-zero on failure.
    std::function<int(uint16_t n)> release;
};

struct SenderOptions {
    bool renewalPermitted = false;  // option flag 0x04
    uint16_t ackInterval = 0;
};

// Packets handed to the kernel in one call at most.
inline constexpr int kMaxBatch = 64;

// How long the front-end has to connect to the renewal port (seconds,
// divided by the time divisor).
inline constexpr unsigned kRenewalWait = 600;

int SendDaemon(TransportState& t, int connection, const PacketSource& source, const SenderOptions& options);
// Renews the connection: a listening socket on a port the system picks, the
// new-port packet (code 16) on the old connection, and the front-end's call
// (from the old connection's address, within kRenewalWait). The new
// connection, or -1 after logging.
int reestablishTCP(TransportState& t, int connection);
// With SIGPIPE, called by the sender when a send found the connection
// dropped (EPIPE, ECONNRESET): the front-end went away; logs and ends the
// sender. With 0: the job process's closing read saw the connection reset.
void connrelease(const TransportState& t, int sig);

}  // namespace tavik::transport
