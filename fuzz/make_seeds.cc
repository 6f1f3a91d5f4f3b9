// Writes the seed corpus of the fuzz targets (fuzz/corpus/<target>/): real
// requests and streams as a front-end sends them, built with the front-end's
// own encoders, so that the fuzzers start from inputs that reach past the
// first length check. Run by bench/fuzz.sh when the corpus is missing;
// the corpus it writes is kept in the repository.
//
//   make_seeds DIR
#include <sys/stat.h>

#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "protocol/filter_items.h"
#include "frontend/job_client.h"
#include "protocol/restore_record.h"
#include "transport/browser.h"
#include "wire/bytes.h"

namespace {

using namespace tavik;
using Bytes = std::vector<uint8_t>;

void append(Bytes& to, const Bytes& more) { to.insert(to.end(), more.begin(), more.end()); }

Bytes command(int8_t code, const Bytes& payload = {}, uint16_t value = 0) {
    return frontend::buildCommand(code, value, payload);
}

Bytes text(const std::string& s, bool nul = true) {
    Bytes b(s.begin(), s.end());
    if (nul) b.push_back(0);
    return b;
}

Bytes record(const std::string& name, uint32_t mode, uint32_t nlink = 1) {
    protocol::RestoreAttributes a{.dev = 3, .ino = 77, .mode = mode, .nlink = nlink, .uid = 0, .gid = 0,
                                 .atime = 1500000000, .mtime = 1400000000, .size = 5, .name = name};
    return protocol::encodeRestoreAttributes(a);
}

// A restore (or compare) stream: a directory, a file in two data packets, a
// second name of it, a symbolic link, UNLINK, END.
Bytes fileStream() {
    Bytes s;
    append(s, command(protocol::code::kMkdir, record("/d", 040755)));
    append(s, command(protocol::code::kOpenFile, record("/d/f", 0100644, 2)));
    append(s, command(protocol::code::kMof, Bytes(2048, 'a')));
    append(s, command(protocol::code::kEndf, text("tail", false)));
    append(s, command(protocol::code::kOpenFile, record("/d/g", 0100644, 2)));
    append(s, command(protocol::code::kEndf));
    append(s, command(protocol::code::kOpenFile, record("/d/l", 0120777)));
    append(s, command(protocol::code::kEndf, text("f", false)));
    append(s, command(protocol::code::kUnlink));
    append(s, command(protocol::code::kEnd));
    return s;
}

Bytes request(uint8_t opMode, int version = frontend::kNewestServerVersion, uint16_t tpSize = 0) {
    return frontend::buildRequestPacket({.root = "/job", .login = "root", .password = "secret", .opMode = opMode,
                                         .serverVersion = version, .tpSize = tpSize});
}

// The command phase: OPTION, DISK_ITEM, DB_FILE, a continue point, an
// unknown command, and the start command with an acknowledgement interval.
Bytes commands() {
    Bytes c;
    Bytes options(512, 0);
    wire::storeLe16(options.data(), 2);
    options[4] = 0x69;
    append(c, command(12, options));
    // DISK_ITEM and DB_FILE announce a raw transfer that follows them.
    Bytes names = text("etc");
    append(names, text("home"));
    Bytes disk(8, 0);
    wire::storeLe32(disk.data(), 2);
    wire::storeLe32(disk.data() + 4, uint32_t(names.size()));
    append(c, command(11, disk));
    append(c, names);
    Bytes db(12, 0);
    db[4] = 'd';
    Bytes dbLength(4, 0);
    wire::storeLe32(dbLength.data(), uint32_t(db.size()));
    append(c, command(15, dbLength));
    append(c, db);
    Bytes resume(4, 0);
    append(resume, text("etc/passwd"));
    append(c, command(16, resume));
    append(c, command(99));
    append(c, command(0, {}, 3));
    return c;
}

Bytes browse(uint8_t code, const std::string& path, int8_t version = 22, uint16_t select = 3) {
    Bytes payload = text(path);
    protocol::BrowseHeader h{.select = select, .code = code, .version = version, .level = 0,
                              .length = uint16_t(payload.size())};
    auto header = protocol::encodeBrowseHeader(h);
    Bytes b(header.begin(), header.end());
    append(b, payload);
    return b;
}

void write(const std::string& dir, const std::string& target, const std::string& name, const Bytes& bytes) {
    std::string at = dir + "/" + target;
    ::mkdir(at.c_str(), 0755);
    std::ofstream(at + "/" + name, std::ios::binary).write(reinterpret_cast<const char*>(bytes.data()),
                                                              std::streamsize(bytes.size()));
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: make_seeds DIR\n");
        return 2;
    }
    std::string dir = argv[1];
    ::mkdir(dir.c_str(), 0755);

    Bytes restoreJob = request(1);
    append(restoreJob, commands());
    append(restoreJob, fileStream());
    write(dir, "fuzz_job", "restore", restoreJob);
    Bytes compareJob = request(2);
    append(compareJob, commands());
    append(compareJob, fileStream());
    write(dir, "fuzz_job", "compare", compareJob);
    Bytes browseJob = request(14);
    for (const Bytes& b : {browse(15, "/job"), browse(15, "", 22, 0), browse(21, "/job/l"), browse(17, "")})
        append(browseJob, b);
    write(dir, "fuzz_job", "browse", browseJob);
    Bytes estimateJob = request(7, 50);
    Bytes estimate = text("/job");
    append(estimate, text("d"));
    append(estimateJob, command(14, estimate));
    append(estimateJob, commands());
    write(dir, "fuzz_job", "commands", estimateJob);

    Bytes backup = request(0, frontend::kNewestServerVersion, 2);
    Bytes options(512, 0);
    options[4] = 0x04;
    append(backup, options);
    append(backup, *protocol::encodeNamePatternItem(false, true, std::vector<std::string>{"*.o", "core"}));
    append(backup, *protocol::encodeNamePatternItem(true, false, std::vector<std::string>{"src*"}));
    append(backup, commands());
    write(dir, "fuzz_request", "backup", backup);
    write(dir, "fuzz_request", "old-server", request(0, 49));

    Bytes controls = {3, 1};
    append(controls, fileStream());
    write(dir, "fuzz_restore_stream", "files", controls);
    write(dir, "fuzz_compare_stream", "files", controls);
    write(dir, "fuzz_restore_record", "file", record("/d/f", 0100644));

    Bytes browsing;
    for (const Bytes& b : {browse(15, "/usr"), browse(21, "/bin"), browse(17, "")}) append(browsing, b);
    write(dir, "fuzz_browse_request", "requests", browsing);
    write(dir, "fuzz_machine_query", "query", {0xA5, 0x5A, 13, 22, 0, 0, 0x77, 0x66});
    write(dir, "fuzz_filter_init", "items",
          *protocol::encodeNamePatternItem(false, false, std::vector<std::string>{"*.[ch]", "Makefile"}));
    write(dir, "fuzz_groom_cntl", "cntl", text("# kept\n/home/keep\n/srv\nnot a path\n", false));
    write(dir, "fuzz_nls_date", "date", text("11/20/04", false));
    return 0;
}
