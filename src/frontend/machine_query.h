// The front-end's side of the UDP machine query: send the 8-byte query to an
// agent and decode its 1036-byte reply.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "protocol/machine_query.h"

namespace tavik::frontend {

// Sends a query with protocol version `version` to host:port (IPv4 dotted
// address or name) and waits up to timeoutMs for the reply. On failure
// returns nullopt and describes the failure in `error`.
std::optional<protocol::MachineInfo> queryMachine(const std::string& host, uint16_t port, int timeoutMs, int8_t version,
                                        std::string& error);

}  // namespace tavik::frontend
