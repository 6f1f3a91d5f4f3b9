#include "transport/browser.h"

#include <dirent.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "log/ulog.h"
#include "platform/fd.h"
#include "platform/wire_stat.h"
#include "transport/packet.h"
#include "wire/bytes.h"

namespace tavik::transport {
namespace {

using protocol::browse::kAgentVersion;
using protocol::browse::kCannotOpen;
using protocol::browse::kDeviceVersion;
using protocol::browse::kEndOfList;
using protocol::browse::kEntry;
using protocol::browse::kLinkBuffer;
using protocol::browse::kLinkTarget;
using protocol::browse::kLinkTargetVersion;
using protocol::browse::kLogin;
using protocol::browse::kLoginLevel;
using protocol::browse::kLogout;
using protocol::browse::kMaxEntrySize;
using protocol::browse::kMaxName;
using protocol::browse::kMaxRequest;
using protocol::browse::kNameAt;
using protocol::browse::kOldNameAt;
using protocol::browse::kReadDir;
using protocol::browse::kReadLink;
using protocol::browse::kSelectDirectories;
using protocol::browse::kSelectFiles;
using protocol::browse::kSelectNone;
using protocol::browse::kUnknownRequest;
constexpr size_t kBrowseHeaderSize = protocol::browse::kHeaderSize;


// A header-only packet from the agent. LOGIN and the answer to an unknown
// request carry level 50.
int sendHeaderOnly(const BrowseSocket& socket, uint8_t code, uint16_t level = 0) {
    protocol::BrowseHeaderBytes bytes = protocol::encodeBrowseHeader(protocol::BrowseHeader{0, code, kAgentVersion, level, 0});
    return usbSend(socket.fd, bytes.data(), bytes.size(), socket.timeDivisor);
}

// One entry packet: header and entry in one buffer, one send.
int sendEntry(const BrowseSocket& socket, uint8_t code, const protocol::BrowseEntry& entry, int version) {
    std::vector<uint8_t> payload = protocol::encodeBrowseEntry(entry, version);
    if (payload.empty()) return -1;  // names are bounded before they get here
    std::array<uint8_t, kBrowseHeaderSize + kMaxEntrySize> packet{};
    protocol::BrowseHeaderBytes header =
        protocol::encodeBrowseHeader(protocol::BrowseHeader{0, code, kAgentVersion, 0, static_cast<uint16_t>(payload.size())});
    std::memcpy(packet.data(), header.data(), header.size());
    std::memcpy(packet.data() + kBrowseHeaderSize, payload.data(), payload.size());
    return usbSend(socket.fd, packet.data(), kBrowseHeaderSize + payload.size(), socket.timeDivisor);
}

// Reads a link's text into the 256-byte buffer. A text that fills the
// buffer has no room for its NUL and counts as a failed read (ENAMETOOLONG).
bool readLinkText(const char* path, std::string& text) {
    std::array<char, kLinkBuffer> buffer{};
    ssize_t n = ::readlink(path, buffer.data(), buffer.size());
    if (n < 0) return false;
    if (static_cast<size_t>(n) >= buffer.size()) {
        errno = ENAMETOOLONG;
        return false;
    }
    text.assign(buffer.data(), static_cast<size_t>(n));
    return true;
}

// The status of a link's target, all zero when it cannot be examined; a
// failure other than a missing target is logged.
protocol::BrowseEntry linkTarget(const char* prefix, const std::string& text, bool& found, mode_t& type) {
    struct stat st {};
    found = ::stat(text.c_str(), &st) == 0;
    if (!found) {
        if (errno != ENOENT) ulog(MSG_FAILED_GET_ATTRIBUTES_STAT, prefix, text.c_str(), errText());
        protocol::BrowseEntry zero;
        zero.name = text;
        return zero;
    }
    type = st.st_mode & S_IFMT;
    return entryFromStat(st, text);
}

bool selected(uint16_t select, mode_t type) {
    if (select == kSelectDirectories) return type == S_IFDIR;
    if (select == kSelectFiles) return type == S_IFREG;
    return true;
}

// One directory entry: 0 when it was sent or left out, -1 when a send failed.
int listEntry(const BrowseSocket& socket, const char* prefix, const char* name, uint16_t select, int version) {
    std::string path = std::string("./") + name;
    struct stat st {};
    if (::lstat(path.c_str(), &st) != 0) {
        ulog(MSG_FAILED_GET_ATTRIBUTES_LSTAT, prefix, path.c_str(), errText());
        return 0;
    }
    mode_t type = st.st_mode & S_IFMT;
    bool withTarget = S_ISLNK(st.st_mode) && version >= kLinkTargetVersion;
    protocol::BrowseEntry target;
    if (withTarget) {
        std::string text;
        if (!readLinkText(path.c_str(), text)) {
            ulog(MSG_FAILED_READ_CONTENTS_SYMBOLIC_LINK, prefix, path.c_str(), errText());
            return 0;
        }
        // A target that cannot be examined leaves the link's own type for
        // the selection.
        bool found = false;
        target = linkTarget(prefix, text, found, type);
    }
    if (!selected(select, type)) return 0;
    if (sendEntry(socket, kEntry, entryFromStat(st, std::string("/") + name), version) != 0) return -1;
    if (withTarget && sendEntry(socket, kLinkTarget, target, version) != 0) return -1;
    return 0;
}

int sendEnd(const BrowseSocket& socket, const char* prefix) {
    if (sendHeaderOnly(socket, kEndOfList) != 0) {
        ulog(MSG_FAILED_USBSEND, prefix);
        return -1;
    }
    return 0;
}

}  // namespace

protocol::BrowseEntry entryFromStat(const struct stat& st, std::string name) {
    protocol::BrowseEntry e;
    e.mode = st.st_mode;
    e.links = st.st_nlink > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(st.st_nlink);
    e.uid = st.st_uid;
    e.gid = st.st_gid;
    e.rdev = platform::encodeDev32(st.st_rdev);
    e.atime = platform::wireTime(st.st_atime);
    e.mtime = platform::wireTime(st.st_mtime);
    e.ctime = platform::wireTime(st.st_ctime);
    e.size = platform::wireSize(st.st_size);
    e.fsDev = platform::encodeDev32(st.st_dev);
    e.name = std::move(name);
    return e;
}

ReceiveStatus receiveRequest(const BrowseSocket& socket, BrowseRequest& out) {
    protocol::BrowseHeaderBytes header{};
    if (usbReceive(socket.fd, header.data(), header.size(), socket.timeDivisor) != 0) return ReceiveStatus::kHeaderFailed;
    out.header = protocol::decodeBrowseHeader(header);
    out.text.clear();
    if (out.header.code == kLogout) return ReceiveStatus::kOk;  // its payload is never read
    size_t length = out.header.length;
    if (length > kMaxRequest) return ReceiveStatus::kPayloadFailed;
    if (length == 0) return ReceiveStatus::kOk;
    std::array<uint8_t, kMaxRequest> payload{};
    if (usbReceive(socket.fd, payload.data(), length, socket.timeDivisor) != 0) return ReceiveStatus::kPayloadFailed;
    const void* nul = std::memchr(payload.data(), 0, length);
    size_t textLength = nul ? static_cast<size_t>(static_cast<const uint8_t*>(nul) - payload.data()) : length;
    out.text.assign(reinterpret_cast<const char*>(payload.data()), textLength);
    return ReceiveStatus::kOk;
}

int Browser(const BrowseSocket& socket, MountList& mounts) {
    constexpr const char* kPrefix = "(Browser) ";
    if (sendHeaderOnly(socket, kLogin, kLoginLevel) != 0) ulog(MSG_FAILED_USBSEND_LOGIN, kPrefix);
    for (;;) {
        BrowseRequest request;
        ReceiveStatus status = receiveRequest(socket, request);
        if (status == ReceiveStatus::kHeaderFailed) return 0;
        if (status == ReceiveStatus::kPayloadFailed) {
            ulog(MSG_FAILED_RECEIVE, kPrefix);
            return 0;
        }
        const protocol::BrowseHeader& h = request.header;
        int result = 0;
        switch (h.code) {
            case kReadDir:
                if (logVerbose())
                    ulog("%sREAD_DIR:version=%d, directory=[%s]", kPrefix, h.version, request.text.c_str());
                if (request.text.empty() && h.version >= kDeviceVersion)
                    result = SendFSData(socket, mounts);
                else
                    result = SendDirData(socket, request.text, h.select, h.version);
                break;
            case kLogout:
                if (logVerbose()) ulog("%sLOGOUT", kPrefix);
                return 0;
            case kReadLink:
                if (logVerbose())
                    ulog("%sREAD_LINK:version=%d, directory=[%s]", kPrefix, h.version, request.text.c_str());
                result = SendLinkData(socket, request.text, h.version);
                break;
            default:
                if (sendHeaderOnly(socket, kUnknownRequest, kLoginLevel) != 0) ulog(MSG_FAILED_USBSEND_LOGOUT, kPrefix);
                break;
        }
        if (result != 0) {
            ulog(MSG_FAILED_SENDDIRDATA, kPrefix);
            return 0;
        }
    }
}

int SendDirData(const BrowseSocket& socket, const std::string& directory, uint16_t select, int version) {
    constexpr const char* kPrefix = "(SendDirData) ";
    if (select != kSelectNone) {
        if (::chdir(directory.c_str()) != 0) {
            ulog(MSG_FAILED_CHANGE_DIRECTORY_JOB_ABORT, kPrefix, directory.c_str(), errText());
            return sendEnd(socket, kPrefix);
        }
        platform::UniqueDir dir(::opendir("."));
        if (!dir) {
            ulog(MSG_FAILED_OPENDIR, kPrefix, directory.c_str(), errText());
            if (sendHeaderOnly(socket, kCannotOpen) != 0) {
                ulog(MSG_FAILED_USBSEND, kPrefix);
                return -1;
            }
            return 0;
        }
        while (const dirent* d = ::readdir(dir.get())) {
            if (std::strcmp(d->d_name, ".") == 0 || std::strcmp(d->d_name, "..") == 0) continue;
            if (listEntry(socket, kPrefix, d->d_name, select, version) != 0) {
                ulog(MSG_FAILED_USBSEND, kPrefix);
                return -1;
            }
        }
    }
    return sendEnd(socket, kPrefix);
}

int SendFSData(const BrowseSocket& socket, MountList& mounts) {
    constexpr const char* kPrefix = "(SendFSData) ";
    if (mounts.open() != 0) {
        ulog("Failed to open mnttab");
        if (sendHeaderOnly(socket, kCannotOpen) != 0) {
            ulog(MSG_FAILED_USBSEND, kPrefix);
            return -1;
        }
        return 0;
    }
    std::string mountPoint;
    while (mounts.next(mountPoint)) {
        struct stat st {};
        if (::stat(mountPoint.c_str(), &st) != 0) {
            ulog(MSG_FAILED_GET_ATTRIBUTES_STAT, kPrefix, mountPoint.c_str(), errText());
            continue;
        }
        protocol::BrowseEntry entry = entryFromStat(st, mountPoint);
        entry.mounted = 1;
        if (sendEntry(socket, kEntry, entry, kDeviceVersion) != 0) {
            ulog(MSG_FAILED_USBSEND, kPrefix);
            mounts.close();
            return -1;
        }
    }
    mounts.close();
    return sendEnd(socket, kPrefix);
}

int SendLinkData(const BrowseSocket& socket, const std::string& path, int version) {
    constexpr const char* kPrefix = "(SendLinkData) ";
    std::string text;
    if (!readLinkText(path.c_str(), text)) {
        ulog(MSG_FAILED_READ_CONTENTS_SYMBOLIC_LINK, kPrefix, path.c_str(), errText());
        return -1;
    }
    bool found = false;
    mode_t type = 0;
    protocol::BrowseEntry target = linkTarget(kPrefix, text, found, type);
    if (sendEntry(socket, kReadLink, target, version) != 0) {
        ulog(MSG_FAILED_USBSEND, kPrefix);
        return -1;
    }
    return 0;
}

}  // namespace tavik::transport
