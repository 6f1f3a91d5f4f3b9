// Bounded byte reader and writer: the only way wire bytes are read or built.
//
// Every record of the job protocol (little-endian), the browse protocol and
// the machine query (big-endian) is encoded and decoded through these two
// classes, with the byte order in the name of each getter and putter. A read
// or write that does not fit the remaining space fails, consumes nothing and
// leaves the output untouched, so a short packet can never be half-decoded.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <string>
#include <string_view>

namespace tavik::wire {

class ByteReader {
public:
    explicit ByteReader(std::span<const uint8_t> bytes) : bytes_(bytes) {}
    ByteReader(const void* data, size_t size)
        : bytes_(static_cast<const uint8_t*>(data), size) {}

    size_t position() const { return pos_; }
    size_t remaining() const { return bytes_.size() - pos_; }
    bool empty() const { return remaining() == 0; }

    [[nodiscard]] bool getU8(uint8_t& out);
    [[nodiscard]] bool getS8(int8_t& out);
    [[nodiscard]] bool getLe16(uint16_t& out);
    [[nodiscard]] bool getLe32(uint32_t& out);
    [[nodiscard]] bool getBe16(uint16_t& out);
    [[nodiscard]] bool getBe32(uint32_t& out);
    // Copies exactly out.size() bytes.
    [[nodiscard]] bool getBytes(std::span<uint8_t> out);
    // A fixed-width text field: reads `width` bytes and returns the text up to
    // the first NUL (or all `width` bytes when there is none).
    [[nodiscard]] bool getFixedText(size_t width, std::string& out);
    [[nodiscard]] bool skip(size_t count);
    // A view of the next `count` bytes, consumed.
    [[nodiscard]] bool view(size_t count, std::span<const uint8_t>& out);

private:
    std::span<const uint8_t> bytes_;
    size_t pos_ = 0;
};

class ByteWriter {
public:
    explicit ByteWriter(std::span<uint8_t> bytes) : bytes_(bytes) {}
    ByteWriter(void* data, size_t size) : bytes_(static_cast<uint8_t*>(data), size) {}

    size_t position() const { return pos_; }
    size_t remaining() const { return bytes_.size() - pos_; }

    [[nodiscard]] bool putU8(uint8_t value);
    [[nodiscard]] bool putLe16(uint16_t value);
    [[nodiscard]] bool putLe32(uint32_t value);
    [[nodiscard]] bool putBe16(uint16_t value);
    [[nodiscard]] bool putBe32(uint32_t value);
    [[nodiscard]] bool putBytes(std::span<const uint8_t> data);
    [[nodiscard]] bool putZeros(size_t count);
    // A fixed-width text field: the text, then NUL bytes up to `width`. The
    // text must leave room for at least one NUL, so the field always ends in
    // one; a longer text fails.
    [[nodiscard]] bool putFixedText(std::string_view text, size_t width);
    // Moves to an absolute offset inside the buffer (for layouts with gaps).
    [[nodiscard]] bool seek(size_t offset);

private:
    std::span<uint8_t> bytes_;
    size_t pos_ = 0;
};

// Plain encoders for a known-good location, for callers that have already
// checked their bounds (fixed layouts with static sizes).
inline void storeLe16(uint8_t* p, uint16_t v) { p[0] = uint8_t(v); p[1] = uint8_t(v >> 8); }
inline void storeLe32(uint8_t* p, uint32_t v) {
    p[0] = uint8_t(v); p[1] = uint8_t(v >> 8); p[2] = uint8_t(v >> 16); p[3] = uint8_t(v >> 24);
}
inline void storeBe16(uint8_t* p, uint16_t v) { p[0] = uint8_t(v >> 8); p[1] = uint8_t(v); }
inline void storeBe32(uint8_t* p, uint32_t v) {
    p[0] = uint8_t(v >> 24); p[1] = uint8_t(v >> 16); p[2] = uint8_t(v >> 8); p[3] = uint8_t(v);
}
inline uint16_t loadLe16(const uint8_t* p) { return uint16_t(p[0] | (p[1] << 8)); }
inline uint32_t loadLe32(const uint8_t* p) {
    return uint32_t(p[0]) | (uint32_t(p[1]) << 8) | (uint32_t(p[2]) << 16) | (uint32_t(p[3]) << 24);
}
inline uint16_t loadBe16(const uint8_t* p) { return uint16_t((p[0] << 8) | p[1]); }
inline uint32_t loadBe32(const uint8_t* p) {
    return (uint32_t(p[0]) << 24) | (uint32_t(p[1]) << 16) | (uint32_t(p[2]) << 8) | uint32_t(p[3]);
}

}  // namespace tavik::wire
