#include "protocol/restore_record.h"

#include <cstring>

#include "wire/bytes.h"

namespace tavik::protocol {

std::vector<uint8_t> encodeRestoreAttributes(const RestoreAttributes& a) {
    if (a.name.size() > kMaxNameLength || a.name.find('\0') != std::string::npos) return {};
    std::vector<uint8_t> out(kRecName + a.name.size() + 1, 0);
    wire::ByteWriter w(out);
    bool ok = w.putLe32(a.dev) && w.putLe32(a.ino) && w.putLe32(a.mode) && w.putLe32(a.nlink) &&
              w.putLe32(a.uid) && w.putLe32(a.gid) && w.putLe32(a.rdev) && w.putLe32(a.atime) &&
              w.putLe32(a.mtime) && w.putLe32(a.unused36) && w.putLe32(a.size) && w.putLe32(a.unused44) &&
              w.putBytes(std::span<const uint8_t>(reinterpret_cast<const uint8_t*>(a.name.data()), a.name.size()));
    if (!ok) return {};
    return out;  // the NUL is the vector's last zero byte
}

RecordError decodeRestoreAttributes(std::span<const uint8_t> record, RestoreAttributes& out) {
    out = RestoreAttributes{};
    wire::ByteReader r(record);
    uint32_t* words[] = {&out.dev,   &out.ino,   &out.mode,     &out.nlink, &out.uid,  &out.gid,
                         &out.rdev,  &out.atime, &out.mtime,    &out.unused36, &out.size, &out.unused44};
    static_assert(sizeof words / sizeof words[0] * 4 == kRecName);
    for (uint32_t* word : words) {
        if (!r.getLe32(*word)) return RecordError::Short;
    }
    std::span<const uint8_t> rest = record.subspan(kRecName);
    size_t window = rest.size() < kPathBufferSize ? rest.size() : kPathBufferSize;
    const void* nul = window ? std::memchr(rest.data(), 0, window) : nullptr;
    size_t length = nul ? static_cast<size_t>(static_cast<const uint8_t*>(nul) - rest.data()) : window;
    if (length > kMaxNameLength) return RecordError::NameTooLong;
    out.name.assign(reinterpret_cast<const char*>(rest.data()), length);
    return RecordError::None;
}

}  // namespace tavik::protocol
