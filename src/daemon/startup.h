// Start-up of the daemon: options, paths, banner, log and registry files,
// the settings lines, the packet-queue probe, both endpoints, and detaching.
//
// Returns only in the detached daemon, with the endpoints open in
// listener(); every failure ends the process with the status the
// administrator's scripts expect (1 for usage and most failures, 255 when
// the log directory cannot be made). The launching process exits 0 only after
// both endpoints exist and the pid file names the daemon.
#pragma once

namespace tavik {

void startDaemon(int argc, char* argv[]);

// Detaches from the terminal. Returns 0 in the daemon, -1 on failure; the
// launching process writes the daemon's pid file and exits 0.
int daemonize();

}  // namespace tavik
