#include "frontend/browse_client.h"

#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "frontend/login_options.h"
#include "platform/wire_stat.h"

namespace tavik::frontend {

namespace browse = protocol::browse;

std::vector<uint8_t> pathPayload(const std::string& path) {
    std::vector<uint8_t> payload(path.begin(), path.end());
    payload.push_back(0);
    return payload;
}

int BrowseClient::login(const std::string& host, uint16_t port, const RequestFields& fields) {
    error_.clear();
    if (!client_.connect(host, port)) return kNoAnswer;
    RequestFields f = fields;
    f.opMode = 14;
    return client_.request(f);
}

bool BrowseClient::send(const protocol::BrowseHeader& header, const std::vector<uint8_t>& payload) {
    error_.clear();
    protocol::BrowseHeaderBytes h = protocol::encodeBrowseHeader(header);
    std::vector<uint8_t> packet(h.begin(), h.end());
    packet.insert(packet.end(), payload.begin(), payload.end());
    return client_.sendRaw(packet);
}

bool BrowseClient::receive(BrowsePacket& packet) {
    error_.clear();
    protocol::BrowseHeaderBytes h{};
    if (!client_.recvRaw(h)) return false;
    packet.header = protocol::decodeBrowseHeader(h);
    packet.payload.assign(packet.header.length, 0);
    return client_.recvRaw(packet.payload);
}

std::optional<Listing> BrowseClient::readDir(const std::string& path, uint16_t select, int8_t version) {
    std::vector<uint8_t> payload = pathPayload(path);
    if (payload.size() > browse::kMaxRequest) {
        error_ = "path too long";
        return std::nullopt;
    }
    protocol::BrowseHeader h{select, browse::kReadDir, version, 0, static_cast<uint16_t>(payload.size())};
    if (!send(h, payload)) return std::nullopt;
    Listing listing;
    for (;;) {
        BrowsePacket p;
        if (!receive(p)) return std::nullopt;
        uint8_t code = p.header.code;
        if (code == browse::kEndOfList || code == browse::kCannotOpen) {
            listing.end = code;
            return listing;
        }
        if (code != browse::kEntry && code != browse::kLinkTarget) {
            error_ = "unexpected browse code " + std::to_string(code);
            return std::nullopt;
        }
        std::optional<protocol::BrowseEntry> e = protocol::decodeBrowseEntry(p.payload, version);
        if (!e) {
            error_ = "malformed entry";
            return std::nullopt;
        }
        if (code == browse::kEntry) {
            listing.entries.push_back(ListedEntry{std::move(*e), std::nullopt});
        } else if (listing.entries.empty() || listing.entries.back().target) {
            error_ = "link target without its link";
            return std::nullopt;
        } else {
            listing.entries.back().target = std::move(*e);
        }
    }
}

std::optional<protocol::BrowseEntry> BrowseClient::readLink(const std::string& path, int8_t version) {
    std::vector<uint8_t> payload = pathPayload(path);
    if (payload.size() > browse::kMaxRequest) {
        error_ = "path too long";
        return std::nullopt;
    }
    protocol::BrowseHeader h{0, browse::kReadLink, version, 0, static_cast<uint16_t>(payload.size())};
    if (!send(h, payload)) return std::nullopt;
    BrowsePacket p;
    if (!receive(p)) return std::nullopt;
    if (p.header.code != browse::kReadLink) {
        error_ = "unexpected browse code " + std::to_string(p.header.code);
        return std::nullopt;
    }
    std::optional<protocol::BrowseEntry> e = protocol::decodeBrowseEntry(p.payload, version);
    if (!e) error_ = "malformed entry";
    return e;
}

bool BrowseClient::logout() { return send(protocol::BrowseHeader{0, browse::kLogout, browse::kAgentVersion, 0, 0}, {}); }

bool BrowseClient::agentCloses() {
    std::array<uint8_t, 1> byte{};
    // A close with our request unread reaches us as a reset.
    return !client_.recvRaw(byte) && client_.lastError() != "no answer from the agent";
}

}  // namespace tavik::frontend

