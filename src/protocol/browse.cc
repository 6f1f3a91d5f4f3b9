#include "protocol/browse.h"

#include <cstring>

#include "wire/bytes.h"

namespace tavik::protocol {

bool hasDeviceField(int version) { return version >= browse::kDeviceVersion; }
size_t entryNameOffset(int version) { return hasDeviceField(version) ? browse::kNameAt : browse::kOldNameAt; }

BrowseHeaderBytes encodeBrowseHeader(const BrowseHeader& header) {
    BrowseHeaderBytes bytes{};
    wire::storeBe16(&bytes[browse::kSelectAt], header.select);
    bytes[browse::kCodeAt] = header.code;
    bytes[browse::kVersionAt] = static_cast<uint8_t>(header.version);
    wire::storeBe16(&bytes[browse::kLevelAt], header.level);
    wire::storeBe16(&bytes[browse::kLengthAt], header.length);
    return bytes;
}

BrowseHeader decodeBrowseHeader(std::span<const uint8_t, browse::kHeaderSize> bytes) {
    BrowseHeader h;
    h.select = wire::loadBe16(&bytes[browse::kSelectAt]);
    h.code = bytes[browse::kCodeAt];
    h.version = static_cast<int8_t>(bytes[browse::kVersionAt]);
    h.level = wire::loadBe16(&bytes[browse::kLevelAt]);
    h.length = wire::loadBe16(&bytes[browse::kLengthAt]);
    return h;
}

std::vector<uint8_t> encodeBrowseEntry(const BrowseEntry& e, int version) {
    if (e.name.size() > browse::kMaxName || e.name.find('\0') != std::string::npos) return {};
    std::vector<uint8_t> bytes(entryNameOffset(version) + e.name.size() + 1, 0);
    wire::ByteWriter w(bytes);
    bool ok = w.putBe32(e.mode) && w.putBe32(e.links) && w.putBe32(e.uid) && w.putBe32(e.gid) &&
              w.putBe32(e.rdev) && w.putBe32(e.atime) && w.putBe32(e.mtime) && w.putBe32(e.ctime) &&
              w.putBe32(e.size) && w.putZeros(4) && w.putU8(e.mounted) && w.putZeros(3);
    if (ok && hasDeviceField(version)) ok = w.putBe32(e.fsDev);
    ok = ok && w.position() == entryNameOffset(version) &&
         w.putBytes(std::span(reinterpret_cast<const uint8_t*>(e.name.data()), e.name.size())) && w.putU8(0);
    if (!ok) return {};
    return bytes;
}

std::optional<BrowseEntry> decodeBrowseEntry(std::span<const uint8_t> payload, int version) {
    wire::ByteReader r(payload);
    BrowseEntry e;
    bool ok = r.getBe32(e.mode) && r.getBe32(e.links) && r.getBe32(e.uid) && r.getBe32(e.gid) &&
              r.getBe32(e.rdev) && r.getBe32(e.atime) && r.getBe32(e.mtime) && r.getBe32(e.ctime) &&
              r.getBe32(e.size) && r.skip(4) && r.getU8(e.mounted) && r.skip(3);
    if (ok && hasDeviceField(version)) ok = r.getBe32(e.fsDev);
    if (!ok) return std::nullopt;
    std::span<const uint8_t> rest = payload.subspan(r.position());
    const void* nul = std::memchr(rest.data(), 0, rest.size());
    if (!nul) return std::nullopt;
    e.name.assign(reinterpret_cast<const char*>(rest.data()), static_cast<const uint8_t*>(nul) - rest.data());
    return e;
}

}  // namespace tavik::protocol
