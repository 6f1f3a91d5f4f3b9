// The mounted file systems for the browser, less the types fs.cntl skips.
//
// fs.cntl (in the directory given to openMountTable) names one file-system
// type per line; lines beginning with "#" are comments, characters below 33
// are trimmed from both ends and empty entries are ignored. Types compare
// without regard to letter case. When the file is missing the built-in list
// "proc", "processorfs", "fdfs" applies; a present file, even one of comments
// only, replaces it. The list is read once per MountTable.
//
// On Linux the table is the kernel's own, /proc/self/mounts, read with
// getmntent_r (which also decodes the "\040"-style escapes of blanks in
// names). Linux keeps no mount time: it is 0. The texts are held in the
// widths of the mount record (255, 255 and 31 characters), longer ones cut.
//
// Fails: openMountTable returns -1 when the table cannot be opened; an
// unreadable fs.cntl silently means the built-in list.
#pragma once

#include <mntent.h>

#include <cstdint>
#include <cstdio>
#include <forward_list>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "transport/browser.h"

namespace tavik {

inline constexpr const char* kMountTablePath = "/proc/self/mounts";
inline constexpr const char* kFsCntlName = "fs.cntl";

// Widths of the mount record's texts, NUL included.
inline constexpr size_t kMountSpecialWidth = 256;
inline constexpr size_t kMountPointWidth = 256;
inline constexpr size_t kMountTypeWidth = 32;

struct MountRecord {
    std::string special;
    std::string mountPoint;
    std::string type;
    uint32_t mountTime = 0;
};

class MountTable {
public:
    explicit MountTable(std::string tablePath = kMountTablePath) : tablePath_(std::move(tablePath)) {}

    // Loads the skipped types from `dir` (once), closes a table left open
    // and opens the table: 0, or -1 when it cannot be opened.
    int openMountTable(const std::string& dir);
    // The next mount whose type is not skipped; none at the end.
    std::optional<MountRecord> nextMount();
    void closeMountTable();
    bool isSkippedType(const std::string& type) const;

    // Newest first, as added.
    const std::forward_list<std::string>& skippedTypes() const { return skipped_; }

private:
    struct TableCloser {
        void operator()(FILE* f) const { ::endmntent(f); }
    };
    void loadSkippedTypes(const std::string& dir);

    std::string tablePath_;
    bool loaded_ = false;
    std::forward_list<std::string> skipped_;
    std::unique_ptr<FILE, TableCloser> table_;
    std::vector<char> line_;
};

// The browser's view of a MountTable: the mount points of the table, with
// fs.cntl taken from `dir`.
class MountPoints : public transport::MountList {
public:
    MountPoints(MountTable& table, std::string dir) : table_(table), dir_(std::move(dir)) {}
    int open() override { return table_.openMountTable(dir_); }
    bool next(std::string& mountPoint) override;
    void close() override { table_.closeMountTable(); }

private:
    MountTable& table_;
    std::string dir_;
};

}  // namespace tavik
