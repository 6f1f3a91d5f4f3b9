// The server's side of a browse job: logging in with a job request of type
// 14, listing directories and the mounted file systems, reading links, and
// logging out.
//
// The agent answers the job request with its LOGIN packet (browse code 14)
// or, when it refuses the caller, with a job-protocol refusal code; both
// carry the code in byte 2. Every browse packet is sent as one buffer.
// Fails: operations return false (or kNoAnswer) with lastError() set when
// the connection fails, the agent closes it or a packet is malformed.
#pragma once

#include "frontend/net.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "frontend/job_client.h"
#include "protocol/browse.h"

namespace tavik::frontend {

struct BrowsePacket {
    protocol::BrowseHeader header;
    std::vector<uint8_t> payload;
};

// One listed entry and, for a link from version 21 on, its target.
struct ListedEntry {
    protocol::BrowseEntry entry;
    std::optional<protocol::BrowseEntry> target;
};

struct Listing {
    uint8_t end = 0;  // 16 end of listing, 101 cannot be opened
    std::vector<ListedEntry> entries;
};

class BrowseClient {
public:
    // Connects and sends the browse job request; returns the agent's first
    // code: 14 (LOGIN) when browsing may begin, a refusal code, or kNoAnswer.
    int login(const std::string& host, uint16_t port, const RequestFields& fields);

    // Packets of the browse protocol, raw.
    bool send(const protocol::BrowseHeader& header, const std::vector<uint8_t>& payload);
    bool sendBytes(const std::vector<uint8_t>& bytes) { return client_.sendRaw(bytes); }
    bool receive(BrowsePacket& packet);

    // A READ_DIR and its answer (an empty `path` from version 22 on: the
    // mounted file systems).
    std::optional<Listing> readDir(const std::string& path, uint16_t select, int8_t version);
    // A READ_LINK and its answer; none when the agent could not read the
    // link (it then ends the job).
    std::optional<protocol::BrowseEntry> readLink(const std::string& path, int8_t version);
    bool logout();

    // True when the agent ended the connection (closed or reset it) instead
    // of sending; false on data or when the time-out passed.
    bool agentCloses();

    JobClient& connection() { return client_; }
    const std::string& lastError() const { return error_.empty() ? client_.lastError() : error_; }

private:
    JobClient client_;
    std::string error_;
};

// The request payload of READ_DIR and READ_LINK: the path and its NUL.
std::vector<uint8_t> pathPayload(const std::string& path);

}  // namespace tavik::frontend

namespace tavik::frontend {

struct LoginOptions;


// Takes "--browse-version 20|21|22" at args[i] into `version`; true when it
// took it (i then indexes the value).
bool takeBrowseVersion(const std::vector<std::string>& args, size_t& i, int& version);

// Splits HOST:/path and logs in for browsing. 0 when `client` is ready;
// otherwise the exit status, after printing `usage` (2) or the failure (1).
int openBrowseTarget(const std::string& target, LoginOptions& options, const char* usage, BrowseClient& client,
                     std::string& path);

// Logs in for a tavikctl command with the login options (password from
// TAVIK_PASSWORD or a prompt); false with `error` in words.
bool beginBrowse(BrowseClient& client, const std::string& host, LoginOptions& options, std::string& error);

// The agent's answers in words.
std::string describeAnswer(int code);

// "drwxr-xr-x" and friends.
std::string modeString(uint32_t mode);
// The file type of a link's target in words ("missing" for a target that
// could not be examined).
std::string targetType(uint32_t mode);
// One line of `tavikctl ls`: type and permissions, links, owner and group,
// size (major, minor for devices), modification time (local, YYYY-MM-DD
// HH:MM), name, and "-> target (type)" for a link.
std::string longListingLine(const ListedEntry& listed);

}  // namespace tavik::frontend
