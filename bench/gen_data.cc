// Data sets for bench/run.sh, reproducible (a fixed pseudo-random sequence):
//   tavik_bench_gen big DIR FILES BYTES_PER_FILE
//   tavik_bench_gen small DIR FILES DIRS MAX_BYTES
// "small" spreads FILES files of 0..MAX_BYTES bytes evenly over DIRS
// directories d0000, d0001, ...
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

uint64_t gState = 0x9E3779B97F4A7C15ull;

uint64_t nextRandom() {
    gState ^= gState << 13;
    gState ^= gState >> 7;
    gState ^= gState << 17;
    return gState;
}

bool writeFile(const std::string& path, uint64_t size, std::vector<uint64_t>& buffer) {
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd < 0) {
        std::perror(path.c_str());
        return false;
    }
    while (size > 0) {
        for (uint64_t& w : buffer) w = nextRandom();
        size_t chunk = buffer.size() * sizeof(uint64_t);
        if (chunk > size) chunk = size_t(size);
        if (::write(fd, buffer.data(), chunk) != ssize_t(chunk)) {
            std::perror(path.c_str());
            ::close(fd);
            return false;
        }
        size -= chunk;
    }
    return ::close(fd) == 0;
}

}  // namespace

int main(int argc, char* argv[]) {
    std::vector<uint64_t> buffer(1 << 17);  // 1 MiB
    std::string mode = argc > 1 ? argv[1] : "";
    if (mode == "big" && argc == 5) {
        std::string dir = argv[2];
        long files = std::atol(argv[3]);
        uint64_t bytes = std::strtoull(argv[4], nullptr, 10);
        ::mkdir(dir.c_str(), 0755);
        for (long i = 0; i < files; ++i)
            if (!writeFile(dir + "/big" + std::to_string(i) + ".bin", bytes, buffer)) return 1;
        return 0;
    }
    if (mode == "small" && argc == 6) {
        std::string dir = argv[2];
        long files = std::atol(argv[3]);
        long dirs = std::atol(argv[4]);
        uint64_t maxBytes = std::strtoull(argv[5], nullptr, 10);
        if (dirs < 1) dirs = 1;
        ::mkdir(dir.c_str(), 0755);
        for (long d = 0; d < dirs; ++d) {
            char name[32];
            std::snprintf(name, sizeof name, "/d%04ld", d);
            ::mkdir((dir + name).c_str(), 0755);
        }
        for (long i = 0; i < files; ++i) {
            char name[64];
            std::snprintf(name, sizeof name, "/d%04ld/f%06ld", i % dirs, i);
            if (!writeFile(dir + name, nextRandom() % (maxBytes + 1), buffer)) return 1;
        }
        return 0;
    }
    std::fprintf(stderr, "usage: tavik_bench_gen big DIR FILES BYTES | small DIR FILES DIRS MAX_BYTES\n");
    return 2;
}
