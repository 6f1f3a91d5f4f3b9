// What became of one step of a job: the result type of the agent's internals.
//
// It keeps apart the two kinds of failure that callers treat apart:
// - entryFailed(): one entry (a file, a directory, a name) could not be
//   handled. It has been reported (logged, its status packet queued or its
//   answer sent) and the job goes on with the next entry.
// - jobOver(): the connection, the packet queue or the IPC broke, or the
//   front-end ended the job. The caller stops at once and passes it up; the
//   job process then ends through cleanup.
// A third kind is no result at all: a broken invariant (a state the code
// rules out) stops the process loudly through invariantBroken (log/ulog.h).
//
// The protocol's own conventions (0 or -1, 100, status bytes) are made from
// an Outcome only where the wire or an older interface needs them.
#pragma once

#include <cstdint>

namespace tavik {

class [[nodiscard]] Outcome {
public:
    constexpr Outcome() = default;  // done
    static constexpr Outcome done() { return Outcome(Kind::kDone); }
    static constexpr Outcome entryFailed() { return Outcome(Kind::kEntryFailed); }
    static constexpr Outcome jobOver() { return Outcome(Kind::kJobOver); }
    // 0 goes on, anything else ends the job: the queue's and the packet
    // exchange's integer results.
    static constexpr Outcome jobOverUnless(int zero) { return zero == 0 ? done() : jobOver(); }

    constexpr bool isDone() const { return kind_ == Kind::kDone; }
    constexpr bool isEntryFailed() const { return kind_ == Kind::kEntryFailed; }
    constexpr bool isJobOver() const { return kind_ == Kind::kJobOver; }

    // 0 while the job goes on (an entry that failed was reported), -1 once
    // it is over.
    constexpr int jobStatus() const { return isJobOver() ? -1 : 0; }

    constexpr bool operator==(const Outcome&) const = default;

private:
    enum class Kind : uint8_t { kDone, kEntryFailed, kJobOver };
    constexpr explicit Outcome(Kind kind) : kind_(kind) {}
    Kind kind_ = Kind::kDone;
};

}  // namespace tavik
