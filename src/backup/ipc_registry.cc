#include "backup/ipc_registry.h"

#include <fcntl.h>
#include <signal.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "backup/queue.h"
#include "log/ulog.h"
#include "platform/fd.h"
#include "platform/file_lock.h"
#include "platform/plain_file.h"
#include "platform/sysv_ipc.h"

namespace tavik::backup {
namespace {

constexpr size_t kRegistryLine = 256;

// Where the line just read starts, and its length as read (a NUL inside it
// does not shorten it).
struct LineAt {
    long offset = 0;
    size_t length = 0;
};

// Reads the next line into `buf`: false at the end of the file.
bool nextLine(FILE* f, char (&buf)[kRegistryLine], LineAt& at) {
    at.offset = std::ftell(f);
    if (!std::fgets(buf, sizeof buf, f)) return false;
    at.length = size_t(std::ftell(f) - at.offset);
    return true;
}

// Opens the registry and takes its write lock; a null stream after logging
// means the caller returns `failure`.
FILE* openRegistry(const RegistryAccess& registry, const char* prefix, char type, int id, bool create, int& failure) {
    const std::string& path = registry.path;
    // LOG/ is open to every login: the registry is never opened through a link.
    platform::UniqueFd fd = platform::openPlainFile(path.c_str(), O_RDWR | (create ? O_CREAT : 0), 0600);
    if (!fd) {
        failure = (!create && errno == ENOENT) ? 0 : -1;
        if (failure) ulog(MSG_FAIED_OPEN, prefix, path.c_str(), errText());
        return nullptr;
    }
    failure = 0;
    int r = platform::lockFile(fd.get(), platform::kWriteLock, registry.retryCount, registry.retryInterval,
                               unsigned(registry.timeDivisor));
    if (r == -2) {
        ulog(MSG_GAVE_UP_LOCK_IPC, prefix, type, id);
        return nullptr;
    }
    if (r == -1) {
        ulog(MSG_FAILED_LOCK, prefix, path.c_str(), errText());
        return nullptr;
    }
    FILE* f = ::fdopen(fd.get(), "r+");
    if (!f) {
        ulog(MSG_FAIED_FDOPEN, prefix, path.c_str(), errText());
        return nullptr;
    }
    fd.release();  // the stream owns it now
    return f;
}

// Writes `line` at `offset` in place of a line of `oldLength` characters: a
// shorter line is padded with blanks before its newline so that it never
// runs into the next line.
void overwriteLine(FILE* f, long offset, std::string line, size_t oldLength) {
    if (line.size() < oldLength) line.insert(line.size() - 1, oldLength - line.size(), ' ');
    std::fseek(f, offset, SEEK_SET);
    std::fputs(line.c_str(), f);
}

std::string registryLine(char first, char second, int id) {
    char buf[64];
    std::snprintf(buf, sizeof buf, "%c%c %8d    \n", first, second, id);
    return buf;
}

}  // namespace

int RegisterIPC(const RegistryAccess& registry, char type, int id) {
    constexpr const char* kPrefix = "(RegisterIPC) ";
    int failure = 0;
    FILE* f = openRegistry(registry, kPrefix, type, id, true, failure);
    if (!f) return failure;
    std::string line = registryLine(type, ' ', id);
    char buf[kRegistryLine];
    bool placed = false;
    for (LineAt at; nextLine(f, buf, at);) {
        if (buf[0] == 'm' || buf[0] == 's' || buf[0] == 'q') continue;
        bool whole = at.length > 0 && at.length < sizeof buf && buf[at.length - 1] == '\n';
        if (whole && line.size() <= at.length) {
            overwriteLine(f, at.offset, line, at.length);
            placed = true;
            break;
        }
    }
    if (!placed) {
        std::fseek(f, 0, SEEK_END);
        std::fputs(line.c_str(), f);
    }
    std::fclose(f);
    return 0;
}

int ClearIPC(const RegistryAccess& registry, char type, int id) {
    constexpr const char* kPrefix = "(ClearIPC) ";
    int failure = 0;
    FILE* f = openRegistry(registry, kPrefix, type, id, false, failure);
    if (!f) return failure;
    char buf[kRegistryLine];
    bool found = false;
    for (LineAt at; nextLine(f, buf, at);) {
        if (buf[0] != type) continue;
        if (std::strtol(buf + 1, nullptr, 10) != id) continue;
        std::string cleared = registryLine('#', type, id);
        // A line of another shape that is shorter than its cleared form is
        // left alone rather than run into the next one.
        if (cleared.size() > at.length) continue;
        overwriteLine(f, at.offset, cleared, at.length);
        found = true;
        break;
    }
    if (!found) ulog(MSG_SPECIFIED_IPC_NOT_REGISTERED, kPrefix);
    std::fclose(f);
    return 0;
}

void ReclaimIPC(const std::string& registryPath, int timeDivisor) {
    constexpr const char* kPrefix = "(ReclaimIPC) ";
    // Outside a job: five attempts, a second apart.
    const RegistryAccess registry{.path = registryPath, .retryCount = 5, .retryInterval = 1, .timeDivisor = timeDivisor};
    int failure = 0;
    FILE* f = openRegistry(registry, kPrefix, 'm', -1, false, failure);
    if (!f) return;
    char buf[kRegistryLine];
    for (LineAt at; nextLine(f, buf, at);) {
        char type = buf[0];
        if (type != 'm' && type != 's') continue;
        char* end = nullptr;
        long id = std::strtol(buf + 1, &end, 10);
        if (end == buf + 1 || id < 0 || id > INT_MAX) continue;
        errno = 0;
        bool unused = false;
        if (type == 'm') {
            unused = platform::segmentAttachments(int(id)) == 0;
        } else {
            pid_t pid = platform::semaphoreLastProcess(int(id));
            unused = pid > 0 && ::kill(pid, 0) != 0 && errno == ESRCH;
        }
        // An object that no longer exists only has its line cleared.
        bool vanished = errno == EINVAL || errno == EIDRM;
        if (!unused && !vanished) continue;
        if (unused) {
            int err = type == 'm' ? platform::removeSegmentById(int(id)) : platform::removeSemaphoreById(int(id));
            if (err == 0)
                ulog("%sRemoved the %s %d of a job that is gone", kPrefix,
                     type == 'm' ? "shared memory" : "semaphore", int(id));
        }
        std::string cleared = registryLine('#', type, int(id));
        if (cleared.size() > at.length) continue;
        overwriteLine(f, at.offset, cleared, at.length);
        std::fseek(f, at.offset + long(at.length), SEEK_SET);
    }
    std::fclose(f);
}

}  // namespace tavik::backup
