// The UDP machine query served on the agent's port: each datagram answered
// with the reply of protocol/machine_query.h, at a bounded rate per source.
#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>

#include "protocol/machine_query.h"

namespace tavik::transport {

// At most kQueryBurst answers at once to one address, then kQueryRate a
// second: an 8-byte query draws a 1036-byte answer, and a forged source
// address must not turn the agent into an amplifier. Addresses are kept in
// a small fixed table (the least recently seen gives way). Refused queries
// are counted and logged at most once a minute.
class QueryRateLimit {
public:
    static constexpr double kQueryRate = 2.0;
    static constexpr double kQueryBurst = 10.0;
    static constexpr size_t kTableSize = 256;
    static constexpr size_t kProbe = 8;
    using Clock = std::chrono::steady_clock;

    // Whether a query from `address` (IPv4, network byte order) is
    // answered at `now`.
    bool allow(uint32_t address, Clock::time_point now);
    // The refusals since the last report when one is due at `now` (a
    // minute after the last), else 0.
    uint64_t dueReport(Clock::time_point now);

private:
    struct Bucket {
        uint32_t address = 0;
        bool used = false;
        double tokens = 0;
        Clock::time_point last{};
    };
    std::array<Bucket, kTableSize> buckets_{};
    uint64_t refused_ = 0;
    Clock::time_point lastReport_{};
    bool reported_ = false;
};

// Serves one datagram waiting on `udpSocket`: 0 when it was answered,
// refused by `limit` or ignored, -1 when receiving or answering failed.
// Logs with "(AskMachine) ".
int AskMachine(int udpSocket, QueryRateLimit& limit);

}  // namespace tavik::transport
