// The front-end's side of a backup stream, for end-to-end tests: reads
// every packet the agent sends (code, value, version, length, payload),
// acknowledges every n-th packet of codes 6, 7 and 8, follows connection
// renewals (code 16) to the new port, and can reassemble the files.
#pragma once

#include <poll.h>

#include <cerrno>
#include <cstring>

#include "backup/attribute_record.h"
#include "e2e/daemon_fixture.h"

namespace tavik::test {

struct StreamPacket {
    int8_t code = 0;
    uint8_t version = 0;
    uint16_t value = 0;
    std::vector<uint8_t> payload;
    int connection = 0;  // 0 for the first connection, 1 after the first renewal...

    // A file header's fields.
    backup::BackupAttributes attributes() const {
        auto a = backup::decodeBackupAttributes(payload);
        return a ? *a : backup::BackupAttributes{.kind = 255, .name = "?"};
    }
    std::string name() const { return attributes().name; }
    uint8_t kind() const { return attributes().kind; }
    uint32_t mode() const { return attributes().mode; }
    uint32_t size() const { return attributes().size; }
    // A text packet's text.
    std::string text() const { return std::string(payload.begin(), std::find(payload.begin(), payload.end(), 0)); }
};

class BackupStreamReader {
public:
    explicit BackupStreamReader(int fd) : fd_(fd) {}
    ~BackupStreamReader() { closeAll(); }

    void acknowledgeEvery(uint16_t n, int8_t ackCode = 0) {
        ackInterval_ = n;
        ackCode_ = ackCode;
    }

    // Reads up to END (true) or until the connection fails or `timeoutMs`
    // passes without a packet (false). `stopAfter` > 0 stops after that many
    // packets.
    bool readUntilEnd(int timeoutMs = 10000, size_t stopAfter = 0) {
        for (;;) {
            StreamPacket p;
            uint8_t h[8];
            if (!readExact(h, 8, timeoutMs)) return false;
            p.code = int8_t(h[2]);
            p.version = h[3];
            p.value = wire::loadLe16(h + 4);
            p.payload.assign(wire::loadLe16(h + 6), 0);
            p.connection = connection_;
            if (!p.payload.empty() && !readExact(p.payload.data(), p.payload.size(), timeoutMs)) return false;
            packets_.push_back(p);
            if (p.code == 16 && !renew(p.value)) return false;
            if (ackInterval_ != 0 && (p.code == 6 || p.code == 7 || p.code == 8) &&
                (ackCounter_ = uint16_t((ackCounter_ + 1) % ackInterval_)) == 0) {
                uint8_t ack[8] = {0, 0, uint8_t(ackCode_), 0, 0, 0, 0, 0};
                if (::send(fd_, ack, 8, MSG_NOSIGNAL) != 8) return fail("ack send failed");
            }
            if (p.code == 3) return true;
            if (stopAfter && packets_.size() >= stopAfter) return false;
        }
    }

    // The connection now in use (after renewals), -1 when closed.
    int fd() const { return fd_; }
    void closeAll() {
        for (int fd : old_) ::close(fd);
        old_.clear();
        if (fd_ >= 0) ::close(fd_);
        fd_ = -1;
    }

    const std::vector<StreamPacket>& packets() const { return packets_; }
    // One word per packet: "6:name", "7:2048", "8:12", "9", and text packets
    // (14, 101..) with their text: "101:name".
    std::vector<std::string> summary() const {
        std::vector<std::string> out;
        for (const StreamPacket& p : packets_) {
            std::string s = std::to_string(int(uint8_t(p.code)));
            if (p.code == 6) s += ":" + p.name();
            if (p.code == 7 || p.code == 8) s += ":" + std::to_string(p.payload.size());
            if ((p.code == 14 || uint8_t(p.code) >= 101) && !p.payload.empty()) s += ":" + p.text();
            out.push_back(s);
        }
        return out;
    }
    // Every file's data by its path under the source, rebuilt from the
    // file headers, directory nesting and data packets.
    std::map<std::string, std::string> files() const {
        std::map<std::string, std::string> out;
        std::vector<std::string> dirs;  // the open directories below the source
        std::string current;
        bool inFile = false;
        for (const StreamPacket& p : packets_) {
            if (p.code == 6 && p.kind() == 16) {
                dirs.push_back(p.name());
                inFile = false;
            } else if (p.code == 6 && p.kind() == 0) {
                current.clear();
                for (const std::string& d : dirs) current += d + "/";
                out[current += p.name()];
                inFile = true;
            } else if ((p.code == 7 || p.code == 8) && inFile) {
                out[current].append(p.payload.begin(), p.payload.end());
                inFile = p.code == 7;
            } else if ((p.code == 9 || p.code == 13 || p.code == 18 || p.code == 101) && !dirs.empty()) {
                dirs.pop_back();
            }
        }
        return out;
    }
    const std::string& error() const { return error_; }

private:
    bool fail(const std::string& why) {
        error_ = why;
        return false;
    }
    bool readExact(uint8_t* buf, size_t n, int timeoutMs) {
        for (size_t got = 0; got < n;) {
            pollfd p{fd_, POLLIN, 0};
            int r = ::poll(&p, 1, timeoutMs);
            if (r == 0) return fail("time-out");
            ssize_t m = r < 0 ? -1 : ::recv(fd_, buf + got, n - got, 0);
            if (m < 0 && errno == EINTR) continue;
            if (m <= 0) return fail(m == 0 ? "end of file" : std::strerror(errno));
            got += size_t(m);
        }
        return true;
    }
    // Connects to the new port of a renewal; later packets come from there.
    bool renew(uint16_t port) {
        int s = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in a = inetAddress(port);
        if (::connect(s, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) {
            ::close(s);
            return fail("renewal connect failed");
        }
        old_.push_back(fd_);
        fd_ = s;
        ++connection_;
        return true;
    }

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
