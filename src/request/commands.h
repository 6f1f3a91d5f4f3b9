// The job's parameter phase: the backup's options record and filter items
// (GetPattern), then the command loop every job serves until the start
// command (GetCommands).
//
// Every size from the wire is checked before anything is read into memory:
// payloads (up to 65535 bytes) are allocated as sized, the filter items' data
// must fit the 16384-byte pattern text area, and the raw transfers of
// DISK_ITEM and DB_FILE are bounded by protocol::kMaxRawTransfer. Fixed-size payloads
// that arrive short read as zero-padded. Results: 0; 100 on a failed or
// refused transfer; -1 (GetCommands) when memory ran out.
#pragma once

#include <cstdint>
#include <functional>
#include <span>

#include "protocol/commands.h"
#include "request/channel.h"
#include "request/job_context.h"

namespace tavik {

[[nodiscard]] int GetPattern(Channel& channel, JobContext& ctx);

// What the jobs above the command phase serve inside it, passed down by the
// job process.
struct CommandHandlers {
    // ESTIMATE, called after code 4 was sent, with the command's payload;
    // returns 0, 100 or -1 like GetCommands. Without one, ESTIMATE is
    // rejected as an unsupported command.
    std::function<int(Channel& channel, JobContext& ctx, std::span<const uint8_t> payload)> estimate;
    // Called after a database file list was received (the backup's verbose
    // listing of it).
    std::function<void(const JobContext& ctx)> dbFileReceived;
};

[[nodiscard]] int GetCommands(Channel& channel, JobContext& ctx, const CommandHandlers& handlers = {});

// Splits `text` at its NULs into at most nFiles names (a last name without a
// NUL counts up to the end of the text).
void buildTopList(TopList& list, uint32_t nFiles, std::vector<char> text);

}  // namespace tavik
