// The server's side of a restore job: opening the job (request with the
// destination and the conflict policy, the start command) and replaying an
// archive's backup stream as the restore command stream.
//
// RestoreSender keeps the agent busy: packets are gathered into large
// writes and never wait for an answer; the one-byte status the agent gives
// after each file's ENDF is read whenever it arrives and matched, in order,
// with the files sent. ArchiveReplay walks the archive's entries, keeps
// those the selection asks for (with the directories above them), turns
// directories into MKDIR and every other entry into OPENFILE, data re-cut
// into payloads of at most 2048 bytes, and ENDF; a file whose data the
// backup could not read completely is ended and removed again (UNLINK).
//
// Fails: the sender's operations return false once the connection broke,
// a wait passed its time-out, or the agent ended the job (no space left);
// error() says why and the files still awaiting their status are reported
// as not restored.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <span>
#include <string>
#include <vector>

#include "frontend/archive.h"
#include "frontend/job_client.h"
#include "frontend/login_options.h"
#include "frontend/restore_stream.h"
#include "platform/fd.h"

namespace tavik::frontend {


// "skip", "rename", "overwrite", "newer"; false for any other word.
bool parseConflictPolicy(const std::string& word, uint8_t& out);

// The agent's per-file status in words ("restored", "skipped: ...").
std::string restoreStatusWords(uint8_t status);

// The agent's answers are 8-byte packet headers (the status in the code
// byte), each followed by the payload its length states. Calls `each` with
// the code of every complete answer in `bytes` and returns the bytes they
// take; an incomplete answer at the end is left for more bytes.
size_t splitAnswers(std::span<const uint8_t> bytes, const std::function<void(uint8_t code)>& each);

struct RestoreJobSpec {
    std::string host;
    uint16_t port = 6050;
    std::string destination;
    LoginOptions login;
    uint8_t conflict = protocol::conflict_policy::kOverwrite;
    int timeoutMs = 3600 * 1000;  // longest wait for the agent
};

// Connects, sends the request and the start command. False with `error`
// (the refusal named) when the job cannot go on.
bool openRestoreJob(JobClient& client, const RestoreJobSpec& job, std::string& error);

// The paths asked for on the command line, relative to the archive's
// source. An entry is selected when it is one of them or lies below one;
// the directories above a selected path are made too.
class RestoreSelection {
public:
    RestoreSelection() = default;
    // Arguments may be relative ("sub/x") or carry the archive's source in
    // front ("/usr/include/sys"); slashes at either end are dropped. False
    // with `error` for an argument that names nothing below the source.
    bool add(const std::string& argument, const std::string& source, std::string& error);
    bool all() const { return paths_.empty(); }
    bool selects(const std::string& path) const;
    bool isAbove(const std::string& path) const;  // a directory on the way to a selected path
    // Marks the selection paths met in the archive (an exact match).
    void met(const std::string& path);
    std::vector<std::string> unmet() const;

private:
    std::vector<std::string> paths_;
    std::vector<bool> met_;
};

struct RestoreFailure {
    std::string path;  // relative to the archive's source
    uint8_t status = 0;  // the agent's status; 0 when the file was not sent
    std::string words;
};

struct RestoreStats {
    uint64_t files = 0;        // OPENFILE sent
    uint64_t directories = 0;  // MKDIR sent
    uint64_t dataBytes = 0;    // file data sent
    uint64_t bytesSent = 0;    // everything written to the connection
    uint64_t restored = 0;     // answered 0
    uint64_t skipped = 0;      // answered "skipped by the conflict policy"
    uint64_t answers = 0;
    bool ended = false;        // END was answered
    double seconds = 0;
    std::vector<RestoreFailure> failures;  // the first kMaxFailures
    uint64_t failureCount = 0;
};

class RestoreSender {
public:
    static constexpr size_t kMaxFailures = 10000;
    static constexpr size_t kWriteSize = 1 << 20;

    // `destination` is the agent-side directory the relative paths are
    // joined to. The descriptor becomes the sender's (made non-blocking).
    RestoreSender(platform::UniqueFd connection, std::string destination, int timeoutMs);

    void setProgress(std::function<void(const RestoreStats&)> progress, int intervalMs = 250) {
        progress_ = std::move(progress);
        progressMs_ = intervalMs;
    }

    [[nodiscard]] bool directory(const std::string& path, const protocol::BackupAttributes& attributes);
    [[nodiscard]] bool beginFile(const std::string& path, const protocol::BackupAttributes& attributes);
    [[nodiscard]] bool data(std::span<const uint8_t> bytes);
    [[nodiscard]] bool endFile();
    // Ends the open file and has the agent remove it again: its data in the
    // archive are incomplete. Reported as not restored with `words`.
    [[nodiscard]] bool dropFile(const std::string& words);
    // A file that is not sent at all, reported with `words`.
    void notSent(const std::string& path, const std::string& words);
    // END, then every outstanding answer. True when END was answered.
    [[nodiscard]] bool finish();

    bool inFile() const { return inFile_; }
    const RestoreStats& stats() const { return stats_; }
    const std::string& error() const { return error_; }

private:
    bool append(std::span<const uint8_t> packet);
    // Writes out the gathered bytes, reading answers meanwhile.
    bool flush();
    bool readAnswers();
    void answer(uint8_t code);
    void fail(const std::string& path, uint8_t status, const std::string& words);
    bool broken(const std::string& why);
    void tick();

    platform::UniqueFd fd_;
    std::string destination_;
    int timeoutMs_;
    RestoreStreamEncoder encoder_;
    std::vector<uint8_t> out_;
    std::vector<uint8_t> in_;
    struct Pending {
        std::string path;
        std::string dropWords;  // set for a file removed again after its ENDF
    };
    std::deque<Pending> pending_;  // files sent, awaiting their status, in order
    std::string currentPath_;
    bool inFile_ = false;
    bool endSent_ = false;
    bool closed_ = false;  // the agent closed its side
    std::function<void(const RestoreStats&)> progress_;
    int progressMs_ = 250;
    int64_t lastProgressMs_ = 0;
    int64_t startMs_ = 0;
    RestoreStats stats_;
    std::string error_;
};

// Replays the archive's entries through `sender`. Entries the backup could
// not send are reported as not restored. False when the archive broke off
// (with `error`) or the sender failed (its error()).
bool replayArchive(ArchiveWalker& walker, RestoreSelection& selection, RestoreSender& sender, std::string& error);

}  // namespace tavik::frontend
