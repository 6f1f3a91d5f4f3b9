// tavikctl list [--verify] ARCHIVE: the archive's entries in the manner of
// `tar -tv` (mode, owner/group ids, size, modification time, full path),
// entries the agent could not send and skipped directories in words. With
// --verify the checksum, the trailer's counts and the stream's structure are
// checked and the verdict printed on standard error. With --json each line is
// a JSON object instead (entries, problems, the verdict).
#include <sys/stat.h>
#include <time.h>

#include <cstdio>
#include <cstring>
#include <optional>
#include <string>

#include "frontend/archive.h"
#include "frontend/commands.h"
#include "frontend/json_output.h"

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
    const protocol::BackupAttributes& a = e.attributes;
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

const char* typeWord(const TreeEvent& e) {
    if (e.isDirectory) return "directory";
    switch (e.attributes.mode & 0xF000) {
    case 0x1000: return "fifo";
    case 0x2000: return "character-device";
    case 0x4000: return "directory";
    case 0x6000: return "block-device";
    case 0x8000: return "file";
    case 0xA000: return "symlink";
    case 0xC000: return "socket";
    }
    return "unknown";
}

// A path without the slash that joinSourcePath leaves after a directory.
std::string plainPath(const std::string& source, const std::string& relative) {
    std::string path = joinSourcePath(source, relative);
    if (path.size() > 1 && path.back() == '/') path.pop_back();
    return path;
}

// Prints each record of the listing: a line in words, or a JSON object.
class Printer {
public:
    Printer(bool json, const std::string& source) : json_(json), source_(source) {}

    // `target` is a symbolic link's text (null for other entries).
    void entry(const TreeEvent& e, const std::string* target) const {
        if (!json_) {
            std::string line = entryLine(e, source_);
            if (target) line += " -> " + *target;
            printf("%s\n", line.c_str());
            return;
        }
        const protocol::BackupAttributes& a = e.attributes;
        char mode[8];
        snprintf(mode, sizeof mode, "%04o", unsigned(a.mode & 07777));
        Json o{{"record", "entry"}, {"path", plainPath(source_, e.path)}, {"type", typeWord(e)}, {"mode", mode},
               {"uid", a.uid},      {"gid", a.gid},                       {"size", a.size},     {"mtime", a.mtime}};
        if (target) o["target"] = *target;
        printJson(stdout, o);
    }
    void problem(int8_t code, const std::string& path) const {
        if (json_)
            printJson(stdout, Json{{"record", "problem"},
                                   {"status", statusName(code)},
                                   {"path", plainPath(source_, path)},
                                   {"reason", statusWords(code)}});
        else
            printf("%-10s %s (%s)\n", statusName(code), joinSourcePath(source_, path).c_str(), statusWords(code));
    }
    void groomCount(const std::string& text) const {
        if (json_)
            printJson(stdout, Json{{"record", "groomed"}, {"files", text}});
        else
            printf("%-10s %s files groomed\n", "GROOMCOUNT", text.c_str());
    }
    void verdict(bool ok, const std::string& error, uint32_t packets, uint64_t entries) const {
        if (!json_) return;
        Json o{{"record", "verify"}, {"ok", ok}};
        if (ok) {
            o["packets"] = packets;
            o["entries"] = entries;
        } else {
            o["error"] = error;
        }
        printJson(stdout, o);
    }

private:
    bool json_;
    const std::string& source_;
};

// Prints an archive's events one by one; a symbolic link waits for the data
// that carry its target.
class Listing {
public:
    explicit Listing(const Printer& print) : print_(print) {}
    void show(const TreeEvent& e);
    void flushLink(const std::string* target) {
        if (pendingLink_) print_.entry(*pendingLink_, target);
        pendingLink_.reset();
    }
    // Entries the backup met: those sent and those it could not send.
    uint64_t entries() const { return entries_; }

private:
    const Printer& print_;
    std::optional<TreeEvent> pendingLink_;
    uint64_t entries_ = 0;
};

void Listing::show(const TreeEvent& e) {
    switch (e.type) {
    case TreeEvent::Type::kEntry:
        ++entries_;
        flushLink(nullptr);
        if ((e.attributes.mode & 0xF000) == 0xA000 && !e.isDirectory) {
            pendingLink_ = e;
            pendingLink_->data = {};
        } else {
            print_.entry(e, nullptr);
        }
        break;
    case TreeEvent::Type::kData:
        if (pendingLink_ && e.last) {
            std::string target(reinterpret_cast<const char*>(e.data.data()), e.data.size());
            flushLink(&target);
        }
        break;
    case TreeEvent::Type::kProblem: {
        flushLink(nullptr);
        bool unsent = e.code != protocol::code::kReadErr && e.code != protocol::code::kNoDir;
        if (unsent) ++entries_;
        print_.problem(e.code, e.path);
        break;
    }
    case TreeEvent::Type::kDirClose:
        if (e.code != protocol::code::kEndDir) print_.problem(e.code, e.path);
        break;
    case TreeEvent::Type::kGroomCount:
        print_.groomCount(e.text);
        break;
    case TreeEvent::Type::kEnd:
        break;
    }
}

}  // namespace

int commandList(int argc, char* argv[]) {
    bool json = takeJsonFlag(argc, argv);
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
        fprintf(stderr, "usage: tavikctl list [--verify] [--json] ARCHIVE\n");
        return 2;
    }
    ArchiveReader reader;
    if (!reader.open(path)) {
        fprintf(stderr, "tavikctl list: %s\n", reader.error().c_str());
        return 1;
    }
    const Printer print(json, reader.header().source);
    ArchiveWalker walker(reader);
    Listing listing(print);
    TreeEvent e;
    for (;;) {
        ArchiveWalker::Next n = walker.next(e);
        if (n == ArchiveWalker::Next::kEnd) break;
        if (n == ArchiveWalker::Next::kError) {
            listing.flushLink(nullptr);
            fflush(stdout);
            fprintf(stderr, "tavikctl list: %s\n", walker.error().c_str());
            if (verify) {
                fprintf(stderr, "tavikctl list: verify: FAILED\n");
                print.verdict(false, walker.error(), 0, 0);
            }
            return 1;
        }
        listing.show(e);
    }
    const uint64_t entries = listing.entries();
    auto failed = [&](const std::string& error) {
        fflush(stdout);
        fprintf(stderr, "tavikctl list: verify: FAILED: %s\n", error.c_str());
        print.verdict(false, error, 0, 0);
        return 1;
    };
    fflush(stdout);
    if (!verify) return 0;
    const ArchiveTrailer& t = reader.trailer();
    if (!reader.checksumGood()) return failed("checksum or counts do not match the trailer");
    if (!t.complete) return failed("the archive is marked incomplete");
    fprintf(stderr, "tavikctl list: verify: checksum good, %u packets, %llu entries, stream complete\n",
            reader.packetsRead(), static_cast<unsigned long long>(entries));
    print.verdict(true, "", reader.packetsRead(), entries);
    return 0;
}

}  // namespace tavik::frontend
