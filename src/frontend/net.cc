#include "frontend/net.h"

#include <arpa/inet.h>
#include <netdb.h>

#include <cstdlib>
#include <cstring>

namespace tavik::frontend {

std::optional<HostPort> parseHostPort(const std::string& text, uint16_t defaultPort) {
    HostPort out;
    out.port = defaultPort;
    size_t colon = text.rfind(':');
    out.host = text.substr(0, colon);
    if (colon != std::string::npos) {
        std::string port = text.substr(colon + 1);
        if (port.empty() || port.size() > 5 || port.find_first_not_of("0123456789") != std::string::npos)
            return std::nullopt;
        long value = std::strtol(port.c_str(), nullptr, 10);
        if (value < 1 || value > 65535) return std::nullopt;
        out.port = uint16_t(value);
    }
    if (out.host.empty()) return std::nullopt;
    return out;
}

bool splitTarget(const std::string& text, std::string& host, std::string& path) {
    size_t at = text.find(":/");
    if (at == std::string::npos || at == 0) return false;
    host = text.substr(0, at);
    path = text.substr(at + 1);
    return true;
}

std::optional<sockaddr_in> resolveIpv4(const std::string& host, uint16_t port, std::string& error) {
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(port);
    if (inet_pton(AF_INET, host.c_str(), &addr.sin_addr) == 1) return addr;
    addrinfo hints{};
    hints.ai_family = AF_INET;
    addrinfo* found = nullptr;
    int rc = getaddrinfo(host.c_str(), nullptr, &hints, &found);
    if (rc != 0 || !found) {
        error = "cannot resolve " + host + ": " + gai_strerror(rc);
        return std::nullopt;
    }
    addr.sin_addr = reinterpret_cast<sockaddr_in*>(found->ai_addr)->sin_addr;
    freeaddrinfo(found);
    return addr;
}

}  // namespace tavik::frontend
