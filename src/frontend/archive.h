// Backup archives: a backup stream kept in a file, exactly as the agent sent
// it, between a small header and a trailer with a CRC-32 (zlib) so that
// damage is detected.
//
// File layout (all integers little-endian):
//   header   0 magic "TAVIKARC"   8 u16 format version (1)
//           10 u16 header length (22 + host length + source length)
//           12 u32 creation time (seconds since 1970, UTC)
//           16 u8 server version presented (49..52)   17 u8 reserved (0)
//           18 u16 host length   20 u16 source length
//           22 host bytes, then source bytes (no NULs)
//   body     every packet received, in order: the 8-byte packet header and
//            its `length` payload bytes, byte for byte (watchdog and
//            new-port packets included).
//   trailer  the last 32 bytes of the file:
//            0 magic "TAVIKEND"   8 u32 CRC-32 of header and body
//           12 u32 body length, low half   16 u32 body length, high half
//           20 u32 packet count   24 u32 flags (bit 0: the stream ended
//              with END)   28 u32 CRC-32 of trailer bytes 0..27
//
// The writer needs no seeking (it works on pipes and /dev/null). The reader
// treats the file as untrusted: every length is checked against the space
// that holds it before it is used; a failure gives an error text, never a
// crash. ArchiveReader yields packets; TreeWalker turns them into entries
// with full paths (restore and compare replay archives through it).
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "protocol/backup_record.h"
#include "protocol/packet.h"

namespace tavik::frontend {

inline constexpr char kArchiveMagic[] = "TAVIKARC";
inline constexpr char kTrailerMagic[] = "TAVIKEND";
inline constexpr uint16_t kArchiveFormatVersion = 1;

namespace archive_layout {
inline constexpr size_t kMagicAt = 0;
inline constexpr size_t kMagicWidth = 8;
inline constexpr size_t kFormatAt = 8;
inline constexpr size_t kHeaderLengthAt = 10;
inline constexpr size_t kCreatedAt = 12;
inline constexpr size_t kServerVersionAt = 16;
inline constexpr size_t kReservedAt = 17;
inline constexpr size_t kHostLengthAt = 18;
inline constexpr size_t kSourceLengthAt = 20;
inline constexpr size_t kFixedHeaderSize = 22;
static_assert(kSourceLengthAt + 2 == kFixedHeaderSize);
inline constexpr size_t kMaxHost = 255;
inline constexpr size_t kMaxSource = 4095;

inline constexpr size_t kTrailerMagicAt = 0;
inline constexpr size_t kTrailerCrcAt = 8;
inline constexpr size_t kTrailerBodyLowAt = 12;
inline constexpr size_t kTrailerBodyHighAt = 16;
inline constexpr size_t kTrailerPacketsAt = 20;
inline constexpr size_t kTrailerFlagsAt = 24;
inline constexpr size_t kTrailerSelfCrcAt = 28;
inline constexpr size_t kTrailerSize = 32;
static_assert(kTrailerSelfCrcAt + 4 == kTrailerSize);
inline constexpr uint32_t kFlagComplete = 0x01;
}  // namespace archive_layout

struct ArchiveHeader {
    uint16_t formatVersion = kArchiveFormatVersion;
    uint32_t created = 0;
    int serverVersion = 52;
    std::string host;
    std::string source;
};

struct ArchiveTrailer {
    uint32_t crc = 0;
    uint64_t bodyLength = 0;
    uint32_t packetCount = 0;
    bool complete = false;
};

// The header's bytes; empty when host or source is too long or holds a NUL.
std::vector<uint8_t> encodeArchiveHeader(const ArchiveHeader& header);
// Decodes the fixed part; `needed` is the header length it states (checked
// against the texts' lengths). False with `error` set when damaged.
bool decodeArchiveHeaderFixed(std::span<const uint8_t> fixed, ArchiveHeader& out, size_t& needed, std::string& error);
std::vector<uint8_t> encodeArchiveTrailer(const ArchiveTrailer& trailer);
bool decodeArchiveTrailer(std::span<const uint8_t> bytes, ArchiveTrailer& out, std::string& error);

uint32_t crc32Update(uint32_t crc, std::span<const uint8_t> bytes);

// Writes an archive to a descriptor through a 1 MiB buffer: the header at
// open, body bytes (whole packets, as many at once as the caller has), the
// trailer at finish. False with error() set on a failed write.
class ArchiveWriter {
public:
    ArchiveWriter() = default;
    ~ArchiveWriter();
    ArchiveWriter(const ArchiveWriter&) = delete;
    ArchiveWriter& operator=(const ArchiveWriter&) = delete;

    // Creates (or truncates) `path`; "-" is standard output.
    bool open(const std::string& path, const ArchiveHeader& header);
    bool openFd(int fd, const ArchiveHeader& header);  // not closed by the writer
    bool writeBody(std::span<const uint8_t> bytes);
    bool finish(uint32_t packetCount, bool complete);
    const std::string& error() const { return error_; }
    uint64_t bodyLength() const { return bodyLength_; }

private:
    bool put(std::span<const uint8_t> bytes);
    bool flush();

