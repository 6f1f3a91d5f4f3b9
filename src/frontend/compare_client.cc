#include "frontend/compare_client.h"

#include <array>
#include <cstring>

#include "frontend/archive.h"
#include "frontend/job_client.h"
#include "frontend/restore_stream.h"
#include "protocol/packet.h"
#include "protocol/request.h"
#include "wire/bytes.h"

namespace tavik::frontend {
namespace {

constexpr int8_t kGroomCountCode = 14;
constexpr int8_t kEndCode = 3;

bool selected(const CompareSpec& job, const std::string& path) {
    if (job.only.empty()) return true;
    for (const std::string& p : job.only) {
        if (path == p || (path.size() > p.size() && path.compare(0, p.size(), p) == 0 && path[p.size()] == '/'))
            return true;
    }
    return false;
}

// Reads the whole archive once, so a damaged one is refused before the
// agent is asked for anything.
bool archiveIntact(const std::string& path, std::string& error) {
    ArchiveReader reader;
    if (!reader.open(path)) {
        error = reader.error();
        return false;
    }
    ArchiveWalker walker(reader);
    TreeEvent event;
    ArchiveWalker::Next n;
    while ((n = walker.next(event)) == ArchiveWalker::Next::kEvent) {
    }
    if (n == ArchiveWalker::Next::kError) {
        error = "damaged archive: " + walker.error();
        return false;
    }
    if (!reader.checksumGood()) {
        error = "damaged archive: checksum or counts do not match";
        return false;
    }
    return true;
}

class Session {
public:
    Session(const CompareSpec& job, CompareResult& result) : spec_(job), result_(result) {}

    bool open(std::string& error) {
        client_.setTimeoutMs(spec_.timeoutMs);
        if (!client_.connect(spec_.host, spec_.login.port)) return fail(error, client_.lastError());
        RequestFields fields = loginRequest(spec_.login, spec_.root, protocol::kOpCompare);
        int answer = client_.request(fields);
        if (answer != protocol::code::kReady)
            return fail(error, answer == kNoAnswer ? client_.lastError()
                                                   : "the agent refused the compare (answer " + std::to_string(answer) + ")");
        std::array<uint8_t, protocol::options_layout::kSize> options{};
        wire::storeLe16(&options[protocol::options_layout::kRetryCountAt], 5);
        wire::storeLe16(&options[protocol::options_layout::kRetryIntervalAt], 5);
        options[protocol::options_layout::kFlagsAt] = spec_.detailed ? protocol::options_layout::kDetailedVerdicts : 0;
        if (client_.option(options) != protocol::code::kReady) return fail(error, "the agent refused the options");
        if (!sendGrooming(client_, spec_.groom, error)) return false;
        if (!client_.start(0)) return fail(error, client_.lastError());
        return true;
    }

    // Replays the archive's entries; false when the connection broke.
    bool replay(std::string& error) {
        ArchiveReader reader;
        if (!reader.open(spec_.archive)) return fail(error, reader.error());
        ArchiveWalker walker(reader);
        RestoreStreamEncoder encoder([this](std::span<const uint8_t> packet) {
            out_.insert(out_.end(), packet.begin(), packet.end());
            return true;
        });
        TreeEvent event;
        while (walker.next(event) == ArchiveWalker::Next::kEvent) {
            if (inFile_ && event.type != TreeEvent::Type::kData) {
                // The archive broke the file off (READERR): end it, its verdict does not count.
                if (!endFile(encoder, false)) return fail(error, client_.lastError());
            }
            switch (event.type) {
                case TreeEvent::Type::kEntry:
                    if (event.path.empty() || !selected(spec_, event.path)) break;
                    if (event.isDirectory || RestoreStreamEncoder::isDirectory(event.attributes)) {
                        if (!spec_.directories) break;
                        if (!encoder.directory(event.attributes, event.path) || !flush()) return fail(error, client_.lastError());
                        if (!verdict(event.path, answer(), true)) return fail(error, client_.lastError());
                        break;
                    }
                    if (!encoder.beginFile(event.attributes, event.path) || !flush())
                        return fail(error, client_.lastError());
                    inFile_ = true;
                    path_ = event.path;
                    attributeVerdict_ = answer();
                    if (attributeVerdict_ < 0) return fail(error, client_.lastError());
                    break;
                case TreeEvent::Type::kData:
                    if (!inFile_) break;
                    if (!encoder.data(event.data)) return fail(error, "cannot encode data");
                    if (event.last && !endFile(encoder, true)) return fail(error, client_.lastError());
                    break;
                default:
                    break;
            }
        }
        if (!walker.error().empty()) return fail(error, "damaged archive: " + walker.error());
        if (!encoder.end() || !flush()) return fail(error, client_.lastError());
        return finish(error);
    }

private:
    bool fail(std::string& error, const std::string& text) {
        error = text;
        return false;
    }

