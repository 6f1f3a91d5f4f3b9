// The server's side of a job connection: building and sending a job request,
// reading the agent's answers, and the command phase (options record and
// filter items for a backup, then OPTION, DISK_ITEM, GROOMING, DB_FILE,
// continue, any raw command, and the start command).
//
// Every operation returns the agent's answer code (0..255 as the agent sent
// it, as a signed byte) or kNoAnswer when the connection failed or the agent
// closed it; `lastError()` says why. Waits are bounded by the client's
// time-out.
#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "platform/fd.h"

namespace tavik::frontend {

inline constexpr int kNoAnswer = -1000;
inline constexpr int kNewestServerVersion = 52;

struct RequestFields {
    std::string root;
    std::string login;
    std::string password;  // plain; scrambled into the request
    uint8_t opMode = 0;
    int serverVersion = kNewestServerVersion;  // 49..52
    uint8_t acceptEA = 0;
    uint8_t follow = 0;
    uint8_t conflict = 3;
    uint16_t tpSize = 0;
    bool runUnswitched = false;  // bit 7 of byte 674 (servers above 51)
    int32_t timeThresh = 0;
    uint8_t method = 0;
};

// The version byte and header flags that present a server version: 52 is
// "2" with flag 0x40, 51 is "2" with 0x80, older ones their own digit.
void versionBytes(int serverVersion, uint8_t& versionByte, uint8_t& flags);

// Header, the 680-byte record and, for a root longer than 175 characters,
// the root text with its NUL after the record. Empty when the root is longer
// than 1022 characters.
std::vector<uint8_t> buildRequestPacket(const RequestFields& fields);

// One command packet: header (code, value, payload length) and payload.
std::vector<uint8_t> buildCommand(int8_t code, uint16_t value, std::span<const uint8_t> payload);

class JobClient {
public:
    JobClient() = default;
    explicit JobClient(int fd) : fd_(fd) {}
    JobClient(const JobClient&) = delete;
    JobClient& operator=(const JobClient&) = delete;

    // Connects over TCP; false with lastError() set on failure.
    bool connect(const std::string& host, uint16_t port);
    int fd() const { return fd_.get(); }
    void setTimeoutMs(int ms) { timeoutMs_ = ms; }
    const std::string& lastError() const { return error_; }
    void close();

    // Sends the request and reads the answer (4 when the job may go on).
    int request(const RequestFields& fields);
    // Reads one 8-byte answer; `value` and `version` of it are kept.
    int readAnswer();
    uint16_t lastValue() const { return lastValue_; }
    uint8_t lastVersion() const { return lastVersion_; }

    // The backup's options record and filter items, raw, unanswered.
    bool sendRaw(std::span<const uint8_t> bytes);
    bool recvRaw(std::span<uint8_t> bytes);

    int option(std::span<const uint8_t> record);
    int diskItem(const std::vector<std::string>& names);
    int grooming(std::span<const uint8_t> record, std::span<const uint8_t> tapeRecord);
    int dbFile(std::span<const uint8_t> list);
    int continueAt(uint32_t offset, const std::string& path);
    // Any command with its payload; returns the answer.
    int command(int8_t code, std::span<const uint8_t> payload, uint16_t value = 0);
    // The start command; the agent does not answer it.
    bool start(uint16_t ackInterval);

private:
    platform::UniqueFd fd_;
    int timeoutMs_ = 10000;
    std::string error_;
    uint16_t lastValue_ = 0;
    uint8_t lastVersion_ = 0;
};

}  // namespace tavik::frontend
