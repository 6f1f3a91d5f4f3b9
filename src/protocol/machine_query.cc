#include "protocol/machine_query.h"

#include <cstring>

#include "wire/bytes.h"

namespace tavik::protocol {
namespace {

void putField(MachineReply& reply, size_t at, const char* text) {
    size_t len = strnlen(text, platform::kUnameFieldSize - 1);
    std::memcpy(reply.data() + at, text, len);
}

}  // namespace

MachineReply buildMachineReply(const MachineQuery& query, const platform::MachineName* name) {
    MachineReply reply{};
    reply[0] = query[0];
    reply[1] = query[1];
    reply[2] = query[2];
    int8_t version = static_cast<int8_t>(query[3]);
    reply[3] = static_cast<uint8_t>(version > kMaxQueryVersion ? kMaxQueryVersion : version);
    wire::storeBe16(&reply[4], kReplyType);
    if (name) {
        wire::storeBe16(&reply[6], kReplyPayload);
        putField(reply, kReplySysnameAt, name->sysname);
        putField(reply, kReplyReleaseAt, name->release);
        putField(reply, kReplyVersionAt, name->version);
        putField(reply, kReplyMachineAt, name->machine);
    } else {
        reply[2] = kMachineQueryFailed;
        reply[6] = query[6];
        reply[7] = query[7];
    }
    return reply;
}

std::optional<MachineInfo> decodeMachineReply(const uint8_t* data, size_t size) {
    if (size != kReplySize) return std::nullopt;
    wire::ByteReader r(data, size);
    MachineInfo info;
    uint8_t skip;
    if (!r.getU8(skip) || !r.getU8(skip) || !r.getU8(info.command) || !r.getS8(info.version) ||
        !r.getBe16(info.type) || !r.getBe16(info.length) || !r.getFixedText(platform::kUnameFieldSize, info.sysname) ||
        !r.getFixedText(platform::kUnameFieldSize, info.release) || !r.getFixedText(platform::kUnameFieldSize, info.version_text) ||
        !r.getFixedText(platform::kUnameFieldSize, info.machine))
        return std::nullopt;
    return info;
}

}  // namespace tavik::protocol
