#include "protocol/packet.h"

#include "wire/bytes.h"

namespace tavik::protocol {

HeaderBytes encodeHeader(const PacketHeader& h) {
    HeaderBytes b{};
    b[kHeaderFlagsAt] = h.flags;
    b[kHeaderReservedAt] = h.reserved;
    b[kHeaderCodeAt] = static_cast<uint8_t>(h.code);
    b[kHeaderVersionAt] = h.version;
    wire::storeLe16(&b[kHeaderValueAt], h.value);
    wire::storeLe16(&b[kHeaderLengthAt], h.length);
    return b;
}

PacketHeader decodeHeader(const HeaderBytes& b) {
    PacketHeader h;
    h.flags = b[kHeaderFlagsAt];
    h.reserved = b[kHeaderReservedAt];
    h.code = static_cast<int8_t>(b[kHeaderCodeAt]);
    h.version = b[kHeaderVersionAt];
    h.value = wire::loadLe16(&b[kHeaderValueAt]);
    h.length = wire::loadLe16(&b[kHeaderLengthAt]);
    return h;
}

}  // namespace tavik::protocol
