#include "daemon/state.h"

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

const Settings& settings() { return gDaemon.settings; }
Settings& startupSettings() { return gDaemon.settings; }
Paths& paths() { return gDaemon.paths; }
Listener& listener() { return gDaemon.listener; }

}  // namespace tavik
