#include "e2e/backup_stream_reader.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "backup/attribute_record.h"
#include "wire/bytes.h"

namespace tavik::test {

std::string StreamPacket::name() const {
    auto a = backup::decodeBackupAttributes(payload);
    return a ? a->name : "?";
}
uint8_t StreamPacket::kind() const {
    auto a = backup::decodeBackupAttributes(payload);
    return a ? a->kind : 255;
}
uint32_t StreamPacket::mode() const {
    auto a = backup::decodeBackupAttributes(payload);
    return a ? a->mode : 0;
}
uint32_t StreamPacket::size() const {
    auto a = backup::decodeBackupAttributes(payload);
    return a ? a->size : 0;
}
std::string StreamPacket::text() const {
    return std::string(reinterpret_cast<const char*>(payload.data()), strnlen(reinterpret_cast<const char*>(payload.data()), payload.size()));
}

BackupStreamReader::~BackupStreamReader() { closeAll(); }

void BackupStreamReader::closeAll() {
    for (int fd : old_) ::close(fd);
    old_.clear();
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
}

bool BackupStreamReader::readExact(uint8_t* buf, size_t n, int timeoutMs) {
    size_t got = 0;
    while (got < n) {
        pollfd p{fd_, POLLIN, 0};
        int r = ::poll(&p, 1, timeoutMs);
        if (r == 0) {
            error_ = "time-out";
            return false;
        }
        if (r < 0) {
            if (errno == EINTR) continue;
            error_ = std::strerror(errno);
            return false;
        }
        ssize_t m = ::recv(fd_, buf + got, n - got, 0);
        if (m < 0 && errno == EINTR) continue;
        if (m <= 0) {
            error_ = m == 0 ? "end of file" : std::strerror(errno);
            return false;
        }
        got += size_t(m);
    }
    return true;
}

bool BackupStreamReader::readOne(StreamPacket& out, int timeoutMs) {
    uint8_t h[8];
    if (!readExact(h, 8, timeoutMs)) return false;
    out.code = int8_t(h[2]);
    out.version = h[3];
    out.value = wire::loadLe16(h + 4);
    out.payload.assign(wire::loadLe16(h + 6), 0);
    out.connection = connection_;
    if (!out.payload.empty() && !readExact(out.payload.data(), out.payload.size(), timeoutMs)) return false;
    return true;
}

bool BackupStreamReader::readUntilEnd(int timeoutMs, size_t stopAfter) {
    for (;;) {
        StreamPacket p;
        if (!readOne(p, timeoutMs)) return false;
        packets_.push_back(p);
        if (p.code == 16) {
            int s = ::socket(AF_INET, SOCK_STREAM, 0);
            sockaddr_in a{};
            a.sin_family = AF_INET;
            a.sin_port = htons(p.value);
            a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
            if (::connect(s, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) {
                error_ = "renewal connect failed";
                ::close(s);
                return false;
            }
            old_.push_back(fd_);
            fd_ = s;
            ++connection_;
        }
        if (ackInterval_ != 0 && (p.code == 6 || p.code == 7 || p.code == 8)) {
            ackCounter_ = uint16_t((ackCounter_ + 1) % ackInterval_);
            if (ackCounter_ == 0) {
                uint8_t ack[8] = {0, 0, uint8_t(ackCode_), 0, 0, 0, 0, 0};
                if (::send(fd_, ack, 8, MSG_NOSIGNAL) != 8) {
                    error_ = "ack send failed";
                    return false;
                }
            }
        }
        if (p.code == 3) return true;
        if (stopAfter && packets_.size() >= stopAfter) return false;
    }
}

std::vector<std::string> BackupStreamReader::summary() const {
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

std::map<std::string, std::string> BackupStreamReader::files() const {
    std::map<std::string, std::string> out;
    std::vector<std::string> dirs;  // the open directories below the source
    std::string current;
    bool inFile = false;
    for (const StreamPacket& p : packets_) {
        if (p.code == 6) {
            std::string prefix;
            for (const std::string& d : dirs) prefix += d + "/";
            if (p.kind() == 16) {
                dirs.push_back(p.name());
                inFile = false;
            } else if (p.kind() == 0) {
                current = prefix + p.name();
                out[current];
                inFile = true;
            }
        } else if ((p.code == 7 || p.code == 8) && inFile) {
            out[current].append(reinterpret_cast<const char*>(p.payload.data()), p.payload.size());
            if (p.code == 8) inFile = false;
        } else if ((p.code == 9 || p.code == 13 || p.code == 18 || p.code == 101) && !dirs.empty()) {
            dirs.pop_back();
        }
    }
    return out;
}

}  // namespace tavik::test
