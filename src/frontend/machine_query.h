// The front-end's side of the UDP machine query: send the 8-byte query to an
// agent and decode its 1036-byte reply.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace tavik::frontend {

struct MachineInfo {
    uint8_t command = 0;   // 13, or 18 when the agent could not identify itself
    int8_t version = 0;    // the version the agent echoed (at most 22)
    uint16_t type = 0;     // 50
    uint16_t length = 0;   // 1028
    std::string sysname, release, version_text, machine;
};

// Decodes a reply datagram; nullopt when it is not a whole 1036-byte reply.
std::optional<MachineInfo> decodeMachineReply(const uint8_t* data, size_t size);

// Sends a query with protocol version `version` to host:port (IPv4 dotted
// address or name) and waits up to timeoutMs for the reply. On failure
// returns nullopt and describes the failure in `error`.
std::optional<MachineInfo> queryMachine(const std::string& host, uint16_t port, int timeoutMs, int8_t version,
                                        std::string& error);

}  // namespace tavik::frontend
