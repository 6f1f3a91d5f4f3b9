#include "backup/span_tape.h"

#include <csignal>

#include "log/ulog.h"
#include "platform/signals.h"

namespace tavik::backup {

void listenForSpanTape() {
    platform::resetSignalCount(SIGUSR1);
    platform::countSignal(SIGUSR1);
}

bool spanTapeAsleep() { return platform::signalCount(SIGUSR1) % 2 != 0; }

void reportSpanTape(long& reported) {
    const long received = platform::signalCount(SIGUSR1);
    while (reported < received) {
        ++reported;
        if (!logVerbose()) continue;
        // Odd signals put the process to sleep, even ones wake it.
        ulogText(reported % 2 ? "(span_tape_sleep) Received SIGUSR1 from child process"
                              : "(span_tape_wake) Received SIGUSR1 from child process");
    }
}

}  // namespace tavik::backup