    int fd_ = -1;
    bool ownsFd_ = false;
    std::vector<uint8_t> buffer_;
    size_t fill_ = 0;
    uint32_t crc_ = 0;
    uint64_t bodyLength_ = 0;
    std::string error_;
};

// One packet of the body. `payload` stays valid until the next call of
// ArchiveReader::next.
struct ArchivePacket {
    protocol::PacketHeader header;
    std::span<const uint8_t> payload;
    uint64_t offset = 0;  // of the packet header, from the start of the file
};

// Reads an archive from a file or from memory (fuzzing, tests). open()
// checks the header and the trailer's own checksum; next() yields the body's
// packets one by one, computing the CRC as it goes; when the body is used up
// exactly, next() returns kEnd and checksumGood() tells whether the CRC and
// the counts in the trailer match what was read.
class ArchiveReader {
public:
    enum class Next { kPacket, kEnd, kError };

    ArchiveReader();
    ~ArchiveReader();
    ArchiveReader(const ArchiveReader&) = delete;
    ArchiveReader& operator=(const ArchiveReader&) = delete;

    bool open(const std::string& path);
    bool openMemory(std::span<const uint8_t> bytes);  // the bytes must outlive the reader
    bool openMemory(std::vector<uint8_t>&&) = delete;   // a temporary would not

    const ArchiveHeader& header() const { return header_; }
    const ArchiveTrailer& trailer() const { return trailer_; }

    Next next(ArchivePacket& out);
    // For a second pass over an archive already checked: the CRC is not
    // computed again (checksumGood() then stays false).
    void skipChecksum() { skipChecksum_ = true; }
    // After kEnd: CRC, body length and packet count agree with the trailer.
    bool checksumGood() const { return checksumGood_; }
    const std::string& error() const { return error_; }
    uint32_t packetsRead() const { return packets_; }

private:
    bool start();
    // Makes `count` body bytes available at data(); false at a short read.
    bool fill(size_t count);
    bool readAt(uint64_t offset, std::span<uint8_t> out);

    struct Source;
    std::unique_ptr<Source> source_;
    ArchiveHeader header_;
    ArchiveTrailer trailer_;
    uint64_t bodyStart_ = 0;
    uint64_t bodyEnd_ = 0;
    uint64_t position_ = 0;  // next unread byte of the file
    std::vector<uint8_t> buffer_;
    size_t bufferPos_ = 0;
    size_t bufferFill_ = 0;
    uint32_t crc_ = 0;
    uint32_t packets_ = 0;
    bool checksumGood_ = false;
    bool skipChecksum_ = false;
    std::string error_;
};

// What the stream says about the tree, one event per packet that matters.
struct TreeEvent {
    enum class Type {
        kEntry,       // a file header: `path`, `attributes`; directories open
        kData,        // MOF/ENDF data of the current entry (or of a restarted
                      // file, or the grooming list): `data`, `last`
        kProblem,     // NOFILE, LOCKED, LOCKERR, LINKERR (path of the named
                      // entry), READERR (path of the current entry), NODIR
                      // (path of the directory; it closes)
        kDirClose,    // ENDDIR, FSSKIP, NFSSKIP: `path` of the directory closed
        kGroomCount,  // `text`: number of groomed files; the list follows as data
        kEnd,         // END: the stream is over
    };
    Type type = Type::kEntry;
    int8_t code = 0;
    std::string path;  // relative to the source: "" for the source, "a/b" below it
    protocol::BackupAttributes attributes;
    bool isDirectory = false;  // kEntry: kind 16 or 17
    std::span<const uint8_t> data;
    bool last = false;
    std::string text;
};

// The name of a status code ("NOFILE", "LOCKED", ...) and a few words on it.
const char* statusName(int8_t code);
const char* statusWords(int8_t code);

// Rebuilds the tree from packets pushed into it (live, by the receiver) or
// pulled from an ArchiveReader. Checks the stream's structure: names are
// single path components, directories are closed as often as opened, data
// belong to an entry, nothing but END (and keep-alives) follows the source's
// close, END comes last. A breach sets error() and stops the walk.
class TreeWalker {
public:
    enum class Result { kEvent, kSkip, kError };

    TreeWalker() = default;
    // One packet; kEvent fills `event`, kSkip is a packet without meaning
    // for the tree (WATCH_DOG, new port).
    Result push(const protocol::PacketHeader& header, std::span<const uint8_t> payload, TreeEvent& event);
    // At the end of the packets: false (with error()) unless END was seen.
    bool finish();
    const std::string& error() const { return error_; }
    bool ended() const { return ended_; }
    size_t depth() const { return dirs_.size(); }

private:
    Result fail(std::string text);
    std::string childPath(const std::string& name) const;
    // The packet kinds with more to check than their payload's size.
    Result fileHeader(std::span<const uint8_t> payload, bool first, TreeEvent& event);
    Result fileData(std::span<const uint8_t> payload, bool first, TreeEvent& event);
    Result entryProblem(std::span<const uint8_t> payload, TreeEvent& event);
    Result directoryClose(std::span<const uint8_t> payload, TreeEvent& event);

    std::vector<std::string> dirs_;  // open directories below the source
    std::string currentEntry_;
    bool inData_ = false;            // a file header's data are due
    bool sawPacket_ = false;
    bool sourceClosed_ = false;
    bool groomData_ = false;
    bool restarted_ = false;       // the stream began inside a file's data
    bool ended_ = false;
    std::string error_;
};

// Pulls events from an archive.
class ArchiveWalker {
public:
    explicit ArchiveWalker(ArchiveReader& reader) : reader_(reader) {}
    enum class Next { kEvent, kEnd, kError };
    // kEnd after the body is used up and END was seen; kError otherwise
    // (error() says why). The CRC is the reader's checksumGood().
    Next next(TreeEvent& event);
    const std::string& error() const { return error_; }

private:
    ArchiveReader& reader_;
    TreeWalker tree_;
    std::string error_;
};

}  // namespace tavik::frontend
