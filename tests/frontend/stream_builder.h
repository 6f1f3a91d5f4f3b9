// Backup streams for tests, built with the real codecs: packet headers from
// the transport's encoder, file headers from the attribute record encoder;
// and whole archive files around them.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "frontend/archive.h"
#include "protocol/backup_record.h"
#include "transport/packet.h"

namespace tavik::test {

class StreamBuilder {
public:
    StreamBuilder& packet(int8_t code, const std::vector<uint8_t>& payload = {}, uint16_t value = 0,
                          uint8_t version = 0) {
        protocol::HeaderBytes h = protocol::encodeHeader(
            {.code = code, .version = version, .value = value, .length = uint16_t(payload.size())});
        bytes_.insert(bytes_.end(), h.begin(), h.end());
        bytes_.insert(bytes_.end(), payload.begin(), payload.end());
        ++count_;
        return *this;
    }
    // A file header: kind 17 source, 16 directory, 0 entry; mode gives the type.
    StreamBuilder& header(const std::string& name, uint8_t kind, uint32_t mode, uint32_t size = 0) {
        protocol::BackupAttributes a{.mode = mode, .nlink = 1, .uid = 1000, .gid = 100, .mtime = 1700000000,
                                     .size = size, .kind = kind, .name = name};
        std::vector<uint8_t> record(protocol::kMaxAttrRecord);
        record.resize(protocol::encodeBackupAttributes(a, record));
        return packet(protocol::code::kFileHeader, record);
    }
    StreamBuilder& source() { return header("", 17, 0040755); }
    StreamBuilder& dir(const std::string& name) { return header(name, 16, 0040755); }
    // A regular file with `data`, in MOF/ENDF chunks of `chunk` bytes.
    StreamBuilder& file(const std::string& name, const std::string& data, size_t chunk = 2048) {
        header(name, 0, 0100644, uint32_t(data.size()));
        size_t at = 0;
        for (; data.size() - at >= chunk; at += chunk)
            packet(protocol::code::kMof, {data.begin() + long(at), data.begin() + long(at + chunk)});
        return packet(protocol::code::kEndf, {data.begin() + long(at), data.end()});
    }
    StreamBuilder& status(int8_t code, const std::string& text = "", bool withText = false) {
        std::vector<uint8_t> payload(text.begin(), text.end());
        if (withText || !text.empty()) payload.push_back(0);
        return packet(code, payload, 0, 5);
    }
    StreamBuilder& endDir() { return status(protocol::code::kEndDir); }
    StreamBuilder& end() { return status(protocol::code::kEnd); }

    const std::vector<uint8_t>& bytes() const { return bytes_; }
    uint32_t count() const { return count_; }  // of packets

private:
    std::vector<uint8_t> bytes_;
    uint32_t count_ = 0;
};

// A whole archive file's bytes around a stream.
inline std::vector<uint8_t> archiveBytes(const std::vector<uint8_t>& body, uint32_t packets, bool complete,
                                         const std::string& source = "/src") {
    std::vector<uint8_t> out =
        frontend::encodeArchiveHeader({.created = 1700000000, .host = "127.0.0.1", .source = source});
    uint32_t crc = frontend::crc32Update(frontend::crc32Update(0, out), body);
    out.insert(out.end(), body.begin(), body.end());
    std::vector<uint8_t> trailer = frontend::encodeArchiveTrailer(
        {.crc = crc, .bodyLength = body.size(), .packetCount = packets, .complete = complete});
    out.insert(out.end(), trailer.begin(), trailer.end());
    return out;
}
inline std::vector<uint8_t> archiveOf(const StreamBuilder& s, bool complete = true,
                                      const std::string& source = "/src") {
    return archiveBytes(s.bytes(), s.count(), complete, source);
}

// Walks a whole archive: true when the structure, the checksum and the
// trailer's counts are good and the stream complete; else the reason.
inline bool archiveVerifies(const std::vector<uint8_t>& bytes, std::string* error = nullptr) {
    frontend::ArchiveReader reader;
    frontend::ArchiveWalker walker(reader);
    frontend::TreeEvent e;
    auto n = frontend::ArchiveWalker::Next::kError;
    if (reader.openMemory(bytes))
        while ((n = walker.next(e)) == frontend::ArchiveWalker::Next::kEvent) continue;
    if (error) *error = walker.error().empty() ? reader.error() : walker.error();
    return n == frontend::ArchiveWalker::Next::kEnd && reader.checksumGood() && reader.trailer().complete;
}

}  // namespace tavik::test
