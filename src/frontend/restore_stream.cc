#include "frontend/restore_stream.h"

#include <cstring>

#include "protocol/packet.h"

namespace tavik::frontend {

protocol::RestoreAttributes restoreAttributesFor(const protocol::BackupAttributes& e, const std::string& fullName) {
    protocol::RestoreAttributes r;
    r.dev = e.dev;
    r.ino = e.ino;
    r.mode = e.mode;
    r.nlink = e.nlink;
    r.uid = static_cast<uint32_t>(e.uid);
    r.gid = static_cast<uint32_t>(e.gid);
    r.rdev = e.rdev;
    r.atime = e.atime;
    r.mtime = e.mtime;
    r.size = e.size;
    r.name = fullName;
    return r;
}

std::string restorePathFor(const std::string& root, const std::string& name) {
    size_t start = name.find_first_not_of('/');
    std::string rest = start == std::string::npos ? std::string() : name.substr(start);
    std::string base = root;
    while (base.size() > 1 && base.back() == '/') base.pop_back();
    if (rest.empty()) return base;
    if (base == "/") return base + rest;
    return base + "/" + rest;
}

bool RestoreStreamEncoder::isDirectory(const protocol::BackupAttributes& entry) {
    return entry.kind == protocol::kKindDirectory || (entry.mode & protocol::kTypeMask) == protocol::kTypeDirectory;
}

bool RestoreStreamEncoder::emit(int8_t code, std::span<const uint8_t> payload) {
    // One buffer for every packet: no allocation per 2048 bytes of data.
    packet_.resize(protocol::kHeaderSize + payload.size());
    protocol::PacketHeader h;
    h.code = code;
    h.length = static_cast<uint16_t>(payload.size());
    protocol::HeaderBytes header = protocol::encodeHeader(h);
    std::memcpy(packet_.data(), header.data(), header.size());
    if (!payload.empty()) std::memcpy(packet_.data() + header.size(), payload.data(), payload.size());
    return sink_(packet_);
}

bool RestoreStreamEncoder::directory(const protocol::BackupAttributes& entry, const std::string& fullName) {
    if (inFile_) return false;
    std::vector<uint8_t> record = protocol::encodeRestoreAttributes(restoreAttributesFor(entry, fullName));
    return !record.empty() && emit(protocol::code::kMkdir, record);
}

bool RestoreStreamEncoder::beginFile(const protocol::BackupAttributes& entry, const std::string& fullName) {
    if (inFile_) return false;
    std::vector<uint8_t> record = protocol::encodeRestoreAttributes(restoreAttributesFor(entry, fullName));
    if (record.empty() || !emit(protocol::code::kOpenFile, record)) return false;
    inFile_ = true;
    held_.clear();
    return true;
}

bool RestoreStreamEncoder::data(std::span<const uint8_t> bytes) {
    if (!inFile_) return false;
    while (!bytes.empty()) {
        // A full payload goes out only once more data follows it: the last
        // piece of a file always travels in its ENDF.
        if (held_.size() == protocol::kMaxDataPayload) {
            if (!emit(protocol::code::kMof, held_)) return false;
            held_.clear();
        }
        size_t take = protocol::kMaxDataPayload - held_.size();
        if (take > bytes.size()) take = bytes.size();
        held_.insert(held_.end(), bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(take));
        bytes = bytes.subspan(take);
    }
    return true;
}

bool RestoreStreamEncoder::endFile() {
    if (!inFile_) return false;
    inFile_ = false;
    bool ok = emit(protocol::code::kEndf, held_);
    held_.clear();
    return ok;
}

bool RestoreStreamEncoder::entry(const protocol::BackupAttributes& e, const std::string& fullName,
                                 std::span<const uint8_t> bytes) {
    if (isDirectory(e)) return directory(e, fullName);
    return beginFile(e, fullName) && data(bytes) && endFile();
}

bool RestoreStreamEncoder::end() { return !inFile_ && emit(protocol::code::kEnd, {}); }

bool RestoreStreamEncoder::abort() {
    inFile_ = false;
    held_.clear();
    return emit(protocol::code::kAbort, {});
}

}  // namespace tavik::frontend
