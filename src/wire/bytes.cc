#include "wire/bytes.h"

namespace tavik::wire {

bool ByteReader::getU8(uint8_t& out) {
    if (remaining() < 1) return false;
    out = bytes_[pos_++];
    return true;
}

bool ByteReader::getS8(int8_t& out) {
    uint8_t v;
    if (!getU8(v)) return false;
    out = static_cast<int8_t>(v);
    return true;
}

bool ByteReader::getLe16(uint16_t& out) {
    if (remaining() < 2) return false;
    out = loadLe16(&bytes_[pos_]);
    pos_ += 2;
    return true;
}

bool ByteReader::getLe32(uint32_t& out) {
    if (remaining() < 4) return false;
    out = loadLe32(&bytes_[pos_]);
    pos_ += 4;
    return true;
}

bool ByteReader::getBe16(uint16_t& out) {
    if (remaining() < 2) return false;
    out = loadBe16(&bytes_[pos_]);
    pos_ += 2;
    return true;
}

bool ByteReader::getBe32(uint32_t& out) {
    if (remaining() < 4) return false;
    out = loadBe32(&bytes_[pos_]);
    pos_ += 4;
    return true;
}

bool ByteReader::getBytes(std::span<uint8_t> out) {
    if (remaining() < out.size()) return false;
    if (!out.empty()) std::memcpy(out.data(), &bytes_[pos_], out.size());
    pos_ += out.size();
    return true;
}

bool ByteReader::getFixedText(size_t width, std::string& out) {
    if (remaining() < width) return false;
    const char* start = reinterpret_cast<const char*>(bytes_.data() + pos_);
    const void* nul = width ? std::memchr(start, 0, width) : nullptr;
    size_t len = nul ? size_t(static_cast<const char*>(nul) - start) : width;
    out.assign(start, len);
    pos_ += width;
    return true;
}

bool ByteReader::skip(size_t count) {
    if (remaining() < count) return false;
    pos_ += count;
    return true;
}

bool ByteReader::view(size_t count, std::span<const uint8_t>& out) {
    if (remaining() < count) return false;
    out = bytes_.subspan(pos_, count);
    pos_ += count;
    return true;
}

bool ByteWriter::putU8(uint8_t value) {
    if (remaining() < 1) return false;
    bytes_[pos_++] = value;
    return true;
}

bool ByteWriter::putLe16(uint16_t value) {
    if (remaining() < 2) return false;
    storeLe16(&bytes_[pos_], value);
    pos_ += 2;
    return true;
}

bool ByteWriter::putLe32(uint32_t value) {
    if (remaining() < 4) return false;
    storeLe32(&bytes_[pos_], value);
    pos_ += 4;
    return true;
}

bool ByteWriter::putBe16(uint16_t value) {
    if (remaining() < 2) return false;
    storeBe16(&bytes_[pos_], value);
    pos_ += 2;
    return true;
}

bool ByteWriter::putBe32(uint32_t value) {
    if (remaining() < 4) return false;
    storeBe32(&bytes_[pos_], value);
    pos_ += 4;
    return true;
}

bool ByteWriter::putBytes(std::span<const uint8_t> data) {
    if (remaining() < data.size()) return false;
    if (!data.empty()) std::memcpy(&bytes_[pos_], data.data(), data.size());
    pos_ += data.size();
    return true;
}

bool ByteWriter::putZeros(size_t count) {
    if (remaining() < count) return false;
    if (count) std::memset(&bytes_[pos_], 0, count);
    pos_ += count;
    return true;
}

bool ByteWriter::putFixedText(std::string_view text, size_t width) {
    if (text.size() >= width || remaining() < width) return false;
    std::memcpy(&bytes_[pos_], text.data(), text.size());
    std::memset(&bytes_[pos_ + text.size()], 0, width - text.size());
    pos_ += width;
    return true;
}

bool ByteWriter::seek(size_t offset) {
    if (offset > bytes_.size()) return false;
    pos_ = offset;
    return true;
}

}  // namespace tavik::wire
