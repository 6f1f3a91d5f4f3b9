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

bool queueNotFull() { return queuedCount() < queueCapacity(); }

[[noreturn]] void runSender(const JobContext& ctx, int jobSocket, pid_t jobProcess) {
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
    transport::TransportState link = ctx.link;
    link.senderProcess = true;
    link.backupAsleep = false;
    link.queueNotFull = queueNotFull;
    disownIPC();
    transport::PacketSource source;
    source.waitForPacket = waitForPacket;
    source.count = queuedCount;
    source.slotAhead = slotAfterOut;
    source.release = [](uint16_t n) { return countdown(n); };
    transport::SenderOptions options;
    options.renewalPermitted = (ctx.optionFlags() & protocol::options_layout::kReconnect) != 0;
    options.ackInterval = ctx.ackInterval;
    int r = transport::SendDaemon(link, jobSocket, source, options);
    std::_Exit(r != 0 ? 255 : 0);
}

void endGrooming() {
    int s = groom::EndGrooming();
    if (s == 1) {
        ulog(MSG_GROOMING_INCOMPLETE, kPrefix);
    } else if (s == 2) {
        ulog(MSG_GROOMING_FAILED, kPrefix);
    } else if (s != 0) {
        ulog(MSG_ENDGROOMING_UNKNOW_STATUS, kPrefix, s);
    }
}

Outcome sendGroomingReport(JobContext& ctx, Outcome result) {
    std::string work = groom::GroomingWorkFile();
    int count = groom::GroomedCount();
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
            result = queueStatus(ctx, protocol::code::kGroomCount, text);
            if (!result.isJobOver()) result = send_file(ctx, std::move(file), st, {}, work);
            uint32_t options = wire::loadLe32(ctx.groomRecord.data() + protocol::kGroomOptionsOffset);
            if (options & protocol::kGroomRotationSet) {
                std::string copy = groom::GroomingCopyFile();
                // A link in the log directory, which every job may write,
                // is not followed.
                if (copyFile(work.c_str(), copy.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW, 0666) == -1)
                    ulog(MSG_CANNOT_COPY, kPrefix, work.c_str(), copy.c_str());
                ulog(MSG_TOTAL_GROOMED_FOR_SET, count, ctx.groomSet.c_str());
            } else if (options & protocol::kGroomDelete) {
                groom::MigrateLog(work.c_str());
                ulog(MSG_TOTAL_DELETED, count);
            }
        }
    }
    ctx.groomRecord.clear();
    backupState().grooming = false;
    if (!work.empty()) ::unlink(work.c_str());
    return result;
}

}  // namespace

void stopWatchdog() {
    transport::armAlarm(0, 1);
    backupState().watchdog = false;
    platform::clearPendingSignal(SIGALRM);
}

void waitQueueEmpty(const JobContext& ctx) {
    // Polls once a second; the sender's release of the last slot ends the
    // wait at once.
    while (queuedCount() != 0) transport::scaledSleep(1, ctx.jobSettings.divisor());
}

Outcome startbackup(JobContext& ctx, int jobSocket, const std::string& sourcePath) {
    BackupState& b = backupState();
    b.sourceLength = sourcePath.size();
    b.restartFound = false;
    b.watchdog = (ctx.optionFlags() & protocol::options_layout::kWatchDog) != 0;
    b.timeDivisor = ctx.jobSettings.divisor();
    b.grooming = !ctx.groomRecord.empty();
    b.oldSelection = decodeOldSelection(ctx.request);

    // In place before the fork: the sender may signal at once.
    b.spanTapeReported = 0;
    listenForSpanTape();
    if (b.hooks.onChildSignal) platform::deferSignal(SIGCHLD, b.hooks.onChildSignal);

    pid_t self = ::getpid();
    pid_t pid = ::fork();
    if (pid < 0) {
        ulog(MSG_FAILED_FORK_JOB_ABORT, kPrefix, errText());
        return Outcome::jobOver();
    }
    if (pid == 0) runSender(ctx, jobSocket, self);
    setSenderPid(pid);
    markSegmentForRemoval();  // both processes are attached
    if (b.hooks.setChild) b.hooks.setChild(pid);
    if (b.watchdog) installWatchdog();
    b.dirDepth = 0;

    struct stat st;
    if (::stat(sourcePath.c_str(), &st) != 0) {
        ulog(MSG_FAILED_GET_ATTRIBUTES_STAT, kPrefix, sourcePath.c_str(), errText());
        return reportEntry(ctx, protocol::code::kNoDir, "");
    }
    struct stat sourceStat = st;
    b.rootDev = st.st_dev;
    bool newServer = ctx.serverVersion >= protocol::kNewServerVersion;
    if (newServer) {
        Outcome r = sendAttributes(ctx, st, "", 17, sourcePath);
        if (r.isJobOver()) {
            ulog(MSG_FAILED_SEND_ATTRIBUTES, kPrefix, sourcePath.c_str());
            return r;
        }
        if (b.grooming) {
            wire::ByteReader in(std::span<const uint8_t>(ctx.groomRecord.data(), ctx.groomRecord.size()));
            protocol::GroomingRecord record = protocol::decodeGroomingRecord(in);
            wire::ByteReader tapeIn(std::span<const uint8_t>(ctx.tapeRecord.data(), ctx.tapeRecord.size()));
            protocol::TapeRecord tape;
            (void)protocol::decodeTapeRecord(tapeIn, tape);  // always whole: 63 bytes kept
            if (groom::BeginGrooming(ctx.paths.logDir.c_str(), ctx.groomSet.c_str(), record, tape) != 0)
                ulog(MSG_FAILED_BEGINGROOMING, kPrefix);
            if (!restartPending(ctx)) {
                int g = groom::RecordGrooming(sourcePath.c_str(), st);
                if (g != 0) ulog(MSG_FAILED_RECORD_GROOMING_RET, kPrefix, sourcePath.c_str(), g);
            }
        }
    }
    b.ancestors.clear();
    b.ancestors.push(st.st_dev, st.st_ino);
    int mode = newServer ? int(filter::DirVerdictOf(b.filter, sourcePath)) : 2;
    bool timesKept = false;
    Outcome result = ws_backup(ctx, sourcePath, mode, sourceStat, &timesKept);
    if (ctx.jobSettings.resetAccessTime && !timesKept && setFileTimes(sourcePath, sourceStat) != 0)
        ulog(MSG_FAILED_SET_TIME, kPrefix, sourcePath.c_str(), errText());
    b.ancestors.pop();
    if (!b.grooming) return result;
    endGrooming();
    return sendGroomingReport(ctx, result);
}

}  // namespace tavik::backup
