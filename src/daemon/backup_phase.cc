// The backup's data phase in the job process: the filter, no-delay mode,
// the packet queue and the send buffer, then the two processes of
// startbackup, END, the wait for an empty queue and the closing handshake
// in which the front-end ends the connection.
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

#include "backup/backup_state.h"
#include "backup/driver.h"
#include "backup/estimate.h"
#include "backup/queue.h"
#include "backup/stream.h"
#include "daemon/backup_hooks.h"
#include "daemon/cleanup.h"
#include "daemon/control_files.h"
#include "daemon/job_phases.h"
#include "daemon/state.h"
#include "filter/filter.h"
#include "log/ulog.h"
#include "platform/signals.h"
#include "request/commands.h"
#include "transport/endpoints.h"
#include "transport/packet.h"
#include "transport/sender.h"

namespace tavik {

void installBackupHooks(backup::BackupJob& job) {
    const JobContext& ctx = job.ctx;
    backup::BackupHooks& hooks = job.hooks;
    hooks.isProtectedDir = [&ctx](platform::FileIdentity id) { return listsDirectory(ctx.protectedDirs, id); };
    hooks.liesInProtectedDir = [&ctx](const std::string& path) { return isProtected(path, ctx.protectedDirs) != 0; };
    hooks.controlFile = paths().cntlPath;
    hooks.onChildSignal = cleanupOnChildSignal;
    hooks.setChild = setCleanupChild;
}

Outcome backupPhase(Channel& channel, backup::BackupJob& job) {
    JobContext& ctx = job.ctx;
    const Settings& s = settings();
    int fd = channel.fd();
    filter::InitializeFilter(job.filter, ctx.filterItems, ctx.jobRoot, true);

    if (!s.blockingIo) {
        int flags = ::fcntl(fd, F_GETFL);
        if (flags < 0 || ::fcntl(fd, F_SETFL, flags | O_NONBLOCK) != 0) {
            ulog(MSG_FAILED_SET_NONBLOCKING, "");
            return Outcome::jobOver();
        }
    }
    if (job.queue.open(ctx) != 0) {
        if (s.verbose) ulogText("Failed in GetIPC");
        return Outcome::jobOver();
    }
    transport::setBufSize(fd, SO_SNDBUF, s.socketBufferSize);
    ulog("SO_SNDBUF = %d", transport::getBufSize(fd, SO_SNDBUF));

    if (backup::startbackup(job, fd, ctx.jobRoot).isJobOver()) return Outcome::jobOver();
    ulog(MSG_WORKSTATION_BACKUP_ENDED, "");
    backup::stopWatchdog(job);
    if (backup::queueStatus(job, protocol::code::kEnd).isJobOver()) return Outcome::jobOver();
    if (backup::restartPending(ctx)) return Outcome::done();  // the restart point was never found
    backup::waitQueueEmpty(job);

    if (!s.blockingIo) {
        // The status value 16 (synchronous writes) of the original system
        // clears no-delay; on Linux clearing O_NONBLOCK has that effect.
        int flags = ::fcntl(fd, F_GETFL);
        if (flags < 0 || ::fcntl(fd, F_SETFL, flags & ~O_NONBLOCK) != 0) {
            ulog(MSG_FAILED_SET_BLOCKING, "");
            return Outcome::jobOver();
        }
    }
    transport::setReceiveTimeout(fd, kClosingWait, ctx.jobSettings.divisor());
    uint8_t closing[protocol::kHeaderSize];
    ssize_t n;
    do {
        n = ::recv(fd, closing, sizeof closing, 0);
        if (n < 0 && errno == EINTR) platform::dispatchPendingSignals();
    } while (n < 0 && errno == EINTR);
    if (n < 0 && errno == ECONNRESET) transport::connrelease(ctx.link, 0);
    return Outcome::done();
}

}  // namespace tavik
