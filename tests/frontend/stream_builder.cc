#include "frontend/stream_builder.h"

#include "backup/attribute_record.h"
#include "frontend/archive.h"

namespace tavik::test {

StreamBuilder& StreamBuilder::packet(int8_t code, const std::vector<uint8_t>& payload, uint16_t value,
                                     uint8_t version) {
    protocol::PacketHeader h;
    h.code = code;
    h.value = value;
    h.version = version;
    h.length = uint16_t(payload.size());
    protocol::HeaderBytes hb = protocol::encodeHeader(h);
    std::vector<uint8_t> p(hb.begin(), hb.end());
    p.insert(p.end(), payload.begin(), payload.end());
    bytes_.insert(bytes_.end(), p.begin(), p.end());
    packets_.push_back(std::move(p));
    return *this;
}

StreamBuilder& StreamBuilder::header(const std::string& name, uint8_t kind, uint32_t mode, uint32_t size) {
    protocol::BackupAttributes a;
    a.mode = mode;
    a.nlink = 1;
    a.uid = 1000;
    a.gid = 100;
    a.mtime = 1700000000;
    a.size = size;
    a.kind = kind;
    a.name = name;
    std::vector<uint8_t> record(protocol::kMaxAttrRecord);
    size_t n = protocol::encodeBackupAttributes(a, record);
    record.resize(n);
    return packet(protocol::code::kFileHeader, record);
}

StreamBuilder& StreamBuilder::file(const std::string& name, const std::string& data, size_t chunk) {
    header(name, 0, 0100644, uint32_t(data.size()));
    size_t at = 0;
    while (data.size() - at >= chunk) {
        packet(protocol::code::kMof, std::vector<uint8_t>(data.begin() + long(at), data.begin() + long(at + chunk)));
        at += chunk;
    }
    return packet(protocol::code::kEndf, std::vector<uint8_t>(data.begin() + long(at), data.end()));
}

StreamBuilder& StreamBuilder::status(int8_t code, const std::string& text, bool withText) {
    std::vector<uint8_t> payload;
    if (withText || !text.empty()) {
        payload.assign(text.begin(), text.end());
        payload.push_back(0);
    }
    return packet(code, payload, 0, 5);
}

std::vector<uint8_t> archiveBytes(const std::vector<uint8_t>& body, uint32_t packets, bool complete,
                                  const std::string& source) {
    frontend::ArchiveHeader h;
    h.created = 1700000000;
    h.host = "127.0.0.1";
    h.source = source;
    std::vector<uint8_t> out = frontend::encodeArchiveHeader(h);
    uint32_t crc = frontend::crc32Update(frontend::crc32Update(0, out), body);
    out.insert(out.end(), body.begin(), body.end());
    frontend::ArchiveTrailer t;
    t.crc = crc;
    t.bodyLength = body.size();
    t.packetCount = packets;
    t.complete = complete;
    std::vector<uint8_t> trailer = frontend::encodeArchiveTrailer(t);
    out.insert(out.end(), trailer.begin(), trailer.end());
    return out;
}

bool archiveVerifies(const std::vector<uint8_t>& bytes, std::string* error) {
    frontend::ArchiveReader reader;
    frontend::ArchiveWalker walker(reader);
    frontend::TreeEvent e;
    frontend::ArchiveWalker::Next n = frontend::ArchiveWalker::Next::kError;
    if (reader.openMemory(bytes)) {
        while ((n = walker.next(e)) == frontend::ArchiveWalker::Next::kEvent) {
        }
    }
    if (error) *error = walker.error().empty() ? reader.error() : walker.error();
    return n == frontend::ArchiveWalker::Next::kEnd && reader.checksumGood() && reader.trailer().complete;
}

}  // namespace tavik::test
