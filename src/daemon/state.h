// The daemon's process-wide state, in three named records held by one
// object (state.cc).
//
// The daemon fills them at start-up. Settings and Paths are read-only once
// the daemon serves; the layers below never include this header: the
// daemon hands each what it uses (publishSettings: the log, the transport)
// and makes each job's context from them (prepareJob), which the job then
// changes on its own. Listener is owned by the listener loop and read by
// cleanup and the job process (the caller's name, the sockets to close).
#pragma once

#include <cstdint>
#include <string>

#include "request/job_context.h"

namespace tavik {

struct JobProcess;

inline constexpr uint16_t kDefaultTcpPort = 6050;
inline constexpr int kMinSocketBufferSize = 4096;
inline constexpr int kMaxSocketBufferSize = 65535;
// The longest home directory, including its final "/".
inline constexpr size_t kMaxHomeDir = 255;

struct Settings {
    bool verbose = false;
    int ioBufferSize = kDefaultIoBufferSize;
    uint16_t ioBufferCount = kDefaultIoBufferCount;
    bool skipNfs = true;
    bool resetAccessTime = true;
    int socketBufferSize = 0;  // 0: system's size; -1: the largest granted
    bool singleUser = false;
    int reconnectKB = 0;
    int reconnectFiles = 0;
    uint16_t waitSleepMs = 0;  // becomes 1 at start-up when -c gave none
    bool boundedWait = false;
    bool noCrossFs = false;
    uint16_t tcpPort = kDefaultTcpPort;
    bool checkLocks = false;
    bool followLinks = false;
    uint16_t ackInterval = 0;
    bool blockingIo = true;

    // Which options were present, for the confirmation lines.
    bool ioBufferSizeGiven = false;
    bool ioBufferCountGiven = false;
    bool socketBufferSizeGiven = false;
    bool tcpPortGiven = false;

    // Callers served at once (limits.cntl): connections waiting for
    // admission, and admitted jobs.
    int maxWaiting = 256;
    int maxJobs = 256;

    // Nine tenths of ioBufferCount, fixed when the packet queue is sized.
    int sleepScale = 0;

    // Test support only: every long time-out (the 120 s request receive,
    // the 180 s acknowledgement wait, the queue waits, the 30 s watchdog) is
    // divided by this. Set from the environment variable TAVIK_TIME_DIVISOR
    // at start-up; 1 in production.
    int timeDivisor = 1;
    // The divisor to divide by: at least 1.
    int divisor() const { return timeDivisor > 0 ? timeDivisor : 1; }
};

struct Paths {
    std::string homeDir;           // ends in "/"; at most kMaxHomeDir characters
    std::string logDir;            // homeDir + "LOG"
    std::string cntlPath;          // homeDir + "tvk.cntl"
    std::string trustPath;         // homeDir + "trust.cntl"
    std::string limitsPath;        // homeDir + "limits.cntl"
    std::string followMarkerPath;  // homeDir + "follow.symlink"
    std::string logPath;           // logDir + "/tvk.log"
    std::string oldLogPath;        // logPath + ".old"
    std::string ipcPath;           // logDir + "/tvk.ipc"
    std::string pidPath;           // logDir + "/tavikd.pid"

    // Derives every path from homeDir.
    void deriveFrom(const std::string& home);
};

struct Listener {
    int udpSocket = -1;
    int listenSocket = -1;  // -1 in a job process: how cleanup tells them apart
    int jobSocket = -1;
    int jobChild = -1;  // in a job process: the child its SIGCHLD action waits for
    JobProcess* job = nullptr;  // in a job process: its job, whose queue cleanup releases
    char peerAddress[16] = {};
    bool peerKnown = false;
    std::string peerName;

    // The caller as messages show it: the host name when known, else the address.
    const char* caller() const { return peerKnown ? peerName.c_str() : peerAddress; }
};

// Hands the settings and files to the layers below that keep their own
// copy: the log (its files, verbosity) and the transport (renewal, socket
// buffers, the time divisor, the caller). Start-up calls it once they are
// final; so do tests that change them.
void publishSettings();

// Prepares `ctx` for a new connection, from the agent's settings and files.
void prepareJob(JobContext& ctx);

// Read-only once the agent has started.
const Settings& settings();
// The one way to change them: the start-up (the options, the queue's
// sizing) and tests.
Settings& startupSettings();
Paths& paths();
Listener& listener();

}  // namespace tavik
