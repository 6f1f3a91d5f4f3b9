// The backup process's side of a tape change: the sender (its child) sends
// SIGUSR1 when the server stops reading and again when it reads again; the
// backup process sleeps in between. The handler only counts the signals
// (platform/signals): odd counts mean asleep.
#pragma once

namespace tavik::backup {

// Starts counting SIGUSR1 from zero: awake. In place before the sender is
// forked, since it may signal at once.
void listenForSpanTape();
// Whether the server is changing tapes: an odd number of SIGUSR1 so far.
bool spanTapeAsleep();
// Writes the verbose lines of the SIGUSR1 transitions seen since the last
// call (`reported` counts those already written).
void reportSpanTape(long& reported);

}  // namespace tavik::backup
