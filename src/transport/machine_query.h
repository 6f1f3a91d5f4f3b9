// The UDP machine query: the server sends an 8-byte datagram with command 13
// and gets back a 1036-byte reply with the system's name, release, version
// and hardware name in four 257-byte fields (16-bit fields big-endian).
#pragma once

#include <array>
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

// Serves one datagram waiting on `udpSocket`: 0 when it was answered or
// ignored, -1 when receiving or answering failed. Logs with "(AskMachine) ".
int AskMachine(int udpSocket);

}  // namespace tavik::transport
