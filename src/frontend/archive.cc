#include "frontend/archive.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include <isa-l/crc.h>

#include "platform/whole_io.h"
#include "wire/bytes.h"

namespace tavik::frontend {
namespace {

using namespace archive_layout;
namespace code = protocol::code;

constexpr size_t kWriteBuffer = 1 << 20;
constexpr size_t kReadBuffer = 1 << 20;
static_assert(kReadBuffer >= protocol::kHeaderSize + 0xFFFF, "a whole packet fits the read buffer");
// Deepest directory nesting the walker follows (the agent stops at 51).
constexpr size_t kMaxDepth = 256;

std::string errnoText(const char* what) { return std::string(what) + ": " + std::strerror(errno); }

bool writeAll(int fd, const uint8_t* data, size_t size, std::string& error) {
    if (platform::writeAll(fd, data, size)) return true;
    error = errnoText("cannot write the archive");
    return false;
}

// A text payload: its bytes up to the NUL, which must lie inside it.
bool payloadText(std::span<const uint8_t> payload, std::string& out) {
    const void* nul = payload.empty() ? nullptr : std::memchr(payload.data(), 0, payload.size());
    if (!nul) return false;
    out.assign(reinterpret_cast<const char*>(payload.data()), size_t(static_cast<const uint8_t*>(nul) - payload.data()));
    return true;
}

// One path component: what a restore may create below its target.
bool goodName(const std::string& name) {
    return !name.empty() && name.size() <= protocol::kMaxRecordName && name != "." && name != ".." &&
           name.find('/') == std::string::npos;
}

}  // namespace

uint32_t crc32Update(uint32_t crc, std::span<const uint8_t> bytes) {
    // The CRC-32 of zlib and gzip, computed with the carry-less multiply
    // instructions where the processor has them: at several GB/s it costs
    // the receiver a tenth of what the table-driven version did.
    return crc32_gzip_refl(crc, bytes.data(), bytes.size());
}

std::vector<uint8_t> encodeArchiveHeader(const ArchiveHeader& header) {
    if (header.host.size() > kMaxHost || header.source.size() > kMaxSource) return {};
    if (header.host.find('\0') != std::string::npos || header.source.find('\0') != std::string::npos) return {};
    size_t size = kFixedHeaderSize + header.host.size() + header.source.size();
    std::vector<uint8_t> out(size, 0);
    wire::ByteWriter w(out);
    bool ok = w.putBytes({reinterpret_cast<const uint8_t*>(kArchiveMagic), kMagicWidth}) &&
              w.putLe16(header.formatVersion) && w.putLe16(uint16_t(size)) && w.putLe32(header.created) &&
              w.putU8(uint8_t(header.serverVersion)) && w.putU8(0) && w.putLe16(uint16_t(header.host.size())) &&
              w.putLe16(uint16_t(header.source.size())) &&
              w.putBytes({reinterpret_cast<const uint8_t*>(header.host.data()), header.host.size()}) &&
              w.putBytes({reinterpret_cast<const uint8_t*>(header.source.data()), header.source.size()});
    if (!ok) return {};
    return out;
}

bool decodeArchiveHeaderFixed(std::span<const uint8_t> fixed, ArchiveHeader& out, size_t& needed, std::string& error) {
    wire::ByteReader r(fixed);
    std::span<const uint8_t> magic;
    uint16_t format, length, hostLength, sourceLength;
    uint8_t version, reserved;
    if (!(r.view(kMagicWidth, magic) && r.getLe16(format) && r.getLe16(length) && r.getLe32(out.created) &&
          r.getU8(version) && r.getU8(reserved) && r.getLe16(hostLength) && r.getLe16(sourceLength))) {
        error = "not an archive: too short";
        return false;
    }
    if (std::memcmp(magic.data(), kArchiveMagic, kMagicWidth) != 0) {
        error = "not an archive (bad magic)";
        return false;
    }
    if (format != kArchiveFormatVersion) {
        error = "archive format version " + std::to_string(format) + " is not supported";
        return false;
    }
    if (hostLength > kMaxHost || sourceLength > kMaxSource ||
        length != kFixedHeaderSize + size_t(hostLength) + size_t(sourceLength)) {
        error = "damaged archive header (lengths)";
        return false;
    }
    out.formatVersion = format;
    out.serverVersion = version;
    out.host.assign(hostLength, '\0');
    out.source.assign(sourceLength, '\0');
    needed = length;
    return true;
}

std::vector<uint8_t> encodeArchiveTrailer(const ArchiveTrailer& trailer) {
    std::vector<uint8_t> out(kTrailerSize, 0);
    std::memcpy(&out[kTrailerMagicAt], kTrailerMagic, kMagicWidth);
    wire::storeLe32(&out[kTrailerCrcAt], trailer.crc);
    wire::storeLe32(&out[kTrailerBodyLowAt], uint32_t(trailer.bodyLength));
    wire::storeLe32(&out[kTrailerBodyHighAt], uint32_t(trailer.bodyLength >> 32));
    wire::storeLe32(&out[kTrailerPacketsAt], trailer.packetCount);
    wire::storeLe32(&out[kTrailerFlagsAt], trailer.complete ? kFlagComplete : 0);
    wire::storeLe32(&out[kTrailerSelfCrcAt], crc32Update(0, {out.data(), kTrailerSelfCrcAt}));
    return out;
}

bool decodeArchiveTrailer(std::span<const uint8_t> bytes, ArchiveTrailer& out, std::string& error) {
    if (bytes.size() != kTrailerSize || std::memcmp(bytes.data(), kTrailerMagic, kMagicWidth) != 0) {
        error = "no archive trailer (truncated or damaged archive)";
        return false;
    }
    if (wire::loadLe32(&bytes[kTrailerSelfCrcAt]) != crc32Update(0, bytes.first(kTrailerSelfCrcAt))) {
        error = "damaged archive trailer (checksum)";
        return false;
    }
    out.crc = wire::loadLe32(&bytes[kTrailerCrcAt]);
    out.bodyLength = uint64_t(wire::loadLe32(&bytes[kTrailerBodyLowAt])) |
                     (uint64_t(wire::loadLe32(&bytes[kTrailerBodyHighAt])) << 32);
    out.packetCount = wire::loadLe32(&bytes[kTrailerPacketsAt]);
    out.complete = (wire::loadLe32(&bytes[kTrailerFlagsAt]) & kFlagComplete) != 0;
    return true;
}

// ---- writer ----

ArchiveWriter::~ArchiveWriter() {
    if (ownsFd_ && fd_ >= 0) ::close(fd_);
}

bool ArchiveWriter::open(const std::string& path, const ArchiveHeader& header) {
    if (path == "-") return openFd(STDOUT_FILENO, header);
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) {
        error_ = errnoText(("cannot create " + path).c_str());
        return false;
    }
    bool ok = openFd(fd, header);
    ownsFd_ = true;
    return ok;
}

