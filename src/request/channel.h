// Where the request and command parsers read their bytes and send their
// answers: a job connection (through the chosen send and receive routines),
// or a byte buffer that replays what a server sent (tests, fuzzing), in which
// case the answers are collected instead of sent.
//
// recv() behaves like the receive routines: exactly `length` bytes or a
// failure (100), the buffer cleared first; a buffer that runs out is an end
// of file. send() and sendCode() return 0 or 100.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace tavik {

struct JobContext;
namespace transport {
struct TransportState;
}

class Channel {
public:
    Channel(transport::TransportState& link, int fd) : link_(&link), fd_(fd) {}
    explicit Channel(std::span<const uint8_t> replay) : replay_(replay), fromBuffer_(true) {}

    int fd() const { return fd_; }
    [[nodiscard]] int recv(uint8_t* buffer, size_t length);
    [[nodiscard]] int send(const uint8_t* buffer, size_t length);
    // A header-only packet; code 4 carries the job's ack interval and version.
    [[nodiscard]] int sendCode(int8_t code, const JobContext& ctx);

    // Replay mode: everything "sent" so far.
    const std::vector<uint8_t>& sent() const { return sent_; }

private:
    transport::TransportState* link_ = nullptr;
    int fd_ = -1;
    std::span<const uint8_t> replay_;
    size_t pos_ = 0;
    bool fromBuffer_ = false;
    std::vector<uint8_t> sent_;
};

}  // namespace tavik