namespace tavik::frontend {

bool takeBrowseVersion(const std::vector<std::string>& args, size_t& i, int& version) {
    if (args[i] != "--browse-version" || i + 1 >= args.size()) return false;
    const std::string& v = args[i + 1];
    if (v != "20" && v != "21" && v != "22") return false;
    version = std::stoi(v);
    ++i;
    return true;
}

int openBrowseTarget(const std::string& target, LoginOptions& options, const char* usage, BrowseClient& client,
                     std::string& path) {
    std::string host, error;
    if (!splitTarget(target, host, path) || path.empty()) {
        std::fputs(usage, stderr);
        return 2;
    }
    if (!beginBrowse(client, host, options, error)) {
        std::fprintf(stderr, "tavikctl: %s: %s\n", host.c_str(), error.c_str());
        return 1;
    }
    return 0;
}

std::string describeAnswer(int code) {
    switch (code) {
        case kNoAnswer: return "no answer";
        case browse::kCannotOpen: return "the agent cannot open it (answer 101)";
        case 113: return "login refused: wrong password (answer 113)";
        case 115: return "login refused: unknown user (answer 115)";
        case 119: return "the agent could not take the login's identity (answer 119)";
        default: return "unexpected answer " + std::to_string(code);
    }
}

bool beginBrowse(BrowseClient& client, const std::string& host, LoginOptions& options, std::string& error) {
    if (!readPassword(options, error)) return false;
    int answer = client.login(host, options.port, loginRequest(options, "/"));
    std::fill(options.password.begin(), options.password.end(), '\0');
    if (answer == browse::kLogin) return true;
    if (answer == kNoAnswer)
        error = client.lastError() == "the agent closed the connection"
                    ? "the agent closed the connection without an answer (the login's identity could not be taken)"
                    : client.lastError();
    else
        error = describeAnswer(answer);
    return false;
}

std::string modeString(uint32_t mode) {
    std::string s(10, '-');
    switch (mode & S_IFMT) {
        case S_IFDIR: s[0] = 'd'; break;
        case S_IFLNK: s[0] = 'l'; break;
        case S_IFIFO: s[0] = 'p'; break;
        case S_IFSOCK: s[0] = 's'; break;
        case S_IFCHR: s[0] = 'c'; break;
        case S_IFBLK: s[0] = 'b'; break;
        default: break;
    }
    const char* rwx = "rwxrwxrwx";
    for (int i = 0; i < 9; ++i)
        if (mode & (0400u >> i)) s[1 + i] = rwx[i];
    if (mode & S_ISUID) s[3] = (mode & S_IXUSR) ? 's' : 'S';
    if (mode & S_ISGID) s[6] = (mode & S_IXGRP) ? 's' : 'S';
    if (mode & S_ISVTX) s[9] = (mode & S_IXOTH) ? 't' : 'T';
    return s;
}

std::string targetType(uint32_t mode) {
    switch (mode & S_IFMT) {
        case S_IFDIR: return "directory";
        case S_IFREG: return "regular file";
        case S_IFLNK: return "symbolic link";
        case S_IFIFO: return "fifo";
        case S_IFSOCK: return "socket";
        case S_IFCHR: return "character device";
        case S_IFBLK: return "block device";
        default: return "missing";
    }
}

std::string longListingLine(const ListedEntry& listed) {
    const protocol::BrowseEntry& e = listed.entry;
    char size[32];
    if (S_ISCHR(e.mode) || S_ISBLK(e.mode)) {
        dev_t dev = platform::decodeDev32(e.rdev);
        std::snprintf(size, sizeof size, "%u, %u", major(dev), minor(dev));
    } else {
        std::snprintf(size, sizeof size, "%u", e.size);
    }
    char when[32] = "?";
    time_t t = static_cast<time_t>(e.mtime);
    tm local{};
    if (::localtime_r(&t, &local)) std::strftime(when, sizeof when, "%Y-%m-%d %H:%M", &local);
    std::string name = e.name;
    if (!name.empty() && name[0] == '/') name.erase(0, 1);
    char head[160];
    std::snprintf(head, sizeof head, "%s %3u %5u %5u %10s %s ", modeString(e.mode).c_str(), e.links, e.uid, e.gid, size,
                  when);
    std::string line = head + name;
    if (listed.target)
        line += " -> " + listed.target->name + " (" + targetType(listed.target->mode) + ")";
    return line;
}

}  // namespace tavik::frontend
