// tavikctl list [--verify] ARCHIVE: the archive's entries in the manner of
// `tar -tv` (mode, owner/group ids, size, modification time, full path),
// entries the agent could not send and skipped directories in words. With
// --verify the checksum, the trailer's counts and the stream's structure are
// checked and the verdict printed on standard error.
#include <sys/stat.h>
#include <time.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "frontend/archive.h"
#include "frontend/commands.h"

namespace tavik::frontend {
namespace {

std::string modeText(uint32_t mode) {
    char t = '?';
    switch (mode & 0xF000) {
    case 0x1000: t = 'p'; break;
    case 0x2000: t = 'c'; break;
    case 0x4000: t = 'd'; break;
    case 0x6000: t = 'b'; break;
    case 0x8000: t = '-'; break;
    case 0xA000: t = 'l'; break;
    case 0xC000: t = 's'; break;
    }
    std::string s(10, '-');
    s[0] = t;
    const char* rwx = "rwxrwxrwx";
    for (int i = 0; i < 9; ++i)
        if (mode & (0400u >> i)) s[size_t(1 + i)] = rwx[i];
    if (mode & 0x800) s[3] = (mode & 0100) ? 's' : 'S';
    if (mode & 0x400) s[6] = (mode & 0010) ? 's' : 'S';
    if (mode & 0x200) s[9] = (mode & 0001) ? 't' : 'T';
    return s;
}

std::string entryLine(const TreeEvent& e, const std::string& source) {
    const backup::BackupAttributes& a = e.attributes;
    char when[32] = "(unknown date)  ";
    time_t mtime = time_t(a.mtime);
    struct tm tm {};
    if (localtime_r(&mtime, &tm)) strftime(when, sizeof when, "%Y-%m-%d %H:%M", &tm);
    char head[128];
    snprintf(head, sizeof head, "%s %d/%d %10u %s ", modeText(a.mode).c_str(), a.uid, a.gid, a.size, when);
    std::string path = joinSourcePath(source, e.path);
    if (e.isDirectory && path.back() != '/') path += '/';
    return head + path;
}

}  // namespace

int commandList(int argc, char* argv[]) {
    bool verify = false;
    std::string path;
    for (int i = 0; i < argc; ++i) {
        std::string a = argv[i];
        if (a == "--verify") {
            verify = true;
        } else if (path.empty() && !a.empty() && a[0] != '-') {
            path = a;
        } else {
            path.clear();
            break;
        }
    }
    if (path.empty()) {
        fprintf(stderr, "usage: tavikctl list [--verify] ARCHIVE\n");
        return 2;
    }
    ArchiveReader reader;
    if (!reader.open(path)) {
        fprintf(stderr, "tavikctl list: %s\n", reader.error().c_str());
        return 1;
    }
    const std::string& source = reader.header().source;
    ArchiveWalker walker(reader);
    TreeEvent e;
    std::string pendingLink;  // a symbolic link's line waits for its target
    uint64_t entries = 0;
    for (;;) {
        ArchiveWalker::Next n = walker.next(e);
        if (n == ArchiveWalker::Next::kError) {
            if (!pendingLink.empty()) printf("%s\n", pendingLink.c_str());
            fflush(stdout);
            fprintf(stderr, "tavikctl list: %s\n", walker.error().c_str());
            if (verify) fprintf(stderr, "tavikctl list: verify: FAILED\n");
            return 1;
        }
        if (n == ArchiveWalker::Next::kEnd) break;
        switch (e.type) {
        case TreeEvent::Type::kEntry:
            ++entries;
            if ((e.attributes.mode & 0xF000) == 0xA000 && !e.isDirectory) {
                pendingLink = entryLine(e, source);
            } else {
                printf("%s\n", entryLine(e, source).c_str());
            }
            break;
        case TreeEvent::Type::kData:
            if (!pendingLink.empty() && e.last) {
                pendingLink += " -> ";
                pendingLink.append(reinterpret_cast<const char*>(e.data.data()), e.data.size());
                printf("%s\n", pendingLink.c_str());
                pendingLink.clear();
            }
            break;
        case TreeEvent::Type::kProblem: {
            if (!pendingLink.empty()) {
                printf("%s\n", pendingLink.c_str());
                pendingLink.clear();
            }
            bool unsent = e.code != protocol::code::kReadErr && e.code != protocol::code::kNoDir;
            if (unsent) ++entries;
            printf("%-10s %s (%s)\n", statusName(e.code), joinSourcePath(source, e.path).c_str(),
                   statusWords(e.code));
            break;
        }
        case TreeEvent::Type::kDirClose:
            if (e.code != protocol::code::kEndDir)
                printf("%-10s %s (%s)\n", statusName(e.code), joinSourcePath(source, e.path).c_str(),
                       statusWords(e.code));
            break;
        case TreeEvent::Type::kGroomCount:
            printf("%-10s %s files groomed\n", "GROOMCOUNT", e.text.c_str());
            break;
        case TreeEvent::Type::kEnd:
            break;
        }
    }
    fflush(stdout);
    if (!verify) return 0;
    const ArchiveTrailer& t = reader.trailer();
    if (!reader.checksumGood()) {
        fprintf(stderr, "tavikctl list: verify: FAILED: checksum or counts do not match the trailer\n");
        return 1;
    }
    if (!t.complete) {
        fprintf(stderr, "tavikctl list: verify: FAILED: the archive is marked incomplete\n");
        return 1;
    }
    fprintf(stderr, "tavikctl list: verify: checksum good, %u packets, %llu entries, stream complete\n",
            reader.packetsRead(), static_cast<unsigned long long>(entries));
    return 0;
}

}  // namespace tavik::frontend
