#include "request/channel.h"

#include <cstring>

#include "log/ulog.h"
#include "request/job_context.h"
#include "transport/packet.h"

namespace tavik {

int Channel::recv(uint8_t* buffer, size_t length) {
    if (!fromBuffer_) return transport::recvRoutine(*link_, fd_, buffer, length);
    if (length > 0) std::memset(buffer, 0, length);
    size_t left = replay_.size() - pos_;
    if (left < length) {
        if (left > 0) std::memcpy(buffer, replay_.data() + pos_, left);
        pos_ = replay_.size();
        ulog("%sEOF received", "(replay) ");
        return transport::kFailed;
    }
    if (length > 0) std::memcpy(buffer, replay_.data() + pos_, length);
    pos_ += length;
    return 0;
}

int Channel::send(const uint8_t* buffer, size_t length) {
    if (!fromBuffer_) return transport::sendRoutine(*link_, fd_, buffer, length);
    sent_.insert(sent_.end(), buffer, buffer + length);
    return 0;
}

int Channel::sendCode(int8_t code, const JobContext& ctx) {
    transport::ReadyInfo ready{ctx.ackInterval, ctx.serverVersion};
    if (!fromBuffer_) return transport::syncSendCode(*link_, fd_, code, ready);
    protocol::PacketHeader h;
    h.code = code;
    if (code == protocol::code::kReady) {
        h.value = ready.ackInterval;
        h.version = ready.serverVersion >= protocol::kNewServerVersion
                        ? static_cast<uint8_t>(ready.serverVersion)
                        : protocol::kOldReadyVersion;
    }
    protocol::HeaderBytes bytes = protocol::encodeHeader(h);
    return send(bytes.data(), bytes.size());
}

}  // namespace tavik
