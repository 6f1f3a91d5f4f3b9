// The server's side of a restore command stream, for end-to-end tests:
// records built with the restore record encoder, MKDIR, OPENFILE, MOF, ENDF
// and END, and the agent's status bytes read back.
#pragma once

#include <span>
#include <string>
#include <vector>

#include "e2e/test_user.h"
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
    int endf(std::span<const uint8_t> data = {}) { return send(protocol::code::kEndf, data) ? status() : frontend::kNoAnswer; }
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
    int end() { return send(protocol::code::kEnd) ? status() : frontend::kNoAnswer; }
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
