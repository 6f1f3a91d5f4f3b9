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

// The parts one after the other.
Bytes cat(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const Bytes& part : parts) out.insert(out.end(), part.begin(), part.end());
    return out;
}

Bytes command(int8_t code, const Bytes& payload = {}, uint16_t value = 0) {
    return frontend::buildCommand(code, value, payload);
}

Bytes text(const std::string& s, bool nul = true) {
    Bytes b(s.begin(), s.end());
    if (nul) b.push_back(0);
    return b;
}

Bytes le32(uint32_t value) {
    Bytes b(4);
    wire::storeLe32(b.data(), value);
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
    using namespace protocol::code;
    return cat({command(kMkdir, record("/d", 040755)), command(kOpenFile, record("/d/f", 0100644, 2)),
                command(kMof, Bytes(2048, 'a')), command(kEndf, text("tail", false)),
                command(kOpenFile, record("/d/g", 0100644, 2)), command(kEndf),
                command(kOpenFile, record("/d/l", 0120777)), command(kEndf, text("f", false)), command(kUnlink),
                command(kEnd)});
}

Bytes request(uint8_t opMode, int version = frontend::kNewestServerVersion, uint16_t tpSize = 0) {
    return frontend::buildRequestPacket({.root = "/job", .login = "root", .password = "secret", .opMode = opMode,
                                         .serverVersion = version, .tpSize = tpSize});
}

// The command phase: OPTION, DISK_ITEM and DB_FILE (each announcing the raw
// transfer that follows it), a continue point, an unknown command, and the
// start command with an acknowledgement interval.
Bytes commands() {
    Bytes options(512, 0);
    wire::storeLe16(options.data(), 2);
    options[4] = 0x69;
    const Bytes names = cat({text("etc"), text("home")});
    Bytes db(12, 0);
    db[4] = 'd';
    return cat({command(12, options), command(11, cat({le32(2), le32(uint32_t(names.size()))})), names,
                command(15, le32(uint32_t(db.size()))), db, command(16, cat({Bytes(4, 0), text("etc/passwd")})),
                command(99), command(0, {}, 3)});
}

Bytes browse(uint8_t code, const std::string& path, int8_t version = 22, uint16_t select = 3) {
    Bytes payload = text(path);
    auto header = protocol::encodeBrowseHeader(
        {.select = select, .code = code, .version = version, .level = 0, .length = uint16_t(payload.size())});
    return cat({Bytes(header.begin(), header.end()), payload});
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

    write(dir, "fuzz_job", "restore", cat({request(1), commands(), fileStream()}));
    write(dir, "fuzz_job", "compare", cat({request(2), commands(), fileStream()}));
    write(dir, "fuzz_job", "browse",
          cat({request(14), browse(15, "/job"), browse(15, "", 22, 0), browse(21, "/job/l"), browse(17, "")}));
    write(dir, "fuzz_job", "commands", cat({request(7, 50), command(14, cat({text("/job"), text("d")})), commands()}));

    Bytes options(512, 0);
    options[4] = 0x04;
    write(dir, "fuzz_request", "backup",
          cat({request(0, frontend::kNewestServerVersion, 2), options,
               *protocol::encodeNamePatternItem(false, true, std::vector<std::string>{"*.o", "core"}),
               *protocol::encodeNamePatternItem(true, false, std::vector<std::string>{"src*"}), commands()}));
    write(dir, "fuzz_request", "old-server", request(0, 49));

    const Bytes controls = cat({{3, 1}, fileStream()});
    write(dir, "fuzz_restore_stream", "files", controls);
    write(dir, "fuzz_compare_stream", "files", controls);
    write(dir, "fuzz_restore_record", "file", record("/d/f", 0100644));
    write(dir, "fuzz_browse_request", "requests", cat({browse(15, "/usr"), browse(21, "/bin"), browse(17, "")}));
    write(dir, "fuzz_machine_query", "query", {0xA5, 0x5A, 13, 22, 0, 0, 0x77, 0x66});
    write(dir, "fuzz_filter_init", "items",
          *protocol::encodeNamePatternItem(false, false, std::vector<std::string>{"*.[ch]", "Makefile"}));
    write(dir, "fuzz_groom_cntl", "cntl", text("# kept\n/home/keep\n/srv\nnot a path\n", false));
    write(dir, "fuzz_nls_date", "date", text("11/20/04", false));
    return 0;
}
