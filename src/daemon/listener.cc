#include "daemon/listener.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>

#include "daemon/cleanup.h"
#include "daemon/job_entry.h"
#include "daemon/state.h"
#include "log/ulog.h"
#include "platform/signals.h"
#include "transport/endpoints.h"
#include "transport/machine_query.h"

namespace tavik {
namespace {

// Waits until a socket is readable. SIGTERM is held outside the wait and let
// through atomically inside it, so a stop request is never left pending
// while the daemon sleeps; it is acted upon here, in normal context.
int waitForEvent(fd_set& readSet, int highest) {
    platform::SignalBlock holdTerm(SIGTERM);
    platform::dispatchPendingSignals();
    sigset_t waitMask = holdTerm.previousMask();
    sigdelset(&waitMask, SIGTERM);
    return pselect(highest + 1, &readSet, nullptr, nullptr, nullptr, &waitMask);
}

// Whether `host` resolves back to `address`. The reverse-lookup name is
// chosen by whoever controls the address's reverse zone: it counts only
// when the name's own addresses confirm it.
bool resolvesTo(const char* host, in_addr address) {
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (getaddrinfo(host, nullptr, &hints, &found) != 0) return false;
    bool confirmed = false;
    for (const addrinfo* a = found; a && !confirmed; a = a->ai_next)
        confirmed = reinterpret_cast<const sockaddr_in*>(a->ai_addr)->sin_addr.s_addr == address.s_addr;
    freeaddrinfo(found);
    return confirmed;
}

// Identifies the caller of a new connection: dotted address and, when the
// reverse lookup succeeds and the name resolves back to the address, its
// host name.
void identifyPeer(Listener& l) {
    sockaddr_in peer{};
    socklen_t len = sizeof peer;
    if (getpeername(l.jobSocket, reinterpret_cast<sockaddr*>(&peer), &len) != 0) {
        ulog(MSG_FAILED_GETPEERNAME, "", errText());
        std::memset(&peer, 0, sizeof peer);
        peer.sin_family = AF_INET;
    }
    inet_ntop(AF_INET, &peer.sin_addr, l.peerAddress, sizeof l.peerAddress);
    char host[NI_MAXHOST];
    l.peerKnown = getnameinfo(reinterpret_cast<sockaddr*>(&peer), sizeof peer, host, sizeof host, nullptr, 0,
                              NI_NAMEREQD) == 0 &&
                  resolvesTo(host, peer.sin_addr);
    l.peerName = l.peerKnown ? host : "";
}

}  // namespace

void serveForever() {
    Listener& l = listener();
    const bool verbose = settings().verbose;
    for (;;) {
        fd_set readSet;
        FD_ZERO(&readSet);
        FD_SET(l.udpSocket, &readSet);
        FD_SET(l.listenSocket, &readSet);
        int highest = l.udpSocket > l.listenSocket ? l.udpSocket : l.listenSocket;
        int ready = waitForEvent(readSet, highest);
        if (ready < 0) {
            if (errno == EINTR) {
                if (verbose) ulog(MSG_FAILED_SELECT, "", errText());
                continue;
            }
            ulog(MSG_FAILED_SELECT, "", errText());
            cleanup(0);
        }
        if (FD_ISSET(l.udpSocket, &readSet)) {
            if (verbose) ulog("select(), received UDP packet: enter AskMachine()...");
            int rc = transport::AskMachine(l.udpSocket);
            if (verbose) ulog(rc == 0 ? "AskMachine OK" : "AskMachine Failed");
            continue;  // a connection that is ready too is taken on the next pass
        }
        if (FD_ISSET(l.listenSocket, &readSet)) {
            if (verbose) ulog("select(), received TCP packet");
            l.jobSocket = transport::tcpAccept(l.listenSocket);
            if (l.jobSocket < 0) cleanup(0);
            identifyPeer(l);
            if (verbose) ulog("received call from %s(%s)", l.peerName.c_str(), l.peerAddress);
            if (handleJobConnection() != 0) cleanup(0);
            continue;
        }
        if (verbose) {
            uint32_t bits = 0;
            for (int fd = 0; fd < 32 && fd < FD_SETSIZE; ++fd)
                if (FD_ISSET(fd, &readSet)) bits |= 1u << fd;
            ulog("select() unknown event, ret=%d, rset=%x", ready, bits);
        }
        sleep(1);
    }
}

}  // namespace tavik
