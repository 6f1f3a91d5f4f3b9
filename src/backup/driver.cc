#include "backup/driver.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "backup/backup_state.h"
#include "backup/queue.h"
#include "backup/span_tape.h"
#include "backup/stream.h"
#include "backup/traverse.h"
#include "groom/groom.h"
#include "protocol/commands.h"
#include "log/ulog.h"
#include "platform/signals.h"
#include "request/job_context.h"
#include "transport/packet.h"
#include "transport/sender.h"
#include "wire/bytes.h"

namespace tavik::backup {
namespace {

constexpr const char* kPrefix = "(startbackup) ";

[[noreturn]] void runSender(BackupJob& job, int jobSocket, pid_t jobProcess) {
    // The sender dies with its job process, however that ends: the
    // connection then closes, and nothing sends on for a job that is gone.
    if (::prctl(PR_SET_PDEATHSIG, SIGKILL) != 0 || ::getppid() != jobProcess) std::_Exit(1);
    platform::defaultSignal(SIGTERM);
    platform::defaultSignal(SIGCHLD);
    platform::defaultSignal(SIGUSR1);
    platform::defaultSignal(SIGALRM);
    platform::clearPendingSignal(SIGCHLD);
    // A dropped connection shows as EPIPE or ECONNRESET from the sends
    // (MSG_NOSIGNAL); a SIGPIPE could only come from standard output.
    platform::ignoreSignal(SIGPIPE);
    // The sender's own copy of the connection's state.
    transport::TransportState link = job.ctx.link;
    link.senderProcess = true;
    link.backupAsleep = false;
    PacketQueue& queue = job.queue;
    link.queueNotFull = [&queue] { return queue.queuedCount() < queue.capacity(); };
    queue.disown();
    transport::PacketSource source;
    source.waitForPacket = [&queue](int count, int limit) { return queue.waitForPacket(count, limit); };
    source.count = [&queue] { return queue.queuedCount(); };
    source.slotAhead = [&queue](uint16_t ahead) { return queue.slotAfterOut(ahead); };
    source.release = [&queue](uint16_t n) { return queue.countdown(n); };
    transport::SenderOptions options;
    options.renewalPermitted = (job.ctx.optionFlags() & protocol::options_layout::kReconnect) != 0;
    options.ackInterval = job.ctx.ackInterval;
    int r = transport::SendDaemon(link, jobSocket, source, options);
    std::_Exit(r != 0 ? 255 : 0);
}

void endGrooming(BackupJob& job) {
    int s = groom::EndGrooming(job.ctx.grooming);
    if (s == 1) {
        ulog(MSG_GROOMING_INCOMPLETE, kPrefix);
    } else if (s == 2) {
        ulog(MSG_GROOMING_FAILED, kPrefix);
    } else if (s != 0) {
        ulog(MSG_ENDGROOMING_UNKNOW_STATUS, kPrefix, s);
    }
}

Outcome sendGroomingReport(BackupJob& job, Outcome result) {
    std::string work = groom::GroomingWorkFile(job.ctx.grooming);
    int count = groom::GroomedCount(job.ctx.grooming);
    if (count != 0) {
        struct stat st;
        platform::UniqueFd file;
        if (::stat(work.c_str(), &st) != 0) {
            ulog(MSG_FAILED_GET_ATTRIBUTES_STAT, kPrefix, work.c_str(), errText());
        } else if (!(file = platform::UniqueFd(::open(work.c_str(), O_RDONLY | O_CLOEXEC)))) {
            ulog(MSG_FAIED_OPEN, kPrefix, work.c_str(), errText());
        } else {
            char text[16];
            std::snprintf(text, sizeof text, "%d", count);
            result = queueStatus(job, protocol::code::kGroomCount, text);
            if (!result.isJobOver()) result = send_file(job, std::move(file), st, {}, work);
            uint32_t options = wire::loadLe32(job.ctx.groomRecord.data() + protocol::kGroomOptionsOffset);
            if (options & protocol::kGroomRotationSet) {
                std::string copy = groom::GroomingCopyFile(job.ctx.grooming);
                // A link in the log directory, which every job may write,
                // is not followed.
                if (copyFile(work.c_str(), copy.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW, 0666) == -1)
                    ulog(MSG_CANNOT_COPY, kPrefix, work.c_str(), copy.c_str());
                ulog(MSG_TOTAL_GROOMED_FOR_SET, count, job.ctx.groomSet.c_str());
            } else if (options & protocol::kGroomDelete) {
                groom::MigrateLog(work.c_str());
                ulog(MSG_TOTAL_DELETED, count);
            }
        }
    }
    job.ctx.groomRecord.clear();
    job.grooming = false;
    if (!work.empty()) ::unlink(work.c_str());
    return result;
}

}  // namespace

void stopWatchdog(BackupJob& job) {
    transport::armAlarm(0, 1);
    job.watchdog = false;
    platform::clearPendingSignal(SIGALRM);
}

void waitQueueEmpty(BackupJob& job) {
    // Polls once a second; the sender's release of the last slot ends the
    // wait at once.
    while (job.queue.queuedCount() != 0) transport::scaledSleep(1, job.ctx.jobSettings.divisor());
}

Outcome startbackup(BackupJob& job, int jobSocket, const std::string& sourcePath) {
    job.sourceLength = sourcePath.size();
    job.restartFound = false;
    job.watchdog = (job.ctx.optionFlags() & protocol::options_layout::kWatchDog) != 0;
    job.timeDivisor = job.ctx.jobSettings.divisor();
    job.grooming = !job.ctx.groomRecord.empty();
    job.oldSelection = decodeOldSelection(job.ctx.request);

    // In place before the fork: the sender may signal at once.
    listenForSpanTape();
    if (job.hooks.onChildSignal) platform::deferSignal(SIGCHLD, job.hooks.onChildSignal);

    pid_t self = ::getpid();
    pid_t pid = ::fork();
    if (pid < 0) {
        ulog(MSG_FAILED_FORK_JOB_ABORT, kPrefix, errText());
        return Outcome::jobOver();
    }
    if (pid == 0) runSender(job, jobSocket, self);
    job.queue.setSenderPid(pid);
    job.queue.markSegmentForRemoval();  // both processes are attached
    if (job.hooks.setChild) job.hooks.setChild(pid);
    if (job.watchdog) installWatchdog(job);
    job.dirDepth = 0;

    struct stat st;
    if (::stat(sourcePath.c_str(), &st) != 0) {
        ulog(MSG_FAILED_GET_ATTRIBUTES_STAT, kPrefix, sourcePath.c_str(), errText());
        return reportEntry(job, protocol::code::kNoDir, "");
    }
    struct stat sourceStat = st;
    job.rootDev = st.st_dev;
    bool newServer = job.ctx.serverVersion >= protocol::kNewServerVersion;
    if (newServer) {
        Outcome r = sendAttributes(job, st, "", 17, sourcePath);
        if (r.isJobOver()) {
            ulog(MSG_FAILED_SEND_ATTRIBUTES, kPrefix, sourcePath.c_str());
            return r;
        }
        if (job.grooming) {
            wire::ByteReader in(std::span<const uint8_t>(job.ctx.groomRecord.data(), job.ctx.groomRecord.size()));
            protocol::GroomingRecord record = protocol::decodeGroomingRecord(in);
            wire::ByteReader tapeIn(std::span<const uint8_t>(job.ctx.tapeRecord.data(), job.ctx.tapeRecord.size()));
            protocol::TapeRecord tape;
            (void)protocol::decodeTapeRecord(tapeIn, tape);  // always whole: 63 bytes kept
            if (groom::BeginGrooming(job.ctx.grooming, job.ctx.paths.logDir.c_str(), job.ctx.groomSet.c_str(), record, tape) != 0)
                ulog(MSG_FAILED_BEGINGROOMING, kPrefix);
            if (!restartPending(job.ctx)) {
                int g = groom::RecordGrooming(job.ctx.grooming, sourcePath.c_str(), st);
                if (g != 0) ulog(MSG_FAILED_RECORD_GROOMING_RET, kPrefix, sourcePath.c_str(), g);
            }
        }
    }
    job.ancestors.clear();
    job.ancestors.push(st.st_dev, st.st_ino);
    int mode = newServer ? int(filter::DirVerdictOf(job.filter, sourcePath)) : 2;
    bool timesKept = false;
    Outcome result = ws_backup(job, sourcePath, mode, sourceStat, &timesKept);
    if (job.ctx.jobSettings.resetAccessTime && !timesKept && setFileTimes(sourcePath, sourceStat) != 0)
        ulog(MSG_FAILED_SET_TIME, kPrefix, sourcePath.c_str(), errText());
    job.ancestors.pop();
    if (!job.grooming) return result;
    endGrooming(job);
    return sendGroomingReport(job, result);
}

}  // namespace tavik::backup
