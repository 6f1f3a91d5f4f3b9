#include "daemon/cleanup.h"

#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>

#include "backup/queue.h"
#include "daemon/job_session.h"
#include "daemon/state.h"
#include "groom/groom.h"
#include "log/ulog.h"
#include "platform/signals.h"

namespace tavik {
namespace {

constexpr const char* kPrefix = "(cleanup) ";

void closeIfOpen(int& fd) {
    if (fd >= 0) ::close(fd);
    fd = -1;
}

[[noreturn]] void finish() {
    platform::ignoreSignal(SIGCHLD);
    platform::ignoreSignal(SIGTERM);

    Listener& l = listener();
    bool daemon = l.listenSocket >= 0;
    closeIfOpen(l.jobSocket);
    closeIfOpen(l.listenSocket);
    closeIfOpen(l.udpSocket);
    if (l.job) static_cast<void>(l.job->backup.queue.release());  // logged

    if (daemon) {
        ulog(MSG_TAVIK_STOPPED);
        ::unlink(paths().pidPath.c_str());
    }
    if (l.job) groom::RemoveGroomingTempFiles(l.job->ctx.grooming);
    std::exit(1);
}

}  // namespace

void setCleanupChild(int pid) { listener().jobChild = pid; }

void cleanupOnChildSignal(int) {
    int status;
    const int child = listener().jobChild;
    pid_t pid = waitpid(child, &status, WNOHANG);
    if (pid >= 0 && pid != child) return;  // not our child, or not yet: go on
    if (pid == child)
        ulog(MSG_CHILD_PROCESS_DIED, kPrefix, child);
    else
        ulog(MSG_FAILED_WAIT_PID, kPrefix, child, errText());
    finish();
}

void cleanup(int sig) {
    if (sig == SIGTERM && listener().listenSocket == -1) ulog(MSG_PROCESS_KILLED, kPrefix);
    finish();
}

}  // namespace tavik
