#include "protocol/backup_record.h"

#include <cstring>
#include <ctime>

#include "wire/bytes.h"

namespace tavik::protocol {

void dosTimeDate(int64_t mtime, uint16_t& dosTime, uint16_t& dosDate) {
    time_t t = time_t(mtime);
    struct tm tm {};
    localtime_r(&t, &tm);
    dosTime = uint16_t((tm.tm_sec / 2) | (tm.tm_min << 5) | (tm.tm_hour << 11));
    dosDate = uint16_t(tm.tm_mday | ((tm.tm_mon + 1) << 5) | (((tm.tm_year + 1900 - 1980) & 0x7F) << 9));
}

size_t encodeBackupAttributes(const BackupAttributes& a, std::span<uint8_t> out) {
    if (a.name.size() > kMaxRecordName || std::memchr(a.name.data(), 0, a.name.size())) return 0;
    size_t length = kAttrFixedSize + a.name.size();
    wire::ByteWriter w(out);
    bool ok = w.putLe32(a.dev) && w.putLe32(a.ino) && w.putLe32(a.mode) && w.putLe32(a.nlink) &&
              w.putLe32(uint32_t(a.uid)) && w.putLe32(uint32_t(a.gid)) && w.putLe32(a.rdev) && w.putLe32(a.atime) &&
              w.putLe32(a.mtime) && w.putLe16(a.dosTime) && w.putLe16(a.dosDate) && w.putLe32(a.size) &&
              w.putU8(a.kind) &&
              w.putBytes({reinterpret_cast<const uint8_t*>(a.name.data()), a.name.size()}) && w.putZeros(4);
    return ok && w.position() == length ? length : 0;
}

std::optional<BackupAttributes> decodeBackupAttributes(std::span<const uint8_t> record) {
    wire::ByteReader r(record);
    BackupAttributes a;
    uint32_t uid, gid;
    if (!(r.getLe32(a.dev) && r.getLe32(a.ino) && r.getLe32(a.mode) && r.getLe32(a.nlink) && r.getLe32(uid) &&
          r.getLe32(gid) && r.getLe32(a.rdev) && r.getLe32(a.atime) && r.getLe32(a.mtime) &&
          r.getLe16(a.dosTime) && r.getLe16(a.dosDate) && r.getLe32(a.size) && r.getU8(a.kind)))
        return std::nullopt;
    a.uid = int32_t(uid);
    a.gid = int32_t(gid);
    std::span<const uint8_t> rest;
    if (!r.view(r.remaining(), rest)) return std::nullopt;
    const void* nul = std::memchr(rest.data(), 0, rest.size());
    if (!nul) return std::nullopt;
    a.name.assign(reinterpret_cast<const char*>(rest.data()), size_t(static_cast<const uint8_t*>(nul) - rest.data()));
    return a;
}

}  // namespace tavik::protocol
