#include "backup/span_tape.h"

#include "daemon/state.h"
#include "log/ulog.h"

namespace tavik::backup {

volatile sig_atomic_t gBackupAsleep = 0;
namespace {
volatile sig_atomic_t gSpanTapeSignals = 0;  // SIGUSR1 received
sig_atomic_t gSpanTapeReported = 0;           // of which logged
}  // namespace

void spanTapeSignal(int) {
    gBackupAsleep = !gBackupAsleep;
    gSpanTapeSignals = gSpanTapeSignals + 1;
}

void reportSpanTape() {
    while (gSpanTapeReported < gSpanTapeSignals) {
        ++gSpanTapeReported;
        if (!settings().verbose) continue;
        // Odd signals put the process to sleep, even ones wake it.
        ulogText(gSpanTapeReported % 2 ? "(span_tape_sleep) Received SIGUSR1 from child process"
                                       : "(span_tape_wake) Received SIGUSR1 from child process");
    }
}

}  // namespace tavik::backup
