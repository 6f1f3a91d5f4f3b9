#include "daemon/job_session.h"

#include <unistd.h>

#include <cstdio>

#include "backup/estimate.h"
#include "backup/stream.h"
#include "daemon/control_files.h"
#include "daemon/job_phases.h"
#include "daemon/login.h"
#include "daemon/state.h"
#include "daemon/trust.h"
#include "log/ulog.h"
#include "platform/safe_path.h"
#include "request/channel.h"
#include "request/commands.h"
#include "transport/endpoints.h"
#include "transport/packet.h"

namespace tavik {
namespace {


// Sends a status code before the job starts; a failed send has been logged
// and changes nothing: the job ends either way.
void answer(Channel& channel, const JobContext& ctx, int8_t code) {
    if (channel.sendCode(code, ctx) != 0) return;
}

bool switchIdentity(const JobContext& ctx) {
    if (!ctx.jobUser.present) {
        ulog("%sNo user to switch to", "(chuid) ");
        return false;
    }
    return chuid(ctx.jobUser.name.c_str(), ctx.jobUser.uid, ctx.jobUser.gid) == 0;
}

void logStartLine(const JobContext& ctx) {
    const char* format = MSG_START_COMPARE_JOB_FROM_DESTINATION;
    if (ctx.request.opMode() == protocol::kOpBackup) format = MSG_START_BACKUP_JOB_FROM_SOURCE;
    if (ctx.request.opMode() == protocol::kOpRestore) format = MSG_START_RESTORE_JOB_FROM_DESTINATION;
    // Built first and written as text, so a "%" in the path stays as it is.
    char line[kLogBufferSize];
    std::snprintf(line, sizeof line, format, "", listener().caller(), ctx.request.loginID().c_str(),
                  ctx.jobRoot.c_str());
    ulogText(line);
}

// Enters the job's root. A restore that runs as root may be writing where
// other users can: its root is reached without following their links.
int changeToRoot(Channel& channel, const JobContext& ctx, bool safely = false) {
    bool entered = false;
    if (safely) {
        platform::UniqueFd root = platform::openDirectory(ctx.jobRoot);
        entered = root && ::fchdir(root.get()) == 0;
    } else {
        entered = ::chdir(ctx.jobRoot.c_str()) == 0;
    }
    if (!entered) {
        ulog(MSG_FAILED_CHANGE_DIRECTORY_JOB_ABORT, "", ctx.jobRoot.c_str(), errText());
        answer(channel, ctx, protocol::code::kPathFailed);
        return -1;
    }
    return 0;
}

// The checks before code 4; 0 when the job may go on.
int prepare(Channel& channel, JobContext& ctx) {
    switch (ctx.request.opMode()) {
        case protocol::kOpBackup:
            // tvk.cntl is the administrator's list: it is read, and every
            // entry resolved to the directory it names, with the agent's own
            // rights before the switch. As the login, a file the login may
            // not read, or an entry on a path it may not search, would
            // protect nothing, though the directory may well be reachable
            // to it by another name. A failure is logged there, and what was
            // read of the file applies.
            dir_cntl(paths().cntlPath.c_str(), ctx.protectedDirs);
            if (!identitySwitchExempt(ctx, false) && !switchIdentity(ctx)) {
                answer(channel, ctx, protocol::code::kIdentityFailed);
                return -1;
            }
            if (::access(ctx.jobRoot.c_str(), R_OK | X_OK) != 0) {
                ulog(MSG_FAILED_ACCESS_DIRECTORY, "", ctx.jobRoot.c_str(), errText());
                answer(channel, ctx, protocol::code::kNoAccess);
                return -1;
            }
            // The root is examined as the login: where its name leads for
            // the login is where the backup will read.
            if (isProtected(ctx.jobRoot, ctx.protectedDirs) != 0) {
                ulog(MSG_PROTECTED_DIRECTORY, "", ctx.jobRoot.c_str(), paths().cntlPath.c_str());
                answer(channel, ctx, protocol::code::kProtectedDir);
                return -1;
            }
            return 0;  // a backup keeps its working directory
        case protocol::kOpRestore: {
            // A login that is not trusted restores wholly under its own
            // identity; a trusted one's restore runs as the agent's user and
            // only the destination is made as the login.
            int r = !ctx.trusted && !switchIdentity(ctx) ? 1 : prepareRestoreRoot(ctx);
            if (r != 0) {
                bool identity = ctx.serverVersion >= protocol::kNewServerVersion && r == 1;
                answer(channel, ctx, identity ? protocol::code::kIdentityFailed : protocol::code::kPathFailed);
                return -1;
            }
            return changeToRoot(channel, ctx, true);
        }
        case protocol::kOpCompare:
            if (!identitySwitchExempt(ctx, false) && !switchIdentity(ctx)) {
                answer(channel, ctx, protocol::code::kIdentityFailed);
                return -1;
            }
            ctx.jobSettings.followLinks = ctx.request.follow() != 0;
            if (ctx.jobSettings.followLinks) ulogText(MSG_SYMBOLIC_LINKS_FOLLOWED);
            return changeToRoot(channel, ctx);
        default:
            // A job of its command exchange alone (an estimate, say) keeps
            // the agent's identity only for a trusted login: another's
            // estimate must not count what the login may not read.
            if (!ctx.trusted && !switchIdentity(ctx)) {
                answer(channel, ctx, protocol::code::kIdentityFailed);
                return -1;
            }
            return changeToRoot(channel, ctx);
    }
}

}  // namespace

bool identitySwitchExempt(const JobContext& ctx, bool browse) {
    if (settings().singleUser) return true;
    return !browse && ctx.keepIdentity;
}

Outcome serveJob(JobProcess& job) {
    JobContext& ctx = job.ctx;
    Listener& l = listener();
    Channel channel(ctx.link, l.jobSocket);
    decideTrust(ctx);

    if (ctx.request.opMode() == protocol::kOpBrowse) {
        if (settings().verbose) ulogText("enter Browser()...");
        if (!identitySwitchExempt(ctx, true) && !switchIdentity(ctx)) {
            ::close(l.jobSocket);
            l.jobSocket = -1;
            return Outcome::jobOver();
        }
        transport::keepAlive(l.jobSocket);
        Outcome browsed = browsePhase(l.jobSocket, ctx);
        ::close(l.jobSocket);
        l.jobSocket = -1;
        return browsed;
    }

    logStartLine(ctx);
    if (ctx.jobRoot.empty() || ctx.jobRoot[0] != '/') {
        answer(channel, ctx, protocol::code::kNotAbsolute);
        ulog(MSG_INVALID_UNIX_PATH_JOB_ABORT, "");
        return Outcome::jobOver();
    }
    if (ctx.jobRoot.back() != '/') ctx.jobRoot += '/';

    if (prepare(channel, ctx) != 0) return Outcome::jobOver();
    transport::keepAlive(l.jobSocket);
    transport::setReceiveTimeout(l.jobSocket, kCommandWait, ctx.jobSettings.divisor());
    if (channel.sendCode(protocol::code::kReady, ctx) != 0) return Outcome::jobOver();

    if (ctx.request.opMode() == protocol::kOpBackup && GetPattern(channel, ctx) != 0) {
        ulog(MSG_FAILED_RECEIVE_PATTERNS_FILTER, "");
        return Outcome::jobOver();
    }
    CommandHandlers handlers{.estimate = [&job](Channel& c, JobContext&, std::span<const uint8_t> payload) {
                                 return backup::estimateCommand(c, job.backup, payload);
                             },
                             .dbFileReceived = backup::dumpRawList};
    int r = GetCommands(channel, ctx, handlers);
    if (r == transport::kFailed) {
        ulog(MSG_FAILED_RECEIVE_STARTING_SIGNAL, "", "");
        return Outcome::jobOver();
    }
    if (r != 0) return Outcome::jobOver();

    transport::setReceiveTimeout(l.jobSocket, kDataWait, ctx.jobSettings.divisor());
    switch (ctx.request.opMode()) {
        case protocol::kOpBackup: return backupPhase(channel, job.backup);
        case protocol::kOpRestore: return restorePhase(channel, ctx);
        case protocol::kOpCompare: return comparePhase(channel, ctx);
        default: return Outcome::done();  // the command exchange was the whole job
    }
}

}  // namespace tavik
