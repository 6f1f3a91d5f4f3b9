#include "platform/signals.h"

#include <cerrno>

namespace tavik::platform {
namespace {

volatile sig_atomic_t gPending[NSIG];
// Run in normal context only (dispatchPendingSignals), never by a handler.
SignalAction gActions[NSIG];
volatile sig_atomic_t gCounts[NSIG];

void recordSignal(int sig) {
    if (sig > 0 && sig < NSIG) gPending[sig] = 1;
}

void countDelivery(int sig) {
    if (sig > 0 && sig < NSIG) gCounts[sig] = gCounts[sig] + 1;
}

bool install(int sig, void (*handler)(int), int flags) {
    struct sigaction sa {};
    sa.sa_handler = handler;
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = flags;  // never SA_RESTART
    return sigaction(sig, &sa, nullptr) == 0;
}

}  // namespace

bool installHandler(int sig, SignalHandler handler, HandlerMode mode) {
    return install(sig, handler, mode == HandlerMode::OneShot ? SA_RESETHAND : 0);
}

bool ignoreSignal(int sig) { return install(sig, SIG_IGN, 0); }
bool defaultSignal(int sig) { return install(sig, SIG_DFL, 0); }

void interruptOnly(int) {}

bool countSignal(int sig, HandlerMode mode) {
    if (sig <= 0 || sig >= NSIG) return false;
    return installHandler(sig, countDelivery, mode);
}

long signalCount(int sig) { return sig > 0 && sig < NSIG ? long(gCounts[sig]) : 0; }

void resetSignalCount(int sig) {
    if (sig > 0 && sig < NSIG) gCounts[sig] = 0;
}

bool deferSignal(int sig, SignalAction action) {
    if (sig <= 0 || sig >= NSIG) return false;
    gActions[sig] = std::move(action);
    return install(sig, recordSignal, 0);
}

bool signalPending(int sig) { return sig > 0 && sig < NSIG && gPending[sig]; }

void clearPendingSignal(int sig) {
    if (sig > 0 && sig < NSIG) gPending[sig] = 0;
}

void dispatchPendingSignals() {
    int savedErrno = errno;
    for (int sig = 1; sig < NSIG; ++sig) {
        if (!gPending[sig]) continue;
        gPending[sig] = 0;
        // A copy: an action may defer the signal anew while it runs.
        if (SignalAction action = gActions[sig]) action(sig);
    }
    errno = savedErrno;
}

SignalBlock::SignalBlock(int sig) {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, sig);
    sigprocmask(SIG_BLOCK, &set, &old_);
}

SignalBlock::~SignalBlock() { sigprocmask(SIG_SETMASK, &old_, nullptr); }

}  // namespace tavik::platform

namespace tavik::platform {

SavedDisposition::SavedDisposition(int sig) : sig_(sig) {
    saved_ = sigaction(sig, nullptr, &old_) == 0;
}

SavedDisposition::~SavedDisposition() {
    if (saved_) sigaction(sig_, &old_, nullptr);
}

}  // namespace tavik::platform
