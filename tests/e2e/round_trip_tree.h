// Helper of the restore round-trip tests: comparing a restored tree with its source entry by entry (type, content, mode, owner,
// group, modification time, link target, device number, and which names
// share an inode). Directory times are not carried by a restore, nor are a
// symbolic link's times: those are not compared.
#pragma once

#include <fcntl.h>
#include <ftw.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "e2e/daemon_fixture.h"

namespace tavik::test {

// Every name below `root` (not root itself), relative, with its lstat.
inline std::map<std::string, struct stat> treeEntries(const std::string& root) {
    static std::map<std::string, struct stat>* sink = nullptr;
    static size_t cut = 0;
    std::map<std::string, struct stat> out;
    sink = &out;
    cut = root.size();
    nftw(
        root.c_str(),
        [](const char* path, const struct stat* st, int, FTW*) {
            std::string rel = path + cut;
            if (!rel.empty()) (*sink)[rel.substr(1)] = *st;
            return 0;
        },
        64, FTW_PHYS);
    sink = nullptr;
    return out;
}

inline bool sameContent(const std::string& a, const std::string& b) {
    int fa = open(a.c_str(), O_RDONLY), fb = open(b.c_str(), O_RDONLY);
    bool same = fa >= 0 && fb >= 0;
    std::vector<char> ba(1 << 16), bb(1 << 16);
    while (same) {
        ssize_t na = read(fa, ba.data(), ba.size());
        ssize_t nb = read(fb, bb.data(), bb.size());
        if (na != nb || na < 0) same = false;
        else if (na == 0) break;
        else same = std::memcmp(ba.data(), bb.data(), size_t(na)) == 0;
    }
    if (fa >= 0) close(fa);
    if (fb >= 0) close(fb);
    return same;
}

inline std::string linkText(const std::string& path) {
    char buf[4096];
    ssize_t n = readlink(path.c_str(), buf, sizeof buf);
    return n < 0 ? std::string("(unreadable)") : std::string(buf, size_t(n));
}

struct TreeDiff {
    size_t compared = 0;
    std::vector<std::string> differences;
};

// Compares `restored` with `source`: every entry of the source must be in
// the restored tree, alike, and the restored tree must hold nothing else.
inline TreeDiff compareTrees(const std::string& source, const std::string& restored) {
    TreeDiff d;
    auto src = treeEntries(source);
    auto dst = treeEntries(restored);
    auto differ = [&](const std::string& path, const std::string& what) { d.differences.push_back(path + ": " + what); };
    std::map<std::pair<dev_t, ino_t>, std::string> firstName;  // source inode -> first name met
    for (const auto& [path, s] : src) {
        ++d.compared;
        auto it = dst.find(path);
        if (it == dst.end()) {
            differ(path, "missing");
            continue;
        }
        const struct stat& r = it->second;
        if ((s.st_mode & S_IFMT) != (r.st_mode & S_IFMT)) {
            differ(path, "type differs");
            continue;
        }
        bool link = S_ISLNK(s.st_mode);
        if (!link && (s.st_mode & 07777) != (r.st_mode & 07777))
            differ(path, "mode " + std::to_string(s.st_mode & 07777) + " != " + std::to_string(r.st_mode & 07777));
        if (s.st_uid != r.st_uid || s.st_gid != r.st_gid) differ(path, "owner or group differs");
        if (!link && !S_ISDIR(s.st_mode) && s.st_mtime != r.st_mtime) differ(path, "modification time differs");
        if (S_ISREG(s.st_mode) && (s.st_size != r.st_size || !sameContent(source + "/" + path, restored + "/" + path)))
            differ(path, "content differs");
        if (link && linkText(source + "/" + path) != linkText(restored + "/" + path)) differ(path, "link target differs");
        if ((S_ISCHR(s.st_mode) || S_ISBLK(s.st_mode)) && s.st_rdev != r.st_rdev) differ(path, "device differs");
        if (!S_ISDIR(s.st_mode)) {
            if (s.st_nlink != r.st_nlink) differ(path, "link count differs");
            auto [first, isNew] = firstName.emplace(std::make_pair(s.st_dev, s.st_ino), path);
            if (!isNew) {
                auto other = dst.find(first->second);
                if (other == dst.end() || other->second.st_ino != r.st_ino || other->second.st_dev != r.st_dev)
                    differ(path, "not the same file as " + first->second);
            }
        }
    }
    for (const auto& [path, r] : dst)
        if (!src.count(path)) differ(path, "not in the source");
    return d;
}

}  // namespace tavik::test
