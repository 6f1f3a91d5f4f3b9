#include "daemon/state.h"

namespace tavik {
namespace {

Settings gSettings;
Paths gPaths;
Listener gListener;

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

const Settings& settings() { return gSettings; }
Settings& startupSettings() { return gSettings; }
Paths& paths() { return gPaths; }
Listener& listener() { return gListener; }

}  // namespace tavik
