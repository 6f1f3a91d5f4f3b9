// The UDP machine query: the front-end sends an 8-byte datagram with
// command 13 and gets back a 1036-byte reply with the system's name,
// release, version and hardware name in four 257-byte fields (16-bit
// fields big-endian).
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "platform/uname.h"

namespace tavik::protocol {

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

struct MachineInfo {
    uint8_t command = 0;   // 13, or 18 when the agent could not identify itself
    int8_t version = 0;    // the version the agent echoed (at most 22)
    uint16_t type = 0;     // 50
    uint16_t length = 0;   // 1028
    std::string sysname, release, version_text, machine;
};

// Decodes a reply datagram; nullopt when it is not a whole 1036-byte reply.
std::optional<MachineInfo> decodeMachineReply(const uint8_t* data, size_t size);

// Decodes a reply datagram; nullopt when it is not a whole 1036-byte reply.
std::optional<MachineInfo> decodeMachineReply(const uint8_t* data, size_t size);

}  // namespace tavik::protocol
