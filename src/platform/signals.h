// The one place that installs signal handlers.
//
// Handlers are installed with sigaction and never with SA_RESTART, so a
// blocking call that a signal interrupts returns EINTR to its caller, as the
// agent's time-outs and wake-ups expect. OneShot handlers fall back to the
// default action after one delivery; Persistent ones stay installed, which is
// what a handler that "installs itself again" amounts to, without the window
// in which a second signal would find the default action.
//
// Deferred signals: the handler only records the signal (async-signal-safe);
// the work runs later, in normal context, when the process next calls
// dispatchPendingSignals(). Every place that sees EINTR, and every long loop,
// calls it. This is how SIGTERM reaches cleanup without running stdio,
// malloc or the log inside a handler.
#pragma once

#include <csignal>
#include <functional>

namespace tavik::platform {

enum class HandlerMode { Persistent, OneShot };

using SignalHandler = void (*)(int);

// Installs `handler` for `sig` with no SA_RESTART. Returns false on failure.
bool installHandler(int sig, SignalHandler handler, HandlerMode mode = HandlerMode::Persistent);
bool ignoreSignal(int sig);
bool defaultSignal(int sig);

// A handler that does nothing but interrupt the call in progress (alarms).
void interruptOnly(int sig);

// Counted signals: the handler only adds one to the signal's count, and the
// code that waits compares counts in normal context (a stalled send's alarm,
// the tape-change signals between the sender and the backup process).
bool countSignal(int sig, HandlerMode mode = HandlerMode::Persistent);
// Deliveries of `sig` since its count was last reset.
long signalCount(int sig);
void resetSignalCount(int sig);

// Records `sig` when it arrives; `action` runs from dispatchPendingSignals(),
// in normal context, so it may hold the job's objects it acts on.
using SignalAction = std::function<void(int)>;
bool deferSignal(int sig, SignalAction action);
bool signalPending(int sig);
// Runs the action of every recorded deferred signal once, clearing it.
void dispatchPendingSignals();
// Forgets a recorded signal without running its action.
void clearPendingSignal(int sig);

// Blocks the given signal for the lifetime of the object.
class SignalBlock {
public:
    explicit SignalBlock(int sig);
    ~SignalBlock();
    SignalBlock(const SignalBlock&) = delete;
    SignalBlock& operator=(const SignalBlock&) = delete;
    // The mask in force before the block, for sigsuspend.
    const sigset_t& previousMask() const { return old_; }

private:
    sigset_t old_;
};

}  // namespace tavik::platform

namespace tavik::platform {

// Remembers the disposition of `sig` and puts it back when it goes away
// (a routine that installs a handler of its own for the time it runs).
class SavedDisposition {
public:
    explicit SavedDisposition(int sig);
    ~SavedDisposition();
    SavedDisposition(const SavedDisposition&) = delete;
    SavedDisposition& operator=(const SavedDisposition&) = delete;

private:
    int sig_;
    struct sigaction old_ {};
    bool saved_ = false;
};

}  // namespace tavik::platform
