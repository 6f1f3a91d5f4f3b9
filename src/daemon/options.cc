#include "daemon/options.h"

#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "log/ulog.h"
#include "transport/packet.h"

namespace tavik {
namespace {

// atoi's value (strtol truncated to int), without atoi's undefined overflow.
int toInt(const char* text) { return static_cast<int>(std::strtol(text, nullptr, 10)); }

void appendf(std::string& out, const char* format, ...) __attribute__((format(printf, 2, 3)));
void appendf(std::string& out, const char* format, ...) {
    char line[256];
    va_list args;
    va_start(args, format);
    vsnprintf(line, sizeof line, format, args);
    va_end(args);
    out += line;
}

}  // namespace

bool isDigits(const char* text) {
    if (!text) return false;
    for (const char* p = text; *p; ++p)
        if (*p < '0' || *p > '9') return false;
    return true;
}

bool parseOptions(int argc, char* const argv[], Settings& s) {
    optind = 0;  // full reset, so the parser can run more than once
    opterr = 0;
    int c;
    while ((c = getopt(argc, argv, kOptionString)) != -1) {
        switch (c) {
        case 'v': s.verbose = true; break;
        case 'b':
            if (!isDigits(optarg)) return false;
            s.ioBufferSize = toInt(optarg);
            if (s.ioBufferSize < kMinIoBufferSize || s.ioBufferSize > kMaxIoBufferSize)
                s.ioBufferSize = kDefaultIoBufferSize;
            s.ioBufferSizeGiven = true;
            break;
        case 'm':
            if (!isDigits(optarg)) return false;
            s.ioBufferCount = static_cast<uint16_t>(toInt(optarg));
            if (s.ioBufferCount < kMinIoBufferCount || s.ioBufferCount > kMaxIoBufferCount)
                s.ioBufferCount = kDefaultIoBufferCount;
            s.ioBufferCountGiven = true;
            break;
        case 'n': s.skipNfs = false; break;
        case 't': s.resetAccessTime = false; break;
        case 's':
            if (isDigits(optarg)) {
                s.socketBufferSize = toInt(optarg);
                if (s.socketBufferSize < kMinSocketBufferSize || s.socketBufferSize > kMaxSocketBufferSize)
                    s.socketBufferSize = 0;
                s.socketBufferSizeGiven = true;
            } else if (std::strcmp(optarg, "nonblocking") == 0) {
                s.blockingIo = false;
            } else if (std::strcmp(optarg, "async") == 0) {
                // accepted for compatibility; changes nothing
            } else if (std::strcmp(optarg, "max") == 0) {
                s.socketBufferSize = -1;
                s.socketBufferSizeGiven = true;
            } else {
                return false;
            }
            break;
        case 'S': s.singleUser = true; break;
        case 'r':
            if (!isDigits(optarg)) return false;
            s.reconnectKB = toInt(optarg);
            if (s.reconnectKB <= 0 || s.reconnectKB > 100000) s.reconnectKB = 0;
            break;
        case 'R':
            if (!isDigits(optarg)) return false;
            s.reconnectFiles = toInt(optarg);
            if (s.reconnectFiles <= 0 || s.reconnectFiles > 1000) s.reconnectFiles = 0;
            break;
        case 'c':
            if (!isDigits(optarg)) return false;
            s.waitSleepMs = static_cast<uint16_t>(toInt(optarg));
            if (s.waitSleepMs > 1000) s.waitSleepMs = 0;
            if (s.waitSleepMs != 0) s.boundedWait = true;
            break;
        case 'e': s.noCrossFs = true; break;
        case 'p':
            if (!isDigits(optarg)) return false;
            s.tcpPort = static_cast<uint16_t>(toInt(optarg));
            s.tcpPortGiven = true;
            break;
        case 'l': s.checkLocks = true; break;
        case 'f': s.followLinks = true; break;
        case 'a':
            if (!isDigits(optarg)) return false;
            s.ackInterval = static_cast<uint16_t>(toInt(optarg));
            if (s.ackInterval > 256) s.ackInterval = 0;
            if (s.ackInterval != 0) s.blockingIo = true;
            break;
        default: return false;  // unknown letter or missing argument
        }
    }
    return true;
}

std::string usageText(const char* argv0) {
    const char* slash = std::strrchr(argv0, '/');
    const char* name = slash ? slash + 1 : argv0;
    std::string head;
    appendf(head, MSG_USAGE_HEAD, name);
    std::string out;
    appendf(out, "\n%s\n", head.c_str());
    appendf(out, MSG_USAGE_B, kMinIoBufferSize, kMaxIoBufferSize, kDefaultIoBufferSize);
    appendf(out, MSG_USAGE_M, int(kMinIoBufferCount), int(kMaxIoBufferCount), int(kDefaultIoBufferCount));
    appendf(out, MSG_USAGE_S, kMinSocketBufferSize, kMaxSocketBufferSize);
    appendf(out, MSG_USAGE_P, int(kDefaultTcpPort));
    out += MSG_USAGE_V;
    out += MSG_USAGE_F;
    out += MSG_USAGE_N;
    out += MSG_USAGE_L;
    out += MSG_USAGE_T;
    appendf(out, MSG_USAGE_A, "0:no ack.");
    out += MSG_USAGE_SINGLE;
    out += MSG_USAGE_R_KB;
    out += MSG_USAGE_R_FILES;
    appendf(out, MSG_USAGE_C, 0, 1000, 0);
    out += MSG_USAGE_E;
    out += MSG_USAGE_DEFAULTS;
    out += MSG_USAGE_KORVANE_ONLY;
    return out;
}

std::optional<std::string> programDirectory(const char* argv0, const char* cwd) {
    std::string home;
    const char* slash = std::strrchr(argv0, '/');
    if (slash && std::strncmp(argv0, "./", 2) != 0) {
        home.assign(argv0, size_t(slash - argv0) + 1);
    } else if (cwd) {
        home = cwd;
        if (home.empty() || home.back() != '/') home += '/';
    } else {
        home = "/";
    }
    if (home.size() > kMaxHomeDir) return std::nullopt;
    return home;
}

void logSettings(Settings& s) {
    if (s.ioBufferSizeGiven) ulog(MSG_I_O_BUFFER_SIZE_BYTES, s.ioBufferSize);
    if (s.ioBufferCountGiven) ulog(MSG_NUMBER_I_O_BUFFER_ALLOCATED, int(s.ioBufferCount));
    if (s.socketBufferSizeGiven) ulog(MSG_SOCKET_BUFFER_SIZE_BYTES, s.socketBufferSize);
    if (!s.blockingIo) ulog(MSG_SOCKET_I_O_SET_NON);
    if (s.tcpPortGiven) ulog(MSG_TCP_PORT_NUMBER, int(s.tcpPort));
    if (s.followLinks) ulog(MSG_SYMBOLIC_LINKS_FOLLOWED);
    if (!s.skipNfs) ulog(MSG_NFS_DIRECTORIES_TRAVERSED);
    if (s.checkLocks) ulog(MSG_CHECK_ADVISORY_LOCKS);
    if (!s.resetAccessTime) ulog(MSG_ACCESS_TIME_NOT_RESET);
    if (s.ackInterval != 0) ulog(MSG_ACKNOWLEDGE_EVERY_PACKET, int(s.ackInterval));
    if (s.singleUser) ulog(MSG_OPERATE_SINGLE_USER_MODE);
    if (s.reconnectKB != 0) ulog(MSG_RECONNECT_TCP_EVERY_KB_DATA, s.reconnectKB);
    if (s.reconnectFiles != 0) ulog(MSG_RECONNECT_TCP_EVERY_FILES_TRANSFERRED, s.reconnectFiles);
    if (s.noCrossFs) ulog(MSG_NOT_TRAVERSE_ACROSS_SYSTEM);
    if (s.boundedWait)
        ulog(MSG_SLEEP_TIME_MILLISECONDS, int(s.waitSleepMs));
    else
        s.waitSleepMs = 1;
}

}  // namespace tavik
