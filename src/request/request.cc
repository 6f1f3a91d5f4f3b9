#include "request/request.h"

#include <cstdio>
#include <cstring>
#include <vector>

#include "log/ulog.h"
#include "transport/packet.h"

namespace tavik {
namespace {

constexpr const char* kPrefix = "(GetRequest) ";

// Appends one formatted step to the dump line being built.
template <typename... Args>
void appendf(std::string& line, const char* format, Args... args) {
    char piece[512];
    std::snprintf(piece, sizeof piece, format, args...);
    line += piece;
}

void dumpList(const char* title, const protocol::JobRequest& r, size_t countAt, size_t modeAt, size_t listAt) {
    uint8_t count = r.raw[countAt];
    if (count == 0) return;
    ulogText(title);
    ulog("fileCount=%d %s", count, r.raw[modeAt] ? "Include" : "Exclude");
    size_t shown = count < protocol::request_layout::kListEntries ? count : protocol::request_layout::kListEntries;
    for (size_t i = 0; i < shown; ++i) {
        const char* at = reinterpret_cast<const char*>(r.raw.data() + listAt + i * protocol::request_layout::kListEntryWidth);
        std::string pattern(at, strnlen(at, protocol::request_layout::kListEntryWidth));
        ulog("      '%s'", pattern.c_str());
    }
}

}  // namespace

int8_t refineServerVersion(int8_t version, uint8_t flags) {
    if (version != '2') return version;
    if (flags & 0x40) return '4';
    if (flags & 0x80) return '3';
    return version;
}

int GetRequest(Channel& channel, JobContext& ctx) {
    protocol::HeaderBytes hb{};
    if (channel.recv(hb.data(), hb.size()) != 0) {
        ulog(MSG_FAILED_RECEIVE_HEADER_PACKET, kPrefix);
        return transport::kFailed;
    }
    protocol::PacketHeader header = protocol::decodeHeader(hb);
    if (header.length != 0) {
        if (header.length > protocol::kMaxRequestLength) {
            ulog(MSG_FAILED_RECEIVE_DATA_PACKET, kPrefix);
            return transport::kFailed;
        }
        if (channel.recv(ctx.request.raw.data(), ctx.request.raw.size()) != 0) {
            ulog(MSG_FAILED_RECEIVE_DATA_PACKET, kPrefix);
            return transport::kFailed;
        }
        ctx.jobRoot.clear();
        if (header.length > protocol::request_layout::kSize) {
            std::vector<uint8_t> root(header.length - protocol::request_layout::kSize);
            if (channel.recv(root.data(), root.size()) != 0) {
                ulog(MSG_FAILED_RECEIVE_DATA_PACKET, kPrefix);
                return transport::kFailed;
            }
            const char* text = reinterpret_cast<const char*>(root.data());
            ctx.jobRoot.assign(text, strnlen(text, root.size()));
        } else {
            ctx.jobRoot = ctx.request.root();
        }
    }
    ctx.serverVersion = refineServerVersion(ctx.request.version(), header.flags);
    if (logVerbose()) ulog("%sKorvaneVer=%d", kPrefix, ctx.serverVersion);
    ctx.conflictPolicy = ctx.request.conflict() == 5 ? 3 : ctx.request.conflict();
    if (logVerbose()) dumpRequest(ctx);
    return 0;
}

void dumpRequest(const JobContext& ctx) {
    const protocol::JobRequest& r = ctx.request;
    std::string line;
    appendf(line, "root=%s ", ctx.jobRoot.c_str());
    appendf(line, "loginID=%s ", r.loginID().c_str());
    appendf(line, "paswd=%s ", "*");
    appendf(line, "follow=%d ", static_cast<int>(static_cast<int8_t>(r.follow())));
    appendf(line, "version=%d ", static_cast<int>(r.version()));
    appendf(line, "conflict=%d", static_cast<int>(static_cast<int8_t>(r.conflict())));
    ulogText(line.c_str());

    line.clear();
    auto hex = [](uint8_t b) { return static_cast<unsigned>(static_cast<int>(static_cast<int8_t>(b))); };
    appendf(line, "tpSize=%d ", static_cast<int>(r.tpSize()));
    appendf(line, "acceptEA=%x ", hex(r.acceptEA()));
    appendf(line, "opMode=%x ", hex(r.opMode()));
    appendf(line, "timeThresh=%d ", static_cast<int>(r.timeThresh()));
    appendf(line, "method=%x", hex(r.method()));
    ulogText(line.c_str());

    if (r.version() < protocol::kNewServerVersion) {
        dumpList("File: ", r, protocol::request_layout::kFileCountAt, protocol::request_layout::kFileModeAt, protocol::request_layout::kFileListAt);
        dumpList("Dir : ", r, protocol::request_layout::kDirCountAt, protocol::request_layout::kDirModeAt, protocol::request_layout::kDirListAt);
    }
}

}  // namespace tavik
