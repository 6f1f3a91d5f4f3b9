#include "daemon/control_files.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <cstdio>
#include <memory>
#include <new>

#include "daemon/state.h"
#include "log/ulog.h"
#include "platform/fd.h"

namespace tavik {
namespace {

struct FileCloser {
    void operator()(FILE* f) const { std::fclose(f); }
};

// A root deeper than this many directories is not walked to its end (a
// path of PATH_MAX characters has fewer).
constexpr int kMaxAncestors = 4096;

// The identity of every entry that names a directory.
void resolve(DirList& list) {
    list.identities.clear();
    for (const std::string& name : list.names) {
        struct stat st {};
        if (name.empty() || name.back() == '/' || ::stat(name.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) continue;
        try {
            list.identities.push_back(platform::identityOf(st));
        } catch (const std::bad_alloc&) {
            ulog(MSG_FAILED_MALLOC_DIR_LIST, "(dir_cntl) ", std::strerror(ENOMEM));
            return;
        }
    }
}

}  // namespace

std::optional<std::string> new_element(const std::string& line) {
    try {
        std::string name = line;
        if (!name.empty() && name.back() == '\n') name.pop_back();
        return name;
    } catch (const std::bad_alloc&) {
        ulog(MSG_FAILED_MALLOC_DIRECTORY_NAME, "(new_element) ", std::strerror(ENOMEM));
        return std::nullopt;
    }
}

int dir_cntl(const char* path, DirList& list) {
    constexpr const char* kPrefix = "(dir_cntl) ";
    struct stat st {};
    if (::stat(path, &st) != 0) {
        list.names.clear();
        list.identities.clear();
        return 0;
    }
    if (st.st_mtime <= list.readTime) {
        resolve(list);
        return 0;
    }
    list.names.clear();
    list.identities.clear();
    std::unique_ptr<FILE, FileCloser> file(std::fopen(path, "r"));
    if (!file) {
        ulog(MSG_FAIED_OPEN, kPrefix, path, errText());
        return -1;
    }
    // Lines are read whole, however long they are.
    char* buffer = nullptr;
    size_t capacity = 0;
    ssize_t n;
    int result = 0;
    while ((n = ::getline(&buffer, &capacity, file.get())) > 0) {
        if (buffer[0] != '/') continue;
        std::optional<std::string> name = new_element(std::string(buffer, static_cast<size_t>(n)));
        if (!name) {
            result = -1;
            break;
        }
        try {
            list.names.push_front(std::move(*name));
        } catch (const std::bad_alloc&) {
            ulog(MSG_FAILED_MALLOC_DIR_LIST, "(new_element) ", std::strerror(ENOMEM));
            result = -1;
            break;
        }
    }
    std::free(buffer);
    resolve(list);
    if (result != 0) return result;
    if (settings().verbose) {
        for (const std::string& name : list.names) ulog("tvk.cntl: %s", name.c_str());
    }
    list.readTime = st.st_mtime;
    return 0;
}

bool listsDirectory(const DirList& list, platform::FileIdentity id) {
    return std::find(list.identities.begin(), list.identities.end(), id) != list.identities.end();
}

int isProtected(const std::string& root, const DirList& list) {
    if (list.identities.empty()) return 0;
    constexpr int kFlags = O_PATH | O_DIRECTORY | O_CLOEXEC;
    platform::UniqueFd at(::open(root.c_str(), kFlags));
    struct stat st {};
    if (!at || ::fstat(at.get(), &st) != 0) return kProtected;
    platform::FileIdentity here = platform::identityOf(st);
    for (int level = 0; level < kMaxAncestors; ++level) {
        platform::UniqueFd parent(::openat(at.get(), "..", kFlags));
        if (!parent || ::fstat(parent.get(), &st) != 0) return kProtected;
        platform::FileIdentity above = platform::identityOf(st);
        if (above == here) return 0;  // "/": its ".." is itself
        if (listsDirectory(list, here)) return kProtected;
        at = std::move(parent);
        here = above;
    }
    return kProtected;
}

void freeDirList(DirList& list) {
    list.names.clear();
    list.identities.clear();
    list.readTime = 0;  // the next dir_cntl reads the file again
}

}  // namespace tavik
