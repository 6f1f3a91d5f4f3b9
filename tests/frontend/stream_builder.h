// Backup streams for tests, built with the real codecs: packet headers from
// the transport's encoder, file headers from the attribute record encoder.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "transport/packet.h"

namespace tavik::test {

class StreamBuilder {
public:
    StreamBuilder& packet(int8_t code, const std::vector<uint8_t>& payload = {}, uint16_t value = 0,
                          uint8_t version = 0);
    // A file header: kind 17 source, 16 directory, 0 entry; mode gives the type.
    StreamBuilder& header(const std::string& name, uint8_t kind, uint32_t mode, uint32_t size = 0);
    StreamBuilder& source() { return header("", 17, 0040755); }
    StreamBuilder& dir(const std::string& name) { return header(name, 16, 0040755); }
    // A regular file with `data`, in MOF/ENDF chunks of `chunk` bytes.
    StreamBuilder& file(const std::string& name, const std::string& data, size_t chunk = 2048);
    StreamBuilder& status(int8_t code, const std::string& text = "", bool withText = false);
    StreamBuilder& endDir() { return status(protocol::code::kEndDir); }
    StreamBuilder& end() { return status(protocol::code::kEnd); }

    const std::vector<uint8_t>& bytes() const { return bytes_; }
    // Each packet's bytes, in order.
    const std::vector<std::vector<uint8_t>>& packets() const { return packets_; }

private:
    std::vector<uint8_t> bytes_;
    std::vector<std::vector<uint8_t>> packets_;
};

// A whole archive file's bytes around a stream.
std::vector<uint8_t> archiveBytes(const std::vector<uint8_t>& body, uint32_t packets, bool complete,
                                  const std::string& source = "/src");
inline std::vector<uint8_t> archiveOf(const StreamBuilder& s, bool complete = true,
                                      const std::string& source = "/src") {
    return archiveBytes(s.bytes(), uint32_t(s.packets().size()), complete, source);
}

// Walks a whole archive: true when the structure, the checksum and the
// trailer's counts are good and the stream complete; else the reason.
bool archiveVerifies(const std::vector<uint8_t>& bytes, std::string* error = nullptr);

}  // namespace tavik::test
