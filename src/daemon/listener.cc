#include "daemon/listener.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <algorithm>
#include <cstring>
#include <unordered_map>

#include "backup/ipc_registry.h"
#include "daemon/cleanup.h"
#include "daemon/job_entry.h"
#include "daemon/state.h"
#include "log/ulog.h"
#include "platform/fd.h"
#include "platform/signals.h"
#include "transport/endpoints.h"
#include "transport/machine_query.h"
#include "transport/packet.h"

namespace tavik {
namespace {

// How long the daemon pauses after a failed accept or fork (divided by the
// time divisor), so that a shortage of descriptors or processes does not
// turn into a busy loop; it then serves on.
constexpr unsigned kBackOffSeconds = 1;

// The connections handed to processes of their own, by process id: waiting
// for admission until the process reports that its caller was admitted,
// then jobs, until the process ends.
class Connections {
public:
    size_t waiting() const { return byPid_.size() - jobs_; }
    size_t jobs() const { return jobs_; }
    void added(pid_t pid) { byPid_.emplace(pid, false); }
    void admitted(pid_t pid) {
        auto it = byPid_.find(pid);
        if (it == byPid_.end() || it->second) return;
        it->second = true;
        ++jobs_;
    }
    void ended(pid_t pid) {
        auto it = byPid_.find(pid);
        if (it == byPid_.end()) return;
        if (it->second) --jobs_;
        byPid_.erase(it);
    }

private:
    std::unordered_map<pid_t, bool> byPid_;
    size_t jobs_ = 0;
};

// Waits until a descriptor is readable. SIGTERM and SIGCHLD are held
// outside the wait and let through atomically inside it, so that neither a
// stop request nor a child's end is left pending while the daemon sleeps;
// both are acted upon here, in normal context.
int waitForEvent(fd_set& readSet, int highest) {
    platform::SignalBlock holdTerm(SIGTERM);
    platform::SignalBlock holdChild(SIGCHLD);
    platform::dispatchPendingSignals();
    sigset_t waitMask = holdTerm.previousMask();
    sigdelset(&waitMask, SIGTERM);
    sigdelset(&waitMask, SIGCHLD);
    return pselect(highest + 1, &readSet, nullptr, nullptr, nullptr, &waitMask);
}

// Collects the connection processes that ended. A job killed by a signal
// had no chance to remove its IPC objects: they are reclaimed here.
void reapChildren(Connections& connections) {
    int status;
    pid_t pid;
    bool killed = false;
    while ((pid = waitpid(-1, &status, WNOHANG)) > 0) {
        connections.ended(pid);
        killed = killed || WIFSIGNALED(status);
    }
    if (killed) backup::ReclaimIPC(paths().ipcPath, settings().divisor());
}

// Reads the process ids that connection processes report once their caller
// is admitted.
void readAdmissions(int pipe, Connections& connections) {
    pid_t pids[64];
    ssize_t n;
    while ((n = read(pipe, pids, sizeof pids)) > 0) {
        for (size_t i = 0; i < size_t(n) / sizeof(pid_t); ++i) connections.admitted(pids[i]);
    }
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

// The caller's address in dotted form.
void identifyAddress(Listener& l) {
    sockaddr_in peer{};
    socklen_t len = sizeof peer;
    if (getpeername(l.jobSocket, reinterpret_cast<sockaddr*>(&peer), &len) != 0) {
        ulog(MSG_FAILED_GETPEERNAME, "", errText());
        std::memset(&peer, 0, sizeof peer);
    }
    inet_ntop(AF_INET, &peer.sin_addr, l.peerAddress, sizeof l.peerAddress);
}

// The caller's host name, when the reverse lookup succeeds and the name
// resolves back to the address.
void identifyHost(Listener& l) {
    sockaddr_in peer{};
    peer.sin_family = AF_INET;
    inet_pton(AF_INET, l.peerAddress, &peer.sin_addr);
    char host[NI_MAXHOST];
    l.peerKnown = getnameinfo(reinterpret_cast<sockaddr*>(&peer), sizeof peer, host, sizeof host, nullptr, 0,
                              NI_NAMEREQD) == 0 &&
                  resolvesTo(host, peer.sin_addr);
    l.peerName = l.peerKnown ? host : "";
}

// The connection process: it owns the connection alone, and everything
// slow (name lookups, reading the request, the password hash) happens here,
// never in the daemon. It ends through cleanup.
[[noreturn]] void serveConnection(Listener& l, int admittedPipe) {
    ::close(l.listenSocket);
    ::close(l.udpSocket);
    l.listenSocket = -1;
    l.udpSocket = -1;
    // Job processes leave their own children to the kernel, as the daemon
    // always did.
    platform::ignoreSignal(SIGCHLD);
    platform::clearPendingSignal(SIGCHLD);
    // The job's context: made here, in the connection process, and passed
    // down to every phase of the job.
    JobProcess job;
    l.job = &job;
    prepareJob(job.ctx);
    transport::setReceiveDeadline(job.ctx.link, kRequestTimeout);  // from the acceptance on
    identifyHost(l);
    job.ctx.link.settings.caller = l.caller();
    if (settings().verbose) ulog("received call from %s(%s)", l.peerName.c_str(), l.peerAddress);
    // Done or over, the connection process ends through cleanup all the same.
    static_cast<void>(handleJobConnection(job, admittedPipe));
    cleanup(0);
}

void backOff() { transport::scaledSleep(kBackOffSeconds, settings().timeDivisor); }

void acceptConnection(Listener& l, Connections& connections, int admittedRead, int admittedWrite) {
    const Settings& s = settings();
    l.jobSocket = transport::tcpAccept(l.listenSocket);
    if (l.jobSocket < 0) {
        backOff();  // logged; the call stays queued for the next pass
        return;
    }
    platform::UniqueFd connection(l.jobSocket);
    identifyAddress(l);
    if (connections.waiting() >= size_t(s.maxWaiting) || connections.jobs() >= size_t(s.maxJobs)) {
        ulog("Call from %s closed: %zu callers are waiting for admission and %zu jobs are running", l.peerAddress,
             connections.waiting(), connections.jobs());
        l.jobSocket = -1;
        return;
    }
    pid_t pid = fork();
    if (pid < 0) {
        ulog(MSG_FAILED_FORK_JOB_ABORT, "", errText());
        l.jobSocket = -1;
        backOff();
        return;
    }
    if (pid == 0) {
        connection.release();
        ::close(admittedRead);
        serveConnection(l, admittedWrite);
    }
    connections.added(pid);
    l.jobSocket = -1;
}

}  // namespace

void serveForever() {
    Listener& l = listener();
    const bool verbose = settings().verbose;
    Connections connections;
    transport::QueryRateLimit queryLimit;
    int admitted[2];
    if (pipe2(admitted, O_CLOEXEC | O_NONBLOCK) != 0) {
        ulog("Failed to create the admission pipe (%s)", errText());
        cleanup(0);
    }
    // Children end while the daemon serves: their ends are collected here.
    platform::deferSignal(SIGCHLD, [](int) {});
    for (;;) {
        reapChildren(connections);
        fd_set readSet;
        FD_ZERO(&readSet);
        FD_SET(l.udpSocket, &readSet);
        FD_SET(l.listenSocket, &readSet);
        FD_SET(admitted[0], &readSet);
        int highest = std::max({l.udpSocket, l.listenSocket, admitted[0]});
        int ready = waitForEvent(readSet, highest);
        if (ready < 0) {
            if (errno == EINTR) {
                if (verbose) ulog(MSG_FAILED_SELECT, "", errText());
                continue;
            }
            ulog(MSG_FAILED_SELECT, "", errText());
            cleanup(0);
        }
        if (FD_ISSET(admitted[0], &readSet)) readAdmissions(admitted[0], connections);
        if (FD_ISSET(l.udpSocket, &readSet)) {
            if (verbose) ulog("select(), received UDP packet: enter AskMachine()...");
            int rc = transport::AskMachine(l.udpSocket, queryLimit);
            if (verbose) ulog(rc == 0 ? "AskMachine OK" : "AskMachine Failed");
            continue;  // a connection that is ready too is taken on the next pass
        }
        if (FD_ISSET(l.listenSocket, &readSet)) {
            if (verbose) ulog("select(), received TCP packet");
            acceptConnection(l, connections, admitted[0], admitted[1]);
            continue;
        }
        if (FD_ISSET(admitted[0], &readSet)) continue;
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
