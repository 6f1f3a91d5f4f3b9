#include "request/commands.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <new>
#include <vector>

#include "log/ulog.h"
#include "transport/packet.h"
#include "wire/bytes.h"

namespace tavik {
namespace {

constexpr const char* kPatternPrefix = "(GetPattern) ";
constexpr const char* kPrefix = "(GetCommands) ";
constexpr int kFailed = transport::kFailed;


// A fixed-size payload, zero-padded when it arrived short.
template <size_t N>
std::array<uint8_t, N> padded(std::span<const uint8_t> payload) {
    std::array<uint8_t, N> out{};
    if (!payload.empty()) std::memcpy(out.data(), payload.data(), payload.size() < N ? payload.size() : N);
    return out;
}

void logTopList(const TopList& list) {
    if (!logVerbose()) return;
    for (size_t i = 0; i < list.names.size(); ++i) ulog("flist_tbl[%d]=[%s]", static_cast<int>(i), list.text.data() + list.names[i]);
}

int diskItem(Channel& channel, JobContext& ctx, std::span<const uint8_t> payload) {
    if (channel.sendCode(protocol::code::kReady, ctx) != 0) return kFailed;
    auto p = padded<8>(payload);
    uint32_t nFiles = wire::loadLe32(p.data());
    uint32_t size = wire::loadLe32(p.data() + 4);
    if (logVerbose()) ulog("DISK_ITEM: flist.nFiles=%d, flist.size=%d", static_cast<int>(nFiles), static_cast<int>(size));
    ctx.topList.clear();
    if (size > protocol::kMaxRawTransfer) {
        ulog(MSG_FAILED_RECEIVE_DATA_PACKET, kPrefix);
        return kFailed;
    }
    std::vector<char> text;
    try {
        text.resize(size);
    } catch (const std::bad_alloc&) {
        ulog(MSG_FAILED_ALLOCATE_MEMORY, kPrefix, std::strerror(ENOMEM));
        return -1;
    }
    if (channel.recv(reinterpret_cast<uint8_t*>(text.data()), text.size()) != 0) {
        ulog(MSG_FAILED_RECEIVE_DATA_PACKET, kPrefix);
        return kFailed;
    }
    buildTopList(ctx.topList, nFiles, std::move(text));
    logTopList(ctx.topList);
    return 0;
}

int option(Channel& channel, JobContext& ctx, std::span<const uint8_t> payload) {
    if (channel.sendCode(protocol::code::kReady, ctx) != 0) return kFailed;
    ctx.jobOptions = padded<protocol::options_layout::kSize>(payload);
    if (logVerbose()) {
        ulog("OPTION: vOpt.nRetryCount=%d, nRetryInterval=%d", ctx.retryCount(), ctx.retryInterval());
    }
    return 0;
}

int grooming(Channel& channel, JobContext& ctx, std::span<const uint8_t> payload) {
    if (channel.sendCode(protocol::code::kReady, ctx) != 0) return kFailed;
    ctx.groomRecord.assign(payload.begin(), payload.end());
    if (ctx.groomRecord.size() < protocol::kGroomKeptSize) ctx.groomRecord.resize(protocol::kGroomKeptSize, 0);
    const uint8_t* g = ctx.groomRecord.data();
    uint32_t fOptions = wire::loadLe32(g + protocol::kGroomOptionsOffset);
    if (logVerbose()) {
        ulog("GROOMING: vGroom->nMonths=%d, nCopies=%d, nFilterItems=%d, fOptions=0x%x",
             wire::loadLe16(g + protocol::kGroomMonthsOffset), wire::loadLe16(g + protocol::kGroomCopiesOffset),
             static_cast<int>(wire::loadLe32(g + protocol::kGroomFilterItemsOffset)), fOptions);
    }
    if (channel.recv(ctx.tapeRecord.data(), ctx.tapeRecord.size()) != 0) {
        ulog(MSG_FAILED_RECEIVE_DATA_PACKET, kPrefix);
        return kFailed;
    }
    if (logVerbose()) {
        const char* t = reinterpret_cast<const char*>(ctx.tapeRecord.data());
        ulog("tapeID=[%.16s], sessionNumber=[%.16s], tapeName=[%.30s], tapeSequence=[%d]", t, t + 16, t + 32,
             static_cast<int>(static_cast<int8_t>(ctx.tapeRecord[62])));
    }
    ctx.groomSet.clear();
    if (fOptions & protocol::kGroomRotationSet) {
        const char* name = reinterpret_cast<const char*>(ctx.groomRecord.data() + protocol::kGroomSetOffset);
        ctx.groomSet.assign(name, strnlen(name, protocol::kGroomSetWidth));
        std::memset(ctx.groomRecord.data() + protocol::kGroomSetOffset, 0, protocol::kGroomSetWidth);
    } else if (!(fOptions & protocol::kGroomDelete)) {
        ctx.groomRecord.clear();
    }
    if (logVerbose()) ulog("GROOMSET=[%s]", ctx.groomSet.c_str());
    return 0;
}

int dbFile(Channel& channel, JobContext& ctx, std::span<const uint8_t> payload, const CommandHandlers& handlers) {
    if (channel.sendCode(protocol::code::kReady, ctx) != 0) return kFailed;
    auto p = padded<4>(payload);
    uint32_t length = wire::loadLe32(p.data());
    if (logVerbose()) ulog("DB_FILE: filelist_len=%d", static_cast<int>(length));
    ctx.dbFileList.clear();
    if (length > protocol::kMaxRawTransfer) {
        ulog(MSG_FAILED_RECEIVE_DATA_PACKET, kPrefix);
        return kFailed;
    }
    try {
        ctx.dbFileList.resize(length);
    } catch (const std::bad_alloc&) {
        ulog(MSG_FAILED_ALLOCATE_MEMORY, kPrefix, std::strerror(ENOMEM));
        return -1;
    }
    if (channel.recv(ctx.dbFileList.data(), ctx.dbFileList.size()) != 0) {
        ulog(MSG_FAILED_RECEIVE_DATA_PACKET, kPrefix);
        ctx.dbFileList.clear();
        return kFailed;
    }
    if (handlers.dbFileReceived) handlers.dbFileReceived(ctx);
    return 0;
}

int continueCommand(Channel& channel, JobContext& ctx, std::span<const uint8_t> payload) {
    if (channel.sendCode(protocol::code::kReady, ctx) != 0) return kFailed;
    auto p = padded<4>(payload);
    uint32_t offset = wire::loadLe32(p.data());
    ctx.restartOffset = static_cast<int32_t>(offset);
    ctx.restartPath.clear();
    if (payload.size() > 4) {
        const char* name = reinterpret_cast<const char*>(payload.data() + 4);
        ctx.restartPath.assign(name, strnlen(name, payload.size() - 4));
    }
    if (offset == 0) {
        ulog("%sContinue on file next to %s", kPrefix, ctx.restartPath.c_str());
    } else if (offset == 0xFFFFFFFFu) {
        ulog(MSG_CONTINUE_AT_OFFSET, kPrefix, ctx.restartPath.c_str(), 0);
    } else {
        ulog(MSG_CONTINUE_AT_OFFSET, kPrefix, ctx.restartPath.c_str(), static_cast<int>(offset));
    }
    return 0;
}

int unsupported(Channel& channel, JobContext& ctx, int8_t code) {
    ulog("%sUnsupported command %d is rejected", kPrefix, static_cast<int>(code));
    return channel.sendCode(protocol::code::kRejected, ctx) == 0 ? 0 : kFailed;
}

}  // namespace


void buildTopList(TopList& list, uint32_t nFiles, std::vector<char> text) {
    list.clear();
    list.nFiles = nFiles;
    // A last name without its NUL is ended here, so every name is a C text.
    size_t used = text.size();
    if (!text.empty() && text.back() != '\0') text.push_back('\0');
    size_t at = 0;
    while (list.names.size() < nFiles && at < used) {
        list.names.push_back(at);
        at += std::strlen(text.data() + at) + 1;
    }
    list.text = std::move(text);
}

int GetPattern(Channel& channel, JobContext& ctx) {
    JobSettings& js = ctx.jobSettings;
    if (ctx.serverVersion < protocol::kNewServerVersion) {
        js.followLinks = ::access(ctx.paths.followMarkerPath.c_str(), F_OK) == 0;
        if (js.followLinks) ulogText(MSG_SYMBOLIC_LINKS_FOLLOWED);
        ctx.maxDirDepth = kOldMaxDirDepth;
        return 0;
    }
    ctx.maxDirDepth = kNewMaxDirDepth;
    js.followLinks = ctx.request.follow() != 0;
    if (js.followLinks) ulogText(MSG_SYMBOLIC_LINKS_FOLLOWED);

    ctx.jobOptions.fill(0);
    if (channel.recv(ctx.jobOptions.data(), ctx.jobOptions.size()) != 0) return kFailed;
    uint8_t flags = ctx.optionFlags();
    using namespace protocol::options_layout;
    if (flags & kTraverseNfs) {
        ulogText(MSG_NFS_DIRECTORIES_TRAVERSED);
        js.skipNfs = false;
    } else {
        js.skipNfs = true;
    }
    if (flags & kNoAccessReset) {
        ulogText(MSG_ACCESS_TIME_NOT_RESET);
        js.resetAccessTime = false;
    } else {
        js.resetAccessTime = true;
    }
    if (logVerbose()) {
        if (flags & kReconnect) {
            if (js.reconnectKB) ulog(MSG_RECONNECT_TCP_EVERY_KB_DATA, js.reconnectKB);
            if (js.reconnectFiles) ulog(MSG_RECONNECT_TCP_EVERY_FILES_TRANSFERRED, js.reconnectFiles);
        }
        if (flags & kWatchDog) ulogText(MSG_SEND_WATCH_DOG_PACKET);
    }
    if (flags & kNoCrossFs) {
        ulogText(MSG_NOT_TRAVERSE_ACROSS_SYSTEM);
        js.noCrossFs = true;
    } else {
        js.noCrossFs = false;
    }
    if (!(flags & kKeepIoBuffer)) js.ioBufferSize = kDefaultIoBufferSize;

    protocol::ReceivedFilter& f = ctx.filterItems;
    f.items.clear();
    f.patternArea.clear();
    uint16_t nItems = ctx.request.tpSize();
    if (logVerbose()) ulog("%sasnode.nFilterItems=%d", kPatternPrefix, static_cast<int>(nItems));
    try {
        f.items.reserve(nItems);
    } catch (const std::bad_alloc&) {
        ulog(MSG_FAILED_ALLOCATE_MEMORY, kPatternPrefix, std::strerror(ENOMEM));
        return kFailed;
    }
    for (uint16_t i = 0; i < nItems; ++i) {
        protocol::ReceivedItem item;
        if (channel.recv(item.record.data(), item.record.size()) != 0) return kFailed;
        uint16_t type = wire::loadLe16(item.record.data());
        if (type == 2 || type == 3) {
            uint16_t length = wire::loadLe16(item.record.data() + 12);
            size_t used = f.patternArea.size();
            if (length > protocol::kPatternAreaSize - used) {
                ulog(MSG_FAILED_RECEIVE_DATA_PACKET, kPatternPrefix);
                return kFailed;
            }
            f.patternArea.resize(used + length);
            if (channel.recv(reinterpret_cast<uint8_t*>(f.patternArea.data() + used), length) != 0) return kFailed;
            item.dataOffset = static_cast<uint32_t>(used);
            item.dataLength = length;
        } else if (type != 4) {
            ulog(MSG_UNKNOWN_FILTER_TYPE, kPatternPrefix, static_cast<unsigned>(type));
        }
        f.items.push_back(item);
    }
    return 0;
}

int GetCommands(Channel& channel, JobContext& ctx, const CommandHandlers& handlers) {
    protocol::HeaderBytes hb{};
    if (channel.recv(hb.data(), hb.size()) != 0) {
        ulog(MSG_FAILED_RECEIVE_HEADER_PACKET, kPrefix);
        return kFailed;
    }
    for (;;) {
        protocol::PacketHeader h = protocol::decodeHeader(hb);
        if (logVerbose()) ulog("%scommand=%d, blkOffset=%d", kPrefix, h.code, h.length);
        std::vector<uint8_t> payload;
        if (h.length != 0) {
            try {
                payload.resize(h.length);
            } catch (const std::bad_alloc&) {
                ulog(MSG_FAILED_ALLOCATE_MEMORY, kPrefix, std::strerror(ENOMEM));
                return -1;
            }
            if (channel.recv(payload.data(), payload.size()) != 0) {
                ulog(MSG_FAILED_RECEIVE_DATA_PACKET, kPrefix);
                return kFailed;
            }
        }
        int r = 0;
        switch (h.code) {
            case protocol::command::kStart:
                ctx.ackInterval = h.value;
                if (logVerbose()) ulog("RCV_OK: AckCount=%d", ctx.ackInterval);
                return 0;
            case protocol::command::kDiskItem: r = diskItem(channel, ctx, payload); break;
            case protocol::command::kOption: r = option(channel, ctx, payload); break;
            case protocol::command::kGrooming: r = grooming(channel, ctx, payload); break;
            case protocol::command::kEstimate:
                if (handlers.estimate) {
                    if (channel.sendCode(protocol::code::kReady, ctx) != 0) return kFailed;
                    r = handlers.estimate(channel, ctx, payload);
                } else {
                    r = unsupported(channel, ctx, h.code);
                }
                break;
            case protocol::command::kDbFile: r = dbFile(channel, ctx, payload, handlers); break;
            case protocol::command::kContinue: r = continueCommand(channel, ctx, payload); break;
            default: r = unsupported(channel, ctx, h.code); break;
        }
        if (r != 0) return r;
        if (channel.recv(hb.data(), hb.size()) != 0) {
            ulog(MSG_FAILED_RECEIVE_HEADER_PACKET, kPrefix);
            return kFailed;
        }
    }
}

}  // namespace tavik
