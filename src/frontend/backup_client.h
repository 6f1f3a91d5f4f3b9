// The server's side of a backup job: opening the job (request, options
// record, filter items, the command phase) and receiving the backup stream
// into an archive.
//
// StreamReceiver reads the stream in large pieces, writes whole packets to
// the archive as they complete, acknowledges every `ackInterval`-th file
// header or data packet as the agent expects, follows the agent to a new
// port when it renews the connection (code 16), and stops after END. The
// packets also go through a TreeWalker, for progress and for the per-entry
// problems reported at the end.
//
// Fails: with error() set when the connection breaks before END, a wait
// passes its time-out, the archive cannot be written, or a renewal cannot
// be followed. What was received stays in the archive, marked incomplete.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "frontend/archive.h"
#include "frontend/groom_request.h"
#include "frontend/job_client.h"
#include "frontend/login_options.h"
#include "platform/fd.h"

namespace tavik::frontend {

// Option flags of the job options record.
namespace option_flag {
inline constexpr uint8_t kOneFileSystem = 0x01;
inline constexpr uint8_t kWatchDog = 0x02;
inline constexpr uint8_t kRenew = 0x04;
inline constexpr uint8_t kNoAtimeReset = 0x08;
inline constexpr uint8_t kTraverseNfs = 0x20;
inline constexpr uint8_t kBufferFromAgent = 0x40;
}  // namespace option_flag

inline constexpr size_t kJobOptionsSize = 512;
inline constexpr size_t kOptRetryCountAt = 0;
inline constexpr size_t kOptRetryIntervalAt = 2;
inline constexpr size_t kOptFlagsAt = 4;

struct BackupJobSpec {
    std::string host;
    uint16_t port = 6050;
    std::string source;
    LoginOptions login;
    uint8_t follow = 0;
    uint8_t optionFlags = 0;
    uint16_t retryCount = 5;
    uint16_t retryInterval = 5;
    std::vector<std::vector<uint8_t>> filterItems;  // each item with its data
    std::vector<std::string> topNames;
    std::optional<std::pair<uint32_t, std::string>> restart;  // offset, path
    uint16_t ackInterval = 0;
    int timeoutMs = 3600 * 1000;  // longest silence of the agent
    int holdAfterEndMs = 0;
    GroomRequest groom;  // grooming of the backed-up files
};

std::vector<uint8_t> encodeJobOptions(const BackupJobSpec& job);

// Text for an answer code the agent refuses a job with.
std::string refusalText(int answer);

// Connects, sends the request and, for servers of version 50 or more, the
// options record and filter items. False with `error` set (the refusal
// named) when the job cannot go on.
bool openBackupJob(JobClient& client, const BackupJobSpec& job, std::string& error);

// The rest of a backup's command phase: DISK_ITEM, continue, start.
bool startBackupJob(JobClient& client, const BackupJobSpec& job, std::string& error);

// The ESTIMATE command on an opened job: files and kilobytes.
bool estimateJob(JobClient& client, const BackupJobSpec& job, uint32_t& files, uint32_t& kilobytes,
                 std::string& error);

struct EntryProblem {
    int8_t code = 0;
    std::string path;
};

struct ReceiveStats {
    uint64_t bytes = 0;      // body bytes received
    uint32_t packets = 0;
    uint64_t entries = 0;    // file headers and entries reported instead of sent
    uint64_t dataBytes = 0;  // file data
    uint32_t acks = 0;
    uint32_t renewals = 0;
    bool complete = false;   // END arrived
    double seconds = 0;      // from the start of run() to END (or the failure)
    std::vector<EntryProblem> problems;  // the first kMaxProblems
    uint64_t problemCount = 0;
    std::string structureError;  // the first breach of the stream's structure
    bool groomed = false;        // a grooming report came
    std::string groomCount;      // the agent's count of groomed files
    std::string groomReport;     // its grooming work file
};

class StreamReceiver {
public:
    static constexpr size_t kMaxProblems = 10000;
    static constexpr size_t kReadBuffer = 2 << 20;

    // `writer` may be null (the stream is only checked and counted).
    StreamReceiver(ArchiveWriter* writer, uint16_t ackInterval) : writer_(writer), ackInterval_(ackInterval) {}
    void setTimeoutMs(int ms) { timeoutMs_ = ms; }
    // Keeps the connection open this long after END (the agent's job
    // processes live until it closes: a benchmark samples them meanwhile).
    void setHoldAfterEndMs(int ms) { holdAfterEndMs_ = ms; }
    // Called at most every `intervalMs` while data arrive.
    void setProgress(std::function<void(const ReceiveStats&)> progress, int intervalMs = 250) {
        progress_ = std::move(progress);
        progressMs_ = intervalMs;
    }

    // Receives until END or failure; the descriptor becomes the receiver's.
    bool run(platform::UniqueFd connection);
    const ReceiveStats& stats() const { return stats_; }
    const std::string& error() const { return error_; }

private:
    bool handle(const protocol::PacketHeader& header, std::span<const uint8_t> payload);
    bool acknowledge();
    bool renew(uint16_t port);
    bool flushParsed(std::vector<uint8_t>& buffer, size_t parsed);
    void keepParsed(std::vector<uint8_t>& buffer, size_t parsed);

    ArchiveWriter* writer_;
    uint16_t ackInterval_;
    uint16_t ackCounter_ = 0;
    int timeoutMs_ = 3600 * 1000;
    int holdAfterEndMs_ = 0;
    std::function<void(const ReceiveStats&)> progress_;
    int progressMs_ = 250;
    platform::UniqueFd fd_;
    TreeWalker tree_;
    bool treeBroken_ = false;
    bool renewed_ = false;
    ReceiveStats stats_;
    std::string error_;
};

}  // namespace tavik::frontend
