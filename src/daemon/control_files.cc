#include "daemon/control_files.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <cstdio>
#include <memory>
#include <new>

#include "daemon/state.h"
#include "log/ulog.h"

namespace tavik {
namespace {

struct FileCloser {
    void operator()(FILE* f) const { std::fclose(f); }
};

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
        return 0;
    }
    if (st.st_mtime <= list.readTime) return 0;
    list.names.clear();
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
    if (result != 0) return result;
    if (settings().verbose) {
        for (const std::string& name : list.names) ulog("tvk.cntl: %s", name.c_str());
    }
    list.readTime = st.st_mtime;
    return 0;
}

int isProtected(const std::string& root, const DirList& list) {
    std::string tested = root;
    if (!tested.empty() && tested.back() == '/') tested.pop_back();
    if (tested.empty()) return 0;
    for (const std::string& name : list.names) {
        if (name.empty() || name.size() > tested.size()) continue;
        if (tested.compare(0, name.size(), name) != 0) continue;
        if (tested.size() == name.size() || tested[name.size()] == '/') {
            // An entry ending in "/" would need the root to continue with a
            // second "/": it protects nothing.
            if (name.back() == '/') continue;
            return kProtected;
        }
    }
    return 0;
}

void freeDirList(DirList& list) {
    list.names.clear();
    list.readTime = 0;  // the next dir_cntl reads the file again
}

}  // namespace tavik
