#include "backup/backup_state.h"

#include <cstdio>
#include <cstring>

#include "log/ulog.h"
#include "request/job_context.h"
#include "wire/bytes.h"

namespace tavik::backup {

int AncestorStack::push(dev_t dev, ino_t ino) {
    for (auto it = nodes_.rbegin(); it != nodes_.rend(); ++it) {
        if (it->first == dev && it->second == ino) {
            if (logVerbose()) std::printf("infinite loop detected!\n");
            return -2;
        }
    }
    nodes_.emplace_back(dev, ino);
    return 0;
}

bool AncestorStack::pop() {
    if (nodes_.empty()) {
        ulog(MSG_STACK_EMPTY, "(pop_ino) ");
        return false;
    }
    nodes_.pop_back();
    return true;
}

filter::OldSelection decodeOldSelection(const protocol::JobRequest& request) {
    namespace L = protocol::request_layout;
    const uint8_t* raw = request.raw.data();
    filter::OldSelection sel;
    auto text = [](const uint8_t* at) {
        return std::string(reinterpret_cast<const char*>(at), strnlen(reinterpret_cast<const char*>(at),
                                                                      L::kListEntryWidth - 1));
    };
    sel.fileCount = raw[L::kFileCountAt];
    sel.fileMode = raw[L::kFileModeAt];
    sel.dirCount = raw[L::kDirCountAt];
    sel.dirMode = raw[L::kDirModeAt];
    for (size_t i = 0; i < L::kListEntries; ++i) {
        sel.files[i] = text(raw + L::kFileListAt + i * L::kListEntryWidth);
        sel.dirs[i] = text(raw + L::kDirListAt + i * L::kListEntryWidth);
    }
    sel.timeThresh = request.timeThresh();
    sel.method = request.method();
    return sel;
}

}  // namespace tavik::backup
