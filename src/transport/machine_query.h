// The UDP machine query: the server sends an 8-byte datagram with command 13
// and gets back a 1036-byte reply with the system's name, release, version
// and hardware name in four 257-byte fields (16-bit fields big-endian).
#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>

#include "platform/uname.h"

namespace tavik::transport {

inline constexpr size_t kQuerySize = 8;
inline constexpr size_t kReplySize = 1036;
inline constexpr uint8_t kMachineQuery = 13;
inline constexpr uint8_t kMachineQueryFailed = 18;
inline constexpr int8_t kMaxQueryVersion = 22;
inline constexpr uint16_t kReplyType = 50;
inline constexpr uint16_t kReplyPayload = 1028;

// Reply layout.
inline constexpr size_t kReplySysnameAt = 8;
inline constexpr size_t kReplyReleaseAt = 265;
inline constexpr size_t kReplyVersionAt = 522;
inline constexpr size_t kReplyMachineAt = 779;
static_assert(kReplyMachineAt + platform::kUnameFieldSize == kReplySize);

using MachineQuery = std::array<uint8_t, kQuerySize>;
using MachineReply = std::array<uint8_t, kReplySize>;

// Builds the reply to `query`. `name` is the identification, or nullptr when
// it could not be had (command byte 18, empty fields, bytes 6-7 echoed).
MachineReply buildMachineReply(const MachineQuery& query, const platform::MachineName* name);

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
