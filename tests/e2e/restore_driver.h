// The server's side of a restore or compare command stream, for end-to-end
// tests: records built with the restore record encoder, MKDIR, OPENFILE,
// MOF, ENDF and END, and the agent's status bytes read back; what a backup
// would have recorded of a file on disk; the grooming report after END.
#pragma once

#include <span>
#include <string>
#include <utility>
#include <vector>

#include "e2e/test_user.h"
#include "platform/wire_stat.h"
#include "protocol/restore_record.h"

namespace tavik::test {

inline std::vector<uint8_t> encode(const protocol::RestoreAttributes& a) {
    return protocol::encodeRestoreAttributes(a);
}
inline std::span<const uint8_t> bytes(const std::string& s) {
    return {reinterpret_cast<const uint8_t*>(s.data()), s.size()};
}

// A record for `name`: one link, accessed an hour after `mtime`.
inline protocol::RestoreAttributes restoreAttrs(const std::string& name, uint32_t mode, uint32_t uid = 0,
                                               uint32_t gid = 0, uint32_t mtime = 1000000000) {
    return {.mode = mode, .nlink = 1, .uid = uid, .gid = gid, .atime = mtime + 3600, .mtime = mtime, .name = name};
}

// What a backup of `path` records now, sent under `name`.
inline protocol::RestoreAttributes tapeOf(const std::string& path, const std::string& name) {
    using namespace platform;
    struct stat st = statOf(path);
    return {.dev = encodeDev32(st.st_dev), .ino = uint32_t(st.st_ino), .mode = st.st_mode,
            .nlink = uint32_t(st.st_nlink), .uid = st.st_uid, .gid = st.st_gid, .rdev = encodeDev32(st.st_rdev),
            .atime = wireTime(st.st_atime), .mtime = wireTime(st.st_mtime), .size = wireSize(st.st_size),
            .name = name};
}

// The answers of one compared file: after OPENFILE and after ENDF.
using Verdicts = std::pair<int, int>;

// After END of a grooming compare: the 16 bytes of the count ("" when no
// report came) and the work file.
struct GroomingReport {
    std::string count, work;
};

// The server's side of the command stream. With an acknowledgement interval
// the agent's acknowledgements of MOF packets are read (and checked) as they
// fall due.
class RestoreDriver {
public:
    explicit RestoreDriver(frontend::JobClient& client, uint16_t ackInterval = 0)
        : client_(client), ackInterval_(ackInterval) {}

    bool send(int8_t code, std::span<const uint8_t> payload = {}) {
        return client_.sendRaw(frontend::buildCommand(code, 0, payload));
    }
    // Any command and its answer (0..255), or frontend::kNoAnswer.
    int command(int8_t code, std::span<const uint8_t> payload = {}) {
        return send(code, payload) ? status() : frontend::kNoAnswer;
    }
    bool mkdir(const protocol::RestoreAttributes& a) { return send(protocol::code::kMkdir, encode(a)); }
    bool openFile(const protocol::RestoreAttributes& a) { return send(protocol::code::kOpenFile, encode(a)); }
    // One MOF packet; false also when a due acknowledgement did not come.
    bool mof(std::span<const uint8_t> data) {
        if (!send(protocol::code::kMof, data)) return false;
        if (ackInterval_ == 0 || ++mofs_ % ackInterval_ != 0) return true;
        ++acks_;
        return client_.readAnswer() == 0;
    }
    // ENDF with its data; the file's status byte (0..255) or frontend::kNoAnswer.
    int endf(std::span<const uint8_t> data = {}) { return command(protocol::code::kEndf, data); }
    // The data in MOF payloads of at most 2048 bytes, the rest with ENDF.
    int data(const std::string& text) {
        std::span<const uint8_t> rest = bytes(text);
        for (; rest.size() > protocol::kMaxDataPayload; rest = rest.subspan(protocol::kMaxDataPayload))
            if (!mof(rest.first(protocol::kMaxDataPayload))) return frontend::kNoAnswer;
        return endf(rest);
    }
    // OPENFILE and the data.
    int file(const protocol::RestoreAttributes& a, const std::string& text = "") {
        return openFile(a) ? data(text) : frontend::kNoAnswer;
    }
    // A compare's OPENFILE, its answer, then the data.
    Verdicts compare(const protocol::RestoreAttributes& a, const std::string& text = "") {
        int open = compareOpen(a);
        return {open, open == frontend::kNoAnswer ? open : data(text)};
    }
    // A compare's OPENFILE or MKDIR and its answer.
    int compareOpen(const protocol::RestoreAttributes& a) { return command(protocol::code::kOpenFile, encode(a)); }
    int compareDir(const protocol::RestoreAttributes& a) { return command(protocol::code::kMkdir, encode(a)); }
    int end() { return command(protocol::code::kEnd); }
    // END, then with files groomed code 14, the count and the work file in
    // MOF packets of 2048 bytes and a shorter ENDF (checked); the job then
    // ends with 3 and the agent closes the connection (checked).
    GroomingReport endWithReport() {
        GroomingReport report;
        int answer = end();
        if (answer == 14) {
            std::array<uint8_t, 16> count{};
            EXPECT_TRUE(client_.recvRaw(count));
            report.count.assign(count.begin(), count.end());
            for (int code = protocol::code::kMof; code == protocol::code::kMof;) {
                std::array<uint8_t, 8> h{};
                if (!client_.recvRaw(h)) break;
                code = h[2];
                std::string data(wire::loadLe16(&h[6]), '\0');
                if (!data.empty() && !client_.recvRaw({reinterpret_cast<uint8_t*>(data.data()), data.size()})) break;
                bool last = code == protocol::code::kEndf && data.size() < protocol::kMaxDataPayload;
                EXPECT_TRUE(code == protocol::code::kMof ? data.size() == protocol::kMaxDataPayload : last)
                    << code << " " << data.size();
                report.work += data;
            }
            answer = status();
        }
        EXPECT_EQ(answer, 3);
        EXPECT_EQ(client_.readAnswer(), frontend::kNoAnswer) << "the agent closes the connection";
        return report;
    }
    int status() {
        int answer = client_.readAnswer();
        return answer == frontend::kNoAnswer ? answer : answer & 0xFF;
    }
    int acks() const { return acks_; }

private:
    frontend::JobClient& client_;
    uint16_t ackInterval_;
    int mofs_ = 0;
    int acks_ = 0;
};

}  // namespace tavik::test
