// Small network helpers of the front-end: resolving "HOST[:PORT]" and IPv4
// addresses.
#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <optional>
#include <string>

namespace tavik::frontend {

inline constexpr uint16_t kDefaultPort = 6050;

struct HostPort {
    std::string host;
    uint16_t port = kDefaultPort;
};

// "host", "host:port"; nullopt when the port is not a number in 1..65535.
std::optional<HostPort> parseHostPort(const std::string& text, uint16_t defaultPort = kDefaultPort);

// "HOST:/path": the host and the absolute path after it. False when there is
// no host or the path does not begin with "/".
bool splitTarget(const std::string& text, std::string& host, std::string& path);

// The IPv4 address of a host name or dotted address.
std::optional<sockaddr_in> resolveIpv4(const std::string& host, uint16_t port, std::string& error);

}  // namespace tavik::frontend
