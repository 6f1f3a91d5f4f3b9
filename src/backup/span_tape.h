// The backup process's side of a tape change: the sender (its child) sends
// SIGUSR1 when the server stops reading and again when it reads again; the
// backup process sleeps in between.
#pragma once

#include <csignal>

namespace tavik::backup {

// Set by the backup process's SIGUSR1 handlers while the server changes tapes.
extern volatile sig_atomic_t gBackupAsleep;
// The backup process's SIGUSR1 handler: each signal flips between running
// and asleep (the alternating span_tape_sleep / span_tape_wake).
void spanTapeSignal(int sig);
// Writes the verbose lines of the SIGUSR1 transitions seen since the last
// call (handlers only count them).
void reportSpanTape();

}  // namespace tavik::backup
