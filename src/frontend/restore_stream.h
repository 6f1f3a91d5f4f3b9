// The front-end's restore stream encoder: turns decoded backup entries (the
// backup attribute record plus the entry's data) into the restore commands
// the agent obeys. A directory becomes one MKDIR; any other entry an
// OPENFILE, its data re-cut into MOF payloads of 2048 bytes and an ENDF with
// the rest (at most 2048 bytes, possibly none). The backup record is
// translated to the restore layout, with the complete path name under which
// the entry is to be made.
//
// Requires: one file at a time (beginFile, data..., endFile); the sink sends
// or keeps each finished packet.
// Fails: every operation returns false when the sink refused a packet, when
// the path name is longer than 1023 bytes or holds a NUL, or when it is
// called out of order; nothing is sent for a refused entry.
#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <vector>

#include "protocol/backup_record.h"
#include "protocol/restore_record.h"

namespace tavik::frontend {

// The restore record for a backup entry restored as `fullName`. The words
// that the restore does not read (offsets 36 and 44) are sent as 0.
protocol::RestoreAttributes restoreAttributesFor(const protocol::BackupAttributes& entry, const std::string& fullName);

// `root` and a name below it joined with exactly one "/".
std::string restorePathFor(const std::string& root, const std::string& name);

class RestoreStreamEncoder {
public:
    using Sink = std::function<bool(std::span<const uint8_t> packet)>;
    explicit RestoreStreamEncoder(Sink sink) : sink_(std::move(sink)) {}

    // MKDIR for a directory entry (by its kind or its mode).
    [[nodiscard]] bool directory(const protocol::BackupAttributes& entry, const std::string& fullName);
    // OPENFILE; the data follows through data() and endFile().
    [[nodiscard]] bool beginFile(const protocol::BackupAttributes& entry, const std::string& fullName);
    [[nodiscard]] bool data(std::span<const uint8_t> bytes);
    [[nodiscard]] bool endFile();
    // A whole entry: MKDIR for a directory, else OPENFILE, data and ENDF.
    [[nodiscard]] bool entry(const protocol::BackupAttributes& entry, const std::string& fullName,
                             std::span<const uint8_t> bytes);
    [[nodiscard]] bool end();
    [[nodiscard]] bool abort();

    static bool isDirectory(const protocol::BackupAttributes& entry);

private:
    [[nodiscard]] bool emit(int8_t code, std::span<const uint8_t> payload);

    Sink sink_;
    bool inFile_ = false;
    std::vector<uint8_t> held_;  // at most one payload between calls
    std::vector<uint8_t> packet_;  // the packet being handed to the sink
};

}  // namespace tavik::frontend
