#include "transport/sender.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>

#include "log/ulog.h"
#include "platform/signals.h"
#include "transport/endpoints.h"
#include "transport/packet.h"

namespace tavik::transport {
namespace {

constexpr const char* kPrefix = "(SendDaemon) ";

protocol::PacketHeader headerOf(const uint8_t* slot) {
    protocol::HeaderBytes bytes;
    for (size_t i = 0; i < protocol::kHeaderSize; ++i) bytes[i] = slot[i];
    return protocol::decodeHeader(bytes);
}

// How many renewals come before this packet is sent (0, 1 or 2), and the
// counters after it. An ENDF that reaches the file limit renews and clears
// both counters; its length then counts towards the kilobyte limit like a
// MOF's, so an ENDF of reconnectKB kilobytes or more renews a second time.
int renewalsBefore(const TransportSettings& s, const protocol::PacketHeader& h, bool permitted, uint32_t& sz,
                   uint32_t& nf) {
    if (!permitted) return 0;
    int renewals = 0;
    if (h.code == protocol::code::kEndf && s.reconnectFiles != 0) {
        nf += 1;
        if (nf >= uint32_t(s.reconnectFiles)) {
            ++renewals;
            sz = nf = 0;
        }
    }
    if ((h.code == protocol::code::kMof || h.code == protocol::code::kEndf) && s.reconnectKB != 0) {
        sz += h.length;
        if (sz / 1024 >= uint32_t(s.reconnectKB)) {
            ++renewals;
            sz = nf = 0;
        }
    }
    return renewals;
}

// Sends the packets with sendmsg as far as the kernel takes them without
// waiting, continuing the same vector after a partial send. When the socket
// takes nothing, the chosen send routine sends the rest of the current
// entry (a packet, or a run of packets in adjacent slots; it owns every wait,
// stall and time-out, which count from there), and the vector goes on after
// it.
int sendBatch(TransportState& t, int fd, iovec* iov, int n) {
    int first = 0;
    while (first < n) {
        msghdr msg{};
        msg.msg_iov = iov + first;
        msg.msg_iovlen = size_t(n - first);
        ssize_t sent = ::sendmsg(fd, &msg, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent < 0 && errno == EINTR) {
            platform::dispatchPendingSignals();
            continue;
        }
        if (sent > 0) {
            if (t.backupAsleep && t.senderProcess && signalBackupProcess(t, true) != 0)
                return kFailed;
            size_t done = size_t(sent);
            while (first < n && done >= iov[first].iov_len) {
                done -= iov[first].iov_len;
                ++first;
            }
            if (first < n) {
                iov[first].iov_base = static_cast<uint8_t*>(iov[first].iov_base) + done;
                iov[first].iov_len -= done;
            }
            continue;
        }
        // Busy or failed: the send routine waits or reports it.
        if (sendRoutine(t, fd, static_cast<const uint8_t*>(iov[first].iov_base), iov[first].iov_len) != 0)
            return kFailed;
        ++first;
    }
    return 0;
}

bool connectionDropped(int err) { return err == EPIPE || err == ECONNRESET; }

uint32_t peerAddressOf(int sock) {
    sockaddr_in peer{};
    socklen_t length = sizeof peer;
    return ::getpeername(sock, reinterpret_cast<sockaddr*>(&peer), &length) == 0 ? peer.sin_addr.s_addr : 0;
}

// The front-end's call on the renewal port: only a call from the address
// the job's connection comes from is taken (anyone who reached the port
// first would otherwise receive the rest of the backup), within
// kRenewalWait seconds (divided by the time divisor). -1 after logging.
int acceptFrontEnd(int divisor, int listening, int connection, uint16_t port) {
    constexpr const char* kRenewPrefix = "(reestablishTCP) ";
    const uint32_t frontEnd = peerAddressOf(connection);
    const auto deadline =
        std::chrono::steady_clock::now() + std::chrono::microseconds(kRenewalWait * 1000000LL / divisor);
    for (;;) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        pollfd p{listening, POLLIN, 0};
        int ready = left.count() > 0 ? ::poll(&p, 1, static_cast<int>(left.count())) : 0;
        if (ready < 0 && errno == EINTR) {
            platform::dispatchPendingSignals();
            continue;
        }
        if (ready == 0) {
            ulog("%sThe front-end did not connect to the new port %d in time", kRenewPrefix, int(port));
            return -1;
        }
        int fresh = tcpAccept(listening);
        if (fresh < 0) return -1;
        uint32_t caller = peerAddressOf(fresh);
        if (caller == frontEnd) return fresh;
        char shown[INET_ADDRSTRLEN] = "";
        inet_ntop(AF_INET, &caller, shown, sizeof shown);
        ulog("%sA call on the new port %d from %s is not the front-end's: closed", kRenewPrefix, int(port), shown);
        ::close(fresh);
    }
}

}  // namespace

