#include "protocol/commands.h"

#include <algorithm>

namespace tavik::protocol {

GroomingRecord decodeGroomingRecord(wire::ByteReader& in) {
    GroomingRecord r;
    size_t n = std::min(in.remaining(), kGroomKeptSize);
    // The read is of exactly the bytes that remain, so it cannot fail.
    if (!in.getBytes(std::span<uint8_t>(r.kept.data(), n))) return r;
    wire::ByteReader kept(r.kept.data(), r.kept.size());
    uint32_t unread = 0;
    bool ok = kept.getLe16(r.nMonths) && kept.getLe16(r.nCopies) && kept.getLe32(r.nFilterItems) &&
              kept.getLe32(unread) && kept.getLe32(r.fOptions) && kept.getFixedText(kGroomSetWidth, r.rotationSet);
    static_assert(kGroomOptionsOffset == 12 && kGroomSetOffset == 16);
    if (!ok) return GroomingRecord{};
    return r;
}

bool decodeTapeRecord(wire::ByteReader& in, TapeRecord& out) {
    if (in.remaining() < kTapeRecordSize) return false;
    TapeRecord r;
    bool ok = in.getFixedText(kTapeIdWidth, r.tapeID) && in.getFixedText(kSessionNumberWidth, r.sessionNumber) &&
              in.getFixedText(kTapeNameWidth, r.tapeName) && in.getS8(r.tapeSequence);
    if (!ok) return false;  // cannot happen after the length check
    out = std::move(r);
    return true;
}

std::vector<uint8_t> encodeGroomingRecord(uint16_t months, uint32_t options, const std::string& rotationSet) {
    std::vector<uint8_t> record(kGroomRecordSize, 0);
    wire::ByteWriter w(record);
    std::string name = rotationSet.substr(0, kGroomSetWidth);
    bool ok = w.putLe16(months) && w.putLe16(0) && w.putLe32(0) && w.putLe32(0) && w.putLe32(options) &&
              w.putBytes({reinterpret_cast<const uint8_t*>(name.data()), name.size()});
    return ok ? record : std::vector<uint8_t>();
}

}  // namespace tavik::protocol
