// The front-end's side of a backup stream, for end-to-end tests: reads
// every packet the agent sends (code, value, version, length, payload),
// acknowledges every n-th packet of codes 6, 7 and 8, follows connection
// renewals (code 16) to the new port, and can reassemble the files.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace tavik::test {

struct StreamPacket {
    int8_t code = 0;
    uint8_t version = 0;
    uint16_t value = 0;
    std::vector<uint8_t> payload;
    int connection = 0;  // 0 for the first connection, 1 after the first renewal...

    std::string name() const;  // a file header's entry name
    uint8_t kind() const;      // a file header's kind byte
    uint32_t mode() const;
    uint32_t size() const;
    std::string text() const;  // a text packet's text
};

class BackupStreamReader {
public:
    explicit BackupStreamReader(int fd) : fd_(fd) {}
    ~BackupStreamReader();

    void acknowledgeEvery(uint16_t n, int8_t ackCode = 0) {
        ackInterval_ = n;
        ackCode_ = ackCode;
    }

    // Reads up to END (true) or until the connection fails or `timeoutMs`
    // passes without a packet (false). `stopAfter` > 0 stops after that many
    // packets.
    bool readUntilEnd(int timeoutMs = 10000, size_t stopAfter = 0);
    bool readOne(StreamPacket& out, int timeoutMs);

    // The connection now in use (after renewals), -1 when closed.
    int fd() const { return fd_; }
    void closeAll();

    const std::vector<StreamPacket>& packets() const { return packets_; }
    // One word per packet: "6:name", "7:2048", "8:12", "9", "101", ...
    std::vector<std::string> summary() const;  // text packets (14, 101..) with their text
    // Every file's data by its path under the source, rebuilt from the
    // file headers, directory nesting and data packets.
    std::map<std::string, std::string> files() const;
    const std::string& error() const { return error_; }

private:
    bool readExact(uint8_t* buf, size_t n, int timeoutMs);
    int fd_;
    std::vector<int> old_;
    uint16_t ackInterval_ = 0;
    int8_t ackCode_ = 0;
    uint16_t ackCounter_ = 0;
    int connection_ = 0;
    std::vector<StreamPacket> packets_;
    std::string error_;
};

}  // namespace tavik::test
