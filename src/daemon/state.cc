#include "daemon/state.h"

#include "log/ulog.h"
#include "transport/packet.h"

namespace tavik {
namespace {

// The daemon's one state object. The listener fills it at start-up; a job
// process inherits it at fork and from then on owns its private copy.
struct DaemonState {
    Settings settings;
    Paths paths;
    Listener listener;
};
DaemonState gDaemon;

}  // namespace

void Paths::deriveFrom(const std::string& home) {
    homeDir = home;
    logDir = homeDir + "LOG";
    cntlPath = homeDir + "tvk.cntl";
    trustPath = homeDir + "trust.cntl";
    limitsPath = homeDir + "limits.cntl";
    followMarkerPath = homeDir + "follow.symlink";
    logPath = logDir + "/tvk.log";
    oldLogPath = logPath + ".old";
    ipcPath = logDir + "/tvk.ipc";
    pidPath = logDir + "/tavikd.pid";
}

void publishSettings() {
    const Settings& s = gDaemon.settings;
    const Paths& p = gDaemon.paths;
    configureLog({.logPath = p.logPath, .oldLogPath = p.oldLogPath, .verbose = s.verbose});
}

void prepareJob(JobContext& ctx) {
    const Settings& s = gDaemon.settings;
    const Paths& p = gDaemon.paths;
    JobSettings agent{.followLinks = s.followLinks,
                      .skipNfs = s.skipNfs,
                      .resetAccessTime = s.resetAccessTime,
                      .noCrossFs = s.noCrossFs,
                      .ioBufferSize = s.ioBufferSize,
                      .ioBufferCount = s.ioBufferCount,
                      .sleepScale = s.sleepScale,
                      .waitSleepMs = s.waitSleepMs,
                      .boundedWait = s.boundedWait,
                      .checkLocks = s.checkLocks,
                      .reconnectKB = s.reconnectKB,
                      .reconnectFiles = s.reconnectFiles,
                      .timeDivisor = s.timeDivisor};
    prepareForConnection(ctx, agent, {.logDir = p.logDir, .ipcPath = p.ipcPath, .followMarkerPath = p.followMarkerPath},
                         s.ackInterval);
    ctx.link.settings = {.reconnectKB = s.reconnectKB,
                         .reconnectFiles = s.reconnectFiles,
                         .socketBufferSize = s.socketBufferSize,
                         .blockingIo = s.blockingIo,
                         .timeDivisor = s.timeDivisor,
                         .caller = gDaemon.listener.caller()};
}

const Settings& settings() { return gDaemon.settings; }
Settings& startupSettings() { return gDaemon.settings; }
Paths& paths() { return gDaemon.paths; }
Listener& listener() { return gDaemon.listener; }

}  // namespace tavik