    bool flush() {
        bool ok = out_.empty() || client_.sendRaw(out_);
        out_.clear();
        return ok;
    }

    // One verdict byte from the agent, or -1.
    int answer() {
        int code = client_.readAnswer();
        return code == kNoAnswer ? -1 : int(uint8_t(code));
    }

    bool verdict(const std::string& path, int code, bool counts) {
        if (code < 0) return false;
        if (!counts) return true;
        if (code == 0) {
            ++result_.identical;
        } else {
            result_.differences.push_back({path, uint8_t(code)});
            if (verdictUnreadable(uint8_t(code)))
                ++result_.unreadable;
            else
                ++result_.different;
        }
        return true;
    }

    bool endFile(RestoreStreamEncoder& encoder, bool counts) {
        inFile_ = false;
        if (!encoder.endFile() || !flush()) return false;
        int content = answer();
        if (content < 0) return false;
        return verdict(path_, attributeVerdict_ != 0 ? attributeVerdict_ : content, counts);
    }

    // After END: the grooming report when there is one, then code 3.
    bool finish(std::string& error) {
        int code = client_.readAnswer();
        if (code == kGroomCountCode) {
            std::array<uint8_t, protocol::kGroomCountSize> count{};
            if (!client_.recvRaw(count)) return fail(error, client_.lastError());
            result_.groomed = true;
            result_.groomCount.assign(reinterpret_cast<const char*>(count.data()), strnlen(reinterpret_cast<const char*>(count.data()), count.size()));
            for (;;) {
                protocol::HeaderBytes raw{};
                if (!client_.recvRaw(raw)) return fail(error, client_.lastError());
                protocol::PacketHeader h = protocol::decodeHeader(raw);
                if (h.code != 7 && h.code != 8) {
                    code = h.code;
                    break;
                }
                std::vector<uint8_t> data(h.length);
                if (!client_.recvRaw(data)) return fail(error, client_.lastError());
                result_.groomReport.append(data.begin(), data.end());
                if (h.code == 8) {
                    code = client_.readAnswer();
                    break;
                }
            }
        }
        if (code != kEndCode)
            return fail(error, code == kNoAnswer ? client_.lastError() : "unexpected answer " + std::to_string(code) + " at the end");
        return true;
    }

    const CompareSpec& spec_;
    CompareResult& result_;
    JobClient client_;
    std::vector<uint8_t> out_;
    bool inFile_ = false;
    std::string path_;
    int attributeVerdict_ = 0;
};

}  // namespace

const char* verdictWords(uint8_t code) {
    namespace v = protocol::verdict;
    switch (code) {
        case v::kSame: return "identical";
        case v::kNoFile: return "missing or cannot be examined";
        case v::kNoDirectory: return "directory missing or cannot be examined";
        case v::kCannotOpen: return "cannot be opened";
        case v::kSize: return "size differs";
        case v::kFileDiffers: return "attributes differ";
        case v::kDirectoryDiffers: return "directory attributes differ";
        case v::kReadFailed: return "cannot be read";
        case v::kLinkUnreadable: return "link cannot be read";
        case v::kContent: return "contents differ";
        case v::kLockTestFailed: return "lock test failed";
        case v::kLocked: return "locked by another process";
        case v::kMode: return "mode differs";
        case v::kLinks: return "link count differs";
        case v::kOwner: return "owner differs";
        case v::kGroup: return "group differs";
        case v::kMtime: return "modification time differs";
        case v::kRdev: return "device number differs";
        default: return "unknown verdict";
    }
}

bool verdictUnreadable(uint8_t code) {
    return code == 0xD4 || code == 0xD8 || code == 0xD9 || code == 0xDB || code == 0xDC;
}

bool compareArchive(const CompareSpec& job, CompareResult& result, std::string& error) {
    if (!archiveIntact(job.archive, error)) return false;
    Session session(job, result);
    return session.open(error) && session.replay(error);
}

}  // namespace tavik::frontend