int reestablishTCP(TransportState& t, int connection) {
    constexpr const char* kRenewPrefix = "(reestablishTCP) ";
    const TransportSettings& s = t.settings;
    uint16_t port = 0;
    int listening = tcpOpen(port);
    if (listening < 0) return -1;
    protocol::PacketHeader h;
    h.code = protocol::code::kNewPort;
    h.value = port;
    protocol::HeaderBytes bytes = protocol::encodeHeader(h);
    if (sendRoutine(t, connection, bytes.data(), bytes.size()) != 0) {
        ::close(listening);
        return -1;
    }
    int fresh = acceptFrontEnd(s.divisor(), listening, connection, port);
    ::close(listening);
    if (fresh < 0) return -1;
    // The new connection keeps the old one's receive bound and probes.
    timeval bound{};
    socklen_t boundLength = sizeof bound;
    if (::getsockopt(connection, SOL_SOCKET, SO_RCVTIMEO, &bound, &boundLength) == 0)
        ::setsockopt(fresh, SOL_SOCKET, SO_RCVTIMEO, &bound, boundLength);
    keepAlive(fresh);
    if (logVerbose()) ulog("%sNew TCP fd=%d, port=%d connected", kRenewPrefix, fresh, int(port));
    ::close(connection);
    if (!s.blockingIo) {
        int flags = ::fcntl(fresh, F_GETFL);
        if (flags < 0 || ::fcntl(fresh, F_SETFL, flags | O_NONBLOCK) != 0)
            ulog(MSG_FAILED_SET_NONBLOCKING, kRenewPrefix);
    }
    setBufSize(fresh, SO_SNDBUF, s.socketBufferSize);
    ulog("SO_SNDBUF = %d", getBufSize(fresh, SO_SNDBUF));
    return fresh;
}

void connrelease(const TransportState& t, int sig) {
    constexpr const char* kReleasePrefix = "(connrelease) ";
    platform::ignoreSignal(SIGPIPE);
    const TransportSettings& s = t.settings;
    if (sig == SIGPIPE) {
        if (logVerbose()) {
            if (s.reconnectKB != 0) ulog("%saccSZ=%d", kReleasePrefix, int(t.accSZ));
            if (s.reconnectFiles != 0) ulog("%saccNF=%d", kReleasePrefix, int(t.accNF));
        }
        ulog(MSG_JOB_ABORTED_FRONT_END, kReleasePrefix);
        std::_Exit(1);
    }
    ulog(MSG_RECEIVED_DISCONNECT_FROM, kReleasePrefix, s.caller.c_str());
}

int SendDaemon(TransportState& t, int connection, const PacketSource& source, const SenderOptions& options) {
    int wait = 0;
    // Small sends are coalesced while the stream flows; but where the sender
    // waits for the front-end (every acknowledgement, and the end of the
    // stream) what it sent must leave at once.
    if (options.ackInterval != 0) sendAtOnce(connection);
    uint16_t ackCounter = 0;
    bool sendDone = false;
    iovec iov[kMaxBatch];
    for (;;) {
        while (source.count() == 0) {
            wait = source.waitForPacket(wait, kZeroSendRetryLimit);
            if (wait == -1) {
                ulog(MSG_SHM_EMPTY_TOO_LONG, kPrefix);
                return -1;
            }
        }
        uint16_t ready = source.count();
        int n = 0;        // packets in this batch
        int vectors = 0;  // their vector entries
        bool ackDue = false;
        while (n < kMaxBatch && n < ready && !sendDone && !ackDue) {
            const uint8_t* slot = source.slotAhead(uint16_t(n));
            protocol::PacketHeader h = headerOf(slot);
            // Counted on copies: a packet that must wait for the next batch
            // (it renews, and packets precede it) is counted then.
            uint32_t sz = t.accSZ, nf = t.accNF;
            if (int renewals = renewalsBefore(t.settings, h, options.renewalPermitted, sz, nf); renewals > 0) {
                if (n > 0) break;  // the packets before it leave on the old connection
                // A failed renewal leaves -1, on which the send below fails.
                for (int r = 0; r < renewals && connection >= 0; ++r) {
                    connection = reestablishTCP(t, connection);
                    if (options.ackInterval != 0) sendAtOnce(connection);
                }
            }
            t.accSZ = sz;
            t.accNF = nf;
            if (h.code == protocol::code::kEnd) sendDone = true;
            if (h.code == protocol::code::kWatchDog && logVerbose()) ulog("%sWATCH_DOG sent", kPrefix);
            if (options.ackInterval != 0 &&
                (h.code == protocol::code::kFileHeader || h.code == protocol::code::kMof || h.code == protocol::code::kEndf)) {
                if (options.ackInterval == 1) {
                    ackDue = true;
                } else {
                    ackCounter = uint16_t((ackCounter + 1) % options.ackInterval);
                    ackDue = ackCounter == 0;
                }
            }
            // Slots lie back to back: a packet that begins where the one
            // before it ends (after a full slot) extends its vector entry.
            const size_t length = protocol::kHeaderSize + h.length;
            if (vectors > 0 && static_cast<uint8_t*>(iov[vectors - 1].iov_base) + iov[vectors - 1].iov_len == slot) {
                iov[vectors - 1].iov_len += length;
            } else {
                iov[vectors].iov_base = const_cast<uint8_t*>(slot);
                iov[vectors].iov_len = length;
                ++vectors;
            }
            ++n;
        }
        if (sendDone) sendAtOnce(connection);
        if (sendBatch(t, connection, iov, vectors) != 0) {
            if (connectionDropped(errno)) connrelease(t, SIGPIPE);
            return -1;
        }
        if (ackDue) {
            protocol::HeaderBytes answer{};
            if (recvRoutine(t, connection, answer.data(), answer.size()) != 0) {
                ulog(MSG_FAILED_RECEIVE_HEADER_PACKET, kPrefix);
                return -1;
            }
            if (protocol::decodeHeader(answer).code != protocol::code::kOk) {
                ulog("%sProtocol error (Acknowledge expected)", kPrefix);
                return -1;
            }
        }
        if (n > 0 && source.release(uint16_t(n)) != 0) return -1;
        wait = 0;
        if (sendDone) break;
    }
    for (;;) ::pause();
}

}  // namespace tavik::transport
