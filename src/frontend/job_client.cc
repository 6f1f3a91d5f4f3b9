#include "frontend/job_client.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "frontend/net.h"
#include "platform/secret.h"
#include "platform/whole_io.h"
#include "protocol/request.h"
#include "wire/bytes.h"

namespace tavik::frontend {
namespace {

constexpr size_t kHeaderSize = 8;
constexpr size_t kRecordRootMax = protocol::request_layout::kRootWidth - 1;

}  // namespace

void versionBytes(int serverVersion, uint8_t& versionByte, uint8_t& flags) {
    flags = 0;
    versionByte = static_cast<uint8_t>(serverVersion);
    if (serverVersion >= 52) {
        versionByte = '2';
        flags = 0x40;
    } else if (serverVersion == 51) {
        versionByte = '2';
        flags = 0x80;
    }
}

std::vector<uint8_t> buildCommand(int8_t code, uint16_t value, std::span<const uint8_t> payload) {
    std::vector<uint8_t> packet(kHeaderSize + payload.size());
    packet[2] = static_cast<uint8_t>(code);
    wire::storeLe16(&packet[4], value);
    wire::storeLe16(&packet[6], static_cast<uint16_t>(payload.size()));
    if (!payload.empty()) std::memcpy(packet.data() + kHeaderSize, payload.data(), payload.size());
    return packet;
}

std::vector<uint8_t> buildRequestPacket(const RequestFields& fields) {
    using namespace protocol::request_layout;
    bool longRoot = fields.root.size() > kRecordRootMax;
    if (fields.root.size() + 1 > protocol::kJobRootSize - 1) return {};
    size_t length = kSize + (longRoot ? fields.root.size() + 1 : 0);
    std::vector<uint8_t> packet(kHeaderSize + length, 0);
    uint8_t versionByte = 0;
    uint8_t flags = 0;
    versionBytes(fields.serverVersion, versionByte, flags);
    packet[0] = flags;
    wire::storeLe16(&packet[6], static_cast<uint16_t>(length));

    uint8_t* r = packet.data() + kHeaderSize;
    std::memcpy(r + kRootAt, fields.root.data(), longRoot ? kRecordRootMax : fields.root.size());
    std::memcpy(r + kLoginAt, fields.login.data(), fields.login.size() < kLoginWidth ? fields.login.size() : kLoginWidth - 1);
    std::array<uint8_t, protocol::kPasswordSize> scrambled = protocol::scramblePassword(fields.password.c_str());
    std::memcpy(r + kPasswordAt, scrambled.data(), scrambled.size());
    platform::wipeSecret(scrambled.data(), scrambled.size());
    wire::storeLe16(r + kTpSizeAt, fields.tpSize);
    r[kAcceptEaAt] = fields.acceptEA;
    r[kOpModeAt] = fields.opMode;
    wire::storeLe32(r + kTimeThreshAt, static_cast<uint32_t>(fields.timeThresh));
    if (fields.runUnswitched) r[kNoSwitchAt] |= 0x80;
    r[kMethodAt] = fields.method;
    r[kFollowAt] = fields.follow;
    r[kVersionAt] = versionByte;
    r[kConflictAt] = fields.conflict;
    if (longRoot) std::memcpy(r + kSize, fields.root.c_str(), fields.root.size() + 1);
    return packet;
}

void JobClient::close() {
    fd_.reset();
}

bool JobClient::connect(const std::string& host, uint16_t port) {
    close();
    auto addr = resolveIpv4(host, port, error_);
    if (!addr) return false;
    fd_.reset(::socket(AF_INET, SOCK_STREAM, 0));
    if (!fd_ || ::connect(fd_.get(), reinterpret_cast<const sockaddr*>(&*addr), sizeof *addr) != 0) {
        error_ = std::string("cannot connect: ") + std::strerror(errno);
        close();
        return false;
    }
    // Requests go out as several small writes with the answer awaited after
    // the last: without this the last write waits for the agent's delayed
    // acknowledgement of the one before (about 40 ms per exchange).
    int one = 1;
    ::setsockopt(fd_.get(), IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    return true;
}

bool JobClient::sendRaw(std::span<const uint8_t> bytes) {
    if (platform::sendAll(fd_.get(), bytes.data(), bytes.size())) return true;
    error_ = std::string("send failed: ") + std::strerror(errno);
    return false;
}

bool JobClient::recvRaw(std::span<uint8_t> bytes) {
    switch (platform::recvAll(fd_.get(), bytes.data(), bytes.size(), timeoutMs_)) {
        case platform::Received::Data: return true;
        case platform::Received::Closed: error_ = "the agent closed the connection"; return false;
        case platform::Received::TimedOut: error_ = "no answer from the agent"; return false;
        case platform::Received::Failed: error_ = std::string("receive failed: ") + std::strerror(errno); return false;
    }
    return false;
}

int JobClient::readAnswer() {
    std::array<uint8_t, kHeaderSize> h{};
    if (!recvRaw(h)) return kNoAnswer;
    lastVersion_ = h[3];
    lastValue_ = wire::loadLe16(&h[4]);
    return static_cast<int8_t>(h[2]);
}

int JobClient::request(const RequestFields& fields) {
    std::vector<uint8_t> packet = buildRequestPacket(fields);
    if (packet.empty()) {
        error_ = "root path too long";
        return kNoAnswer;
    }
    bool ok = sendRaw(packet);
    platform::wipeSecret(packet.data(), packet.size());
    if (!ok) return kNoAnswer;
    return readAnswer();
}

int JobClient::command(int8_t code, std::span<const uint8_t> payload, uint16_t value) {
    if (payload.size() > 0xFFFF) {
        error_ = "payload too long";
        return kNoAnswer;
    }
    if (!sendRaw(buildCommand(code, value, payload))) return kNoAnswer;
    return readAnswer();
}

int JobClient::option(std::span<const uint8_t> record) { return command(12, record); }

int JobClient::diskItem(const std::vector<std::string>& names) {
    std::vector<uint8_t> text;
    for (const std::string& n : names) {
        text.insert(text.end(), n.begin(), n.end());
        text.push_back(0);
    }
    std::array<uint8_t, 8> payload{};
    wire::storeLe32(&payload[0], static_cast<uint32_t>(names.size()));
    wire::storeLe32(&payload[4], static_cast<uint32_t>(text.size()));
    int answer = command(11, payload);
    if (answer != 4) return answer;
    return sendRaw(text) ? answer : kNoAnswer;
}

int JobClient::grooming(std::span<const uint8_t> record, std::span<const uint8_t> tapeRecord) {
    int answer = command(13, record);
    if (answer != 4) return answer;
    return sendRaw(tapeRecord) ? answer : kNoAnswer;
}

int JobClient::dbFile(std::span<const uint8_t> list) {
    std::array<uint8_t, 4> payload{};
    wire::storeLe32(payload.data(), static_cast<uint32_t>(list.size()));
    int answer = command(15, payload);
    if (answer != 4) return answer;
    return sendRaw(list) ? answer : kNoAnswer;
}

int JobClient::continueAt(uint32_t offset, const std::string& path) {
    std::vector<uint8_t> payload(4 + path.size() + 1, 0);
    wire::storeLe32(payload.data(), offset);
    std::memcpy(payload.data() + 4, path.data(), path.size());
    return command(16, payload);
}

bool JobClient::start(uint16_t ackInterval) { return sendRaw(buildCommand(0, ackInterval, {})); }

}  // namespace tavik::frontend
