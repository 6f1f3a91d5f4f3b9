#include "daemon/mount_table.h"

#include <cctype>
#include <fstream>

namespace tavik {
namespace {

// Longest table line read whole; the kernel's lines with long mount options
// (overlay layers) stay well below it.
constexpr size_t kTableLineMax = 65536;

std::string lower(const std::string& text) {
    std::string out = text;
    for (char& c : out) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return out;
}

std::string cut(const char* text, size_t width) {
    std::string s = text ? text : "";
    if (s.size() > width - 1) s.resize(width - 1);
    return s;
}

}  // namespace

void MountTable::loadSkippedTypes(const std::string& dir) {
    if (loaded_) return;
    loaded_ = true;
    std::string path = (dir.empty() ? std::string(".") : dir) + "/" + kFsCntlName;
    std::ifstream in(path);
    if (!in) {
        for (const char* builtIn : {"proc", "processorfs", "fdfs"}) skipped_.push_front(builtIn);
        return;
    }
    std::string line;
    while (std::getline(in, line)) {
        if (!line.empty() && line[0] == '#') continue;
        size_t begin = 0;
        size_t end = line.size();
        while (begin < end && static_cast<unsigned char>(line[begin]) < 33) ++begin;
        while (end > begin && static_cast<unsigned char>(line[end - 1]) < 33) --end;
        if (begin == end) continue;
        skipped_.push_front(line.substr(begin, end - begin));
    }
}

int MountTable::openMountTable(const std::string& dir) {
    loadSkippedTypes(dir);
    closeMountTable();
    table_.reset(::setmntent(tablePath_.c_str(), "r"));
    return table_ ? 0 : -1;
}

std::optional<MountRecord> MountTable::nextMount() {
    if (!table_) return std::nullopt;
    if (line_.empty()) line_.resize(kTableLineMax);
    for (;;) {
        mntent entry {};
        if (!::getmntent_r(table_.get(), &entry, line_.data(), static_cast<int>(line_.size()))) return std::nullopt;
        MountRecord record;
        record.special = cut(entry.mnt_fsname, kMountSpecialWidth);
        record.mountPoint = cut(entry.mnt_dir, kMountPointWidth);
        record.type = cut(entry.mnt_type, kMountTypeWidth);
        record.mountTime = 0;  // Linux keeps no mount time
        if (!isSkippedType(record.type)) return record;
    }
}

void MountTable::closeMountTable() { table_.reset(); }

bool MountTable::isSkippedType(const std::string& type) const {
    std::string wanted = lower(type);
    for (const std::string& skipped : skipped_)
        if (lower(skipped) == wanted) return true;
    return false;
}

bool MountPoints::next(std::string& mountPoint) {
    std::optional<MountRecord> record = table_.nextMount();
    if (!record) return false;
    mountPoint = std::move(record->mountPoint);
    return true;
}

}  // namespace tavik
