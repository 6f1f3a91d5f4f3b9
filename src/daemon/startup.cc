#include "daemon/startup.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "backup/ipc_registry.h"
#include "backup/queue_size.h"
#include "daemon/cleanup.h"
#include "daemon/limits.h"
#include "daemon/options.h"
#include "daemon/state.h"
#include "log/ulog.h"
#include "platform/fd.h"
#include "platform/plain_file.h"
#include "platform/signals.h"
#include "platform/uname.h"
#include "transport/endpoints.h"

namespace tavik {
namespace {

constexpr int kVersionMajor = 3;
constexpr int kVersionMinor = 1;
constexpr char kVersionLetter = '0';
constexpr const char* kPlatformText = "UnixWare 1.1 (UNIX System V/386 R4.2)";

// Creates an empty file with mode 0666 when none exists. LOG/ is open to
// every login, so whatever is there is opened without following it.
int ensureFile(const std::string& path) {
    bool created = false;
    platform::UniqueFd fd = platform::openPlainFile(path.c_str(), O_WRONLY | O_CREAT, 0666, &created);
    if (!fd) {
        ulog(MSG_FAILED_CREATE, "", path.c_str(), errText());
        return -1;
    }
    if (created && fchmod(fd.get(), 0666) != 0) {
        ulog(MSG_FAILED_CHMOD, "", path.c_str(), errText());
        return -1;
    }
    return 0;
}

// The pid file is made afresh: whatever a login put under its name (a link
// to a file of root's, say) is removed, never written through.
void writePidFile(pid_t pid) {
    const std::string& path = paths().pidPath;
    unlink(path.c_str());
    platform::UniqueFd fd = platform::openPlainFile(path.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0644);
    if (!fd) {
        ulog(MSG_FAILED_CREATE, "", path.c_str(), errText());
        return;
    }
    std::string text = std::to_string(pid) + "\n";
    if (write(fd.get(), text.data(), text.size()) != ssize_t(text.size()))
        ulog(MSG_FAILED_WRITING, "", path.c_str(), errText());
}

// Makes LOG/ (or takes the one there): every job process appends to the
// files in it as its own login, so it is writable by all, and sticky so
// that no login can remove or replace the files of another or of root's.
// Anything but a real directory there is refused (errno ENOTDIR).
bool prepareLogDir(const std::string& dir) {
    if (mkdir(dir.c_str(), 01777) != 0 && errno != EEXIST) return false;
    platform::UniqueFd fd(open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!fd) {
        if (errno == ELOOP) errno = ENOTDIR;
        return false;
    }
    struct stat st;
    if (fstat(fd.get(), &st) != 0) return false;
    // A directory the administrator gave to another owner is left as it is.
    if (st.st_uid == geteuid() && (st.st_mode & 07777) != 01777 && fchmod(fd.get(), 01777) != 0) return false;
    return true;
}

// Test support: long time-outs divided by TAVIK_TIME_DIVISOR.
int timeDivisorFromEnvironment() {
    const char* text = getenv("TAVIK_TIME_DIVISOR");
    if (!text || !isDigits(text) || !*text) return 1;
    long value = strtol(text, nullptr, 10);
    return value >= 1 && value <= 1000000 ? int(value) : 1;
}

}  // namespace

int daemonize() {
    if (getppid() == 1) {
        writePidFile(getpid());
        return 0;
    }
    fflush(stdout);
    pid_t pid = fork();
    if (pid < 0) return -1;
    if (pid > 0) {
        writePidFile(pid);
        exit(0);
    }
    if (setsid() < 0) return -1;
    platform::ignoreSignal(SIGHUP);
    platform::ignoreSignal(SIGCHLD);
    if (chdir("/") != 0) return -1;
    umask(0);
    return 0;
}

void startDaemon(int argc, char* argv[]) {
    Settings& s = startupSettings();
    Paths& p = paths();
    Listener& l = listener();

    char cwd[4096];
    auto home = programDirectory(argv[0], getcwd(cwd, sizeof cwd));
    if (!home) {
        printf("The program's directory is longer than %zu characters: %s\n", kMaxHomeDir, argv[0]);
        exit(1);
    }
    platform::deferSignal(SIGTERM, cleanup);
    // Every socket send says MSG_NOSIGNAL: SIGPIPE can only come from
    // standard output or the log, whose reader may go away; neither may cost
    // a process (the write fails, and is dropped or reported).
    platform::ignoreSignal(SIGPIPE);

    if (!parseOptions(argc, argv, s)) {
        fputs(usageText(argv[0]).c_str(), stdout);
        exit(1);
    }
    s.timeDivisor = timeDivisorFromEnvironment();
    printf(MSG_BANNER, kVersionMajor, kVersionMinor, kVersionLetter, "", kPlatformText);

    p.deriveFrom(*home);
    configureLog({.logPath = p.logPath, .oldLogPath = p.oldLogPath, .verbose = s.verbose});
    if (s.followLinks) {
        platform::UniqueFd marker(creat(p.followMarkerPath.c_str(), 0700));
        if (!marker) {
            printf(MSG_FAILED_CREATE, "", p.followMarkerPath.c_str(), errText());
            printf("\n");
        }
    } else {
        unlink(p.followMarkerPath.c_str());
    }
    if (!s.tcpPortGiven) s.tcpPort = kDefaultTcpPort;

    umask(0);
    if (!prepareLogDir(p.logDir)) {
        printf(MSG_FAILED_MAKE_DIRECTORY, "", p.logDir.c_str(), errText());
        printf("\n");
        exit(255);
    }
    ensureFile(p.oldLogPath);
    ensureFile(p.ipcPath);
    {
        platform::UniqueFd log = platform::openPlainFile(p.logPath.c_str(), O_WRONLY | O_APPEND | O_CREAT, 0666);
        if (!log)
            ulog(MSG_FAIED_OPEN, "", p.logPath.c_str(), errText());
        else if (fchmod(log.get(), 0666) != 0)
            ulog(MSG_FAILED_CHMOD, "", p.logPath.c_str(), errText());
    }

    platform::MachineName name;
    if (platform::nuname(name) != 0) ulog(MSG_FAILED_UNAME, "", errText());
    ulog(MSG_STARTED_ON, kVersionMajor, kVersionMinor, kVersionLetter, "", name.nodename, name.sysname,
         name.release, name.version, name.machine);
    logSettings(s);
    readLimits(p.limitsPath, s);

    if (backup::DecideShmBuf(s.ioBufferSize, s.ioBufferCount, s.sleepScale) != 0) exit(1);
    backup::ReclaimIPC(p.ipcPath, s.divisor());  // what jobs of an earlier daemon left behind
    publishSettings();

    l.listenSocket = l.jobSocket = -1;
    l.udpSocket = transport::udpOpen(s.tcpPort);
    if (l.udpSocket < 0) cleanup(0);
    uint16_t port = s.tcpPort;
    l.listenSocket = transport::tcpOpen(port);
    if (l.listenSocket < 0) cleanup(0);
    s.tcpPort = port;
    if (s.verbose) ulog("%s: listen on socket %d", "Tavik", int(port));

    if (daemonize() != 0) {
        ulog(MSG_FAILED_START_TAVIK, "");
        cleanup(0);
    }
}

}  // namespace tavik