bool ArchiveWriter::openFd(int fd, const ArchiveHeader& header) {
    fd_ = fd;
    buffer_.assign(kWriteBuffer, 0);
    std::vector<uint8_t> bytes = encodeArchiveHeader(header);
    if (bytes.empty()) {
        error_ = "host or source path too long for the archive header";
        return false;
    }
    crc_ = crc32Update(0, bytes);
    return put(bytes);
}

bool ArchiveWriter::writeBody(std::span<const uint8_t> bytes) {
    crc_ = crc32Update(crc_, bytes);
    bodyLength_ += bytes.size();
    return put(bytes);
}

bool ArchiveWriter::put(std::span<const uint8_t> bytes) {
    if (fd_ < 0) {
        if (error_.empty()) error_ = "archive not open";
        return false;
    }
    if (bytes.size() > buffer_.size() - fill_ && !flush()) return false;
    if (bytes.size() >= buffer_.size()) return writeAll(fd_, bytes.data(), bytes.size(), error_);
    if (!bytes.empty()) std::memcpy(buffer_.data() + fill_, bytes.data(), bytes.size());
    fill_ += bytes.size();
    return true;
}

bool ArchiveWriter::flush() {
    if (fill_ == 0) return true;
    bool ok = writeAll(fd_, buffer_.data(), fill_, error_);
    fill_ = 0;
    return ok;
}

bool ArchiveWriter::finish(uint32_t packetCount, bool complete) {
    ArchiveTrailer t;
    t.crc = crc_;
    t.bodyLength = bodyLength_;
    t.packetCount = packetCount;
    t.complete = complete;
    bool ok = put(encodeArchiveTrailer(t)) && flush();
    if (ownsFd_ && fd_ >= 0) {
        if (::close(fd_) != 0 && ok) {
            error_ = errnoText("cannot close the archive");
            ok = false;
        }
        ownsFd_ = false;
    }
    fd_ = -1;
    return ok;
}

// ---- reader ----

struct ArchiveReader::Source {
    int fd = -1;
    std::span<const uint8_t> memory;
    uint64_t size = 0;
    ~Source() {
        if (fd >= 0) ::close(fd);
    }
};

ArchiveReader::ArchiveReader() = default;
ArchiveReader::~ArchiveReader() = default;

bool ArchiveReader::open(const std::string& path) {
    source_ = std::make_unique<Source>();
    source_->fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (source_->fd < 0) {
        error_ = errnoText(("cannot open " + path).c_str());
        return false;
    }
    struct stat st {};
    if (::fstat(source_->fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        error_ = path + ": not a regular file";
        return false;
    }
    source_->size = uint64_t(st.st_size);
    return start();
}

bool ArchiveReader::openMemory(std::span<const uint8_t> bytes) {
    source_ = std::make_unique<Source>();
    source_->memory = bytes;
    source_->size = bytes.size();
    return start();
}

bool ArchiveReader::readAt(uint64_t offset, std::span<uint8_t> out) {
    if (offset > source_->size || out.size() > source_->size - offset) {
        error_ = "archive truncated";
        return false;
    }
    if (source_->fd < 0) {
        if (!out.empty()) std::memcpy(out.data(), source_->memory.data() + offset, out.size());
        return true;
    }
    ssize_t got = platform::preadAll(source_->fd, out.data(), out.size(), off_t(offset));
    if (got == ssize_t(out.size())) return true;
    error_ = got >= 0 ? "archive truncated" : errnoText("cannot read the archive");
    return false;
}

bool ArchiveReader::start() {
    error_.clear();
    uint64_t size = source_->size;
    if (size < kFixedHeaderSize + kTrailerSize) {
        error_ = "not an archive: too short";
        return false;
    }
    std::vector<uint8_t> fixed(kFixedHeaderSize);
    size_t headerLength = 0;
    if (!readAt(0, fixed) || !decodeArchiveHeaderFixed(fixed, header_, headerLength, error_)) return false;
    if (headerLength > size - kTrailerSize) {
        error_ = "archive truncated (header)";
        return false;
    }
    std::vector<uint8_t> texts(headerLength - kFixedHeaderSize);
    if (!readAt(kFixedHeaderSize, texts)) return false;
    // std::copy_n, not memcpy: an archive of no host and no source has no texts at all.
    std::copy_n(texts.begin(), header_.host.size(), header_.host.begin());
    std::copy_n(texts.begin() + std::ptrdiff_t(header_.host.size()), header_.source.size(), header_.source.begin());
    std::vector<uint8_t> trailer(kTrailerSize);
    if (!readAt(size - kTrailerSize, trailer) || !decodeArchiveTrailer(trailer, trailer_, error_)) return false;
    crc_ = crc32Update(crc32Update(0, fixed), texts);
    bodyStart_ = headerLength;
    bodyEnd_ = size - kTrailerSize;
    // No packet is longer than the body: a small archive needs no large buffer.
    buffer_.assign(bodyEnd_ - bodyStart_ < kReadBuffer ? size_t(bodyEnd_ - bodyStart_) : kReadBuffer, 0);
    position_ = bodyStart_;
    bufferPos_ = bufferFill_ = 0;
    packets_ = 0;
    checksumGood_ = false;
    return true;
}

bool ArchiveReader::fill(size_t count) {
    size_t have = bufferFill_ - bufferPos_;
    if (have >= count) return true;
    if (count > buffer_.size() || bodyEnd_ - position_ < count) {
        error_ = "archive truncated";
        return false;
    }
    if (have > 0) std::memmove(buffer_.data(), buffer_.data() + bufferPos_, have);
    bufferPos_ = 0;
    bufferFill_ = have;
    uint64_t left = bodyEnd_ - (position_ + have);
    size_t want = buffer_.size() - have;
    if (left < want) want = size_t(left);
    if (!readAt(position_ + have, {buffer_.data() + have, want})) return false;
    bufferFill_ += want;
    return bufferFill_ >= count;
}

ArchiveReader::Next ArchiveReader::next(ArchivePacket& out) {
    if (!source_ || !error_.empty()) return Next::kError;
    if (position_ == bodyEnd_) {
        checksumGood_ = !skipChecksum_ && crc_ == trailer_.crc && trailer_.bodyLength == bodyEnd_ - bodyStart_ &&
                        trailer_.packetCount == packets_;
        return Next::kEnd;
    }
    // Formatted only for an error: next() runs once per packet.
    auto where = [this]() { return " at offset " + std::to_string(position_); };
    if (bodyEnd_ - position_ < protocol::kHeaderSize || !fill(protocol::kHeaderSize)) {
        error_ = std::string("truncated packet header") + where();
        return Next::kError;
    }
    protocol::HeaderBytes hb{};
    std::memcpy(hb.data(), buffer_.data() + bufferPos_, hb.size());
    protocol::PacketHeader h = protocol::decodeHeader(hb);
    uint64_t room = bodyEnd_ - position_ - protocol::kHeaderSize;
    if (h.length > room || !fill(protocol::kHeaderSize + h.length)) {
        error_ = "packet of " + std::to_string(h.length) + " payload bytes overruns the body" + where();
        return Next::kError;
    }
    size_t total = protocol::kHeaderSize + h.length;
    std::span<const uint8_t> packet(buffer_.data() + bufferPos_, total);
    if (!skipChecksum_) crc_ = crc32Update(crc_, packet);
    out.header = h;
    out.payload = packet.subspan(protocol::kHeaderSize);
    out.offset = position_;
    bufferPos_ += total;
    position_ += total;
    ++packets_;
    return Next::kPacket;
}

// ---- tree ----

const char* statusName(int8_t c) {
    switch (c) {
    case code::kEnd: return "END";
    case code::kEndDir: return "ENDDIR";
    case code::kNfsSkip: return "NFSSKIP";
    case code::kFsSkip: return "FSSKIP";
    case code::kNoDir: return "NODIR";
    case code::kNoFile: return "NOFILE";
    case code::kReadErr: return "READERR";
    case code::kLinkErr: return "LINKERR";
    case code::kLocked: return "LOCKED";
    case code::kLockErr: return "LOCKERR";
    case code::kGroomCount: return "GROOMCOUNT";
    default: return "UNKNOWN";
    }
}

const char* statusWords(int8_t c) {
    switch (c) {
    case code::kEndDir: return "end of directory";
    case code::kNfsSkip: return "NFS-mounted, not traversed";
    case code::kFsSkip: return "on another file system, not traversed";
    case code::kNoDir: return "directory cannot be examined or opened";
    case code::kNoFile: return "cannot be opened";
    case code::kReadErr: return "data could not be read";
    case code::kLinkErr: return "symbolic link target cannot be read";
    case code::kLocked: return "locked by another process";
    case code::kLockErr: return "lock test failed";
    default: return "unknown status";
    }
}

TreeWalker::Result TreeWalker::fail(std::string text) {
    error_ = std::move(text);
    return Result::kError;
}

std::string TreeWalker::childPath(const std::string& name) const {
    return dirs_.empty() ? name : dirs_.back() + "/" + name;
}

TreeWalker::Result TreeWalker::push(const protocol::PacketHeader& header, std::span<const uint8_t> payload,
                                    TreeEvent& event) {
    if (!error_.empty()) return Result::kError;
    const int8_t c = header.code;
    if (ended_) return fail("packet after END");
    const bool first = !sawPacket_;
    if (c != code::kWatchDog && c != code::kNewPort) sawPacket_ = true;
    event = TreeEvent{};
    event.code = c;

    switch (c) {
    case code::kWatchDog:
    case code::kNewPort:
        if (!payload.empty()) return fail(std::string("keep-alive or new-port packet with a payload"));
        return Result::kSkip;
    case code::kEnd:
        if (!payload.empty()) return fail("END with a payload");
        if (inData_ && !groomData_) return fail("END inside the data of " + currentEntry_);
        if (!dirs_.empty()) return fail("END while directory " + dirs_.back() + " is open");
        ended_ = true;
        event.type = TreeEvent::Type::kEnd;
        return Result::kEvent;
    case code::kFileHeader:
        return fileHeader(payload, first, event);
    case code::kMof:
    case code::kEndf:
        return fileData(payload, first, event);
    case code::kReadErr:
        if (!payload.empty()) return fail("READERR with a payload");
        if (!inData_ && !first) return fail("READERR without a file");
        event.type = TreeEvent::Type::kProblem;
        event.path = currentEntry_;
        inData_ = false;
        groomData_ = false;
        return Result::kEvent;
    case code::kNoFile:
    case code::kLocked:
    case code::kLockErr:
    case code::kLinkErr:
        return entryProblem(payload, event);
    case code::kNoDir:
    case code::kEndDir:
    case code::kFsSkip:
    case code::kNfsSkip:
        return directoryClose(payload, event);
    case code::kGroomCount:
        if (!payloadText(payload, event.text)) return fail("GROOMCOUNT without a text");
        if (inData_) return fail("GROOMCOUNT inside the data of " + currentEntry_);
        event.type = TreeEvent::Type::kGroomCount;
        inData_ = true;
        groomData_ = true;
        currentEntry_.clear();
        return Result::kEvent;
    default:
        return fail("unknown packet code " + std::to_string(int(c)));
    }
}

TreeWalker::Result TreeWalker::fileHeader(std::span<const uint8_t> payload, bool first, TreeEvent& event) {
    if (inData_) return fail("file header inside the data of " + currentEntry_);
    if (sourceClosed_) return fail("file header after the source was closed");
    auto attrs = protocol::decodeBackupAttributes(payload);
    if (!attrs) return fail("damaged file header");
    event.type = TreeEvent::Type::kEntry;
    if (attrs->kind == protocol::kKindSource) {
        if (!first) return fail("source header not at the start of the stream");
        if (!attrs->name.empty()) return fail("source header with a name");
        event.isDirectory = true;
    } else {
        if (!goodName(attrs->name)) return fail("bad entry name in a file header");
        event.path = childPath(attrs->name);
        if (attrs->kind == protocol::kKindDirectory) {
            if (dirs_.size() >= kMaxDepth) return fail("directories nested too deep");
            dirs_.push_back(event.path);
            event.isDirectory = true;
        } else {
            inData_ = true;
            currentEntry_ = event.path;
        }
    }
    event.attributes = std::move(*attrs);
    return Result::kEvent;
}

TreeWalker::Result TreeWalker::fileData(std::span<const uint8_t> payload, bool first, TreeEvent& event) {
    if (!inData_) {
        if (!first) return fail("file data without a file header");
        // A restarted stream begins inside a file whose header came before.
        restarted_ = true;
        inData_ = true;
        currentEntry_.clear();
    }
    event.type = TreeEvent::Type::kData;
    event.path = groomData_ ? std::string() : currentEntry_;
    event.data = payload;
    event.last = event.code == code::kEndf;
    if (event.last) {
        inData_ = false;
        groomData_ = false;
    }
    return Result::kEvent;
}

// NOFILE, LOCKED, LOCKERR, LINKERR: an entry the backup could not send.
TreeWalker::Result TreeWalker::entryProblem(std::span<const uint8_t> payload, TreeEvent& event) {
    const int8_t c = event.code;
    if (!payloadText(payload, event.text) || !goodName(event.text))
        return fail(std::string(statusName(c)) + " without a good entry name");
    if (inData_ && c != code::kNoFile) return fail(std::string(statusName(c)) + " inside the data of " + currentEntry_);
    if (sourceClosed_) return fail(std::string(statusName(c)) + " after the source was closed");
    event.type = TreeEvent::Type::kProblem;
    if (inData_) {
        // A listed raw device that cannot be opened, after its header.
        event.path = currentEntry_;
        inData_ = false;
    } else {
        event.path = childPath(event.text);
    }
    return Result::kEvent;
}

// NODIR, ENDDIR, FSSKIP, NFSSKIP: the directory open last is closed.
TreeWalker::Result TreeWalker::directoryClose(std::span<const uint8_t> payload, TreeEvent& event) {
    const int8_t c = event.code;
    if (c == code::kNoDir) {
        if (!payload.empty() && !payloadText(payload, event.text)) return fail("NODIR with an unterminated text");
    } else if (!payload.empty()) {
        return fail(std::string(statusName(c)) + " with a payload");
    }
    if (inData_) return fail(std::string(statusName(c)) + " inside the data of " + currentEntry_);
    event.type = c == code::kNoDir ? TreeEvent::Type::kProblem : TreeEvent::Type::kDirClose;
    if (!dirs_.empty()) {
        event.path = dirs_.back();
        dirs_.pop_back();
    } else if (restarted_) {
        // A directory whose header went before the restart point.
    } else if (!sourceClosed_) {
        sourceClosed_ = true;
    } else {
        return fail(std::string(statusName(c)) + " closes no directory");
    }
    return Result::kEvent;
}

bool TreeWalker::finish() {
    if (!error_.empty()) return false;
    if (!ended_) {
        error_ = "the stream has no END (the backup did not finish)";
        return false;
    }
    return true;
}

ArchiveWalker::Next ArchiveWalker::next(TreeEvent& event) {
    for (;;) {
        ArchivePacket packet;
        switch (reader_.next(packet)) {
        case ArchiveReader::Next::kError:
            error_ = reader_.error();
            return Next::kError;
        case ArchiveReader::Next::kEnd:
            if (!tree_.finish()) {
                error_ = tree_.error();
                return Next::kError;
            }
            return Next::kEnd;
        case ArchiveReader::Next::kPacket:
            break;
        }
        switch (tree_.push(packet.header, packet.payload, event)) {
        case TreeWalker::Result::kEvent: return Next::kEvent;
        case TreeWalker::Result::kSkip: continue;
        case TreeWalker::Result::kError:
            error_ = tree_.error() + " (packet at offset " + std::to_string(packet.offset) + ")";
            return Next::kError;
        }
    }
}

}  // namespace tavik::frontend
