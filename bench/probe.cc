// Resource use of the programs bench/run.sh compares.
//   tavik_bench_probe run CMD [ARGS...]
//       runs CMD and prints "wall_s cpu_s maxrss_kb exit" (from wait4: the
//       CPU time of CMD and the children it waited for, its peak memory).
//   tavik_bench_probe watch PID
//       until SIGTERM or SIGINT, samples every 5 ms the processes below
//       PID (a daemon's job processes and theirs) and then prints
//       "cpu_s peak_kb processes": their CPU time (last sample of each)
//       summed, and the largest VmHWM among them.
//   tavik_bench_probe floor DIR
//       the read floor of a tree: one process walks it, lstats every
//       entry, opens every regular file, reads it in 64 KiB blocks and
//       closes it; prints "wall_s bytes files".
//   tavik_bench_probe loopback BLOCK BYTES
//       the loopback bandwidth: a child writes BYTES in blocks of BLOCK
//       bytes into a TCP connection on 127.0.0.1 that the parent drains
//       128 KiB at a time; prints "wall_s bytes".
#include <dirent.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace {

volatile sig_atomic_t gStop = 0;
void onStop(int) { gStop = 1; }

double now() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return double(ts.tv_sec) + double(ts.tv_nsec) / 1e9;
}

int run(char* argv[]) {
    double start = now();
    pid_t pid = fork();
    if (pid == 0) {
        execvp(argv[0], argv);
        std::perror(argv[0]);
        _exit(127);
    }
    if (pid < 0) return 1;
    int status = 0;
    rusage ru{};
    while (wait4(pid, &status, 0, &ru) < 0) {
    }
    double wall = now() - start;
    double cpu = double(ru.ru_utime.tv_sec + ru.ru_stime.tv_sec) +
                 double(ru.ru_utime.tv_usec + ru.ru_stime.tv_usec) / 1e6;
    std::printf("%.3f %.3f %ld %d\n", wall, cpu, ru.ru_maxrss, WIFEXITED(status) ? WEXITSTATUS(status) : 128);
    return 0;
}

// ppid and utime+stime (ticks) of a process, from /proc/PID/stat.
bool readStat(pid_t pid, pid_t& ppid, long& ticks) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string line;
    if (!std::getline(in, line)) return false;
    size_t close = line.rfind(')');
    if (close == std::string::npos) return false;
    std::istringstream rest(line.substr(close + 2));
    std::string field;
    long values[13] = {};
    // state ppid pgrp session tty tpgid flags minflt cminflt majflt cmajflt utime stime
    rest >> field;
    for (long& v : values) rest >> v;
    ppid = pid_t(values[0]);
    ticks = values[11] + values[12];
    return !rest.fail();
}

long readHwm(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    while (std::getline(in, line))
        if (line.rfind("VmHWM:", 0) == 0) return std::atol(line.c_str() + 6);
    return 0;
}

// The processes below `pid`, from the kernel's children lists.
void descendants(pid_t pid, std::set<pid_t>& out, int depth = 0) {
    if (depth > 8) return;
    std::string taskDir = "/proc/" + std::to_string(pid) + "/task";
    DIR* d = opendir(taskDir.c_str());
    if (!d) return;
    while (dirent* e = readdir(d)) {
        if (e->d_name[0] == '.') continue;
        std::ifstream in(taskDir + "/" + e->d_name + "/children");
        pid_t child;
        while (in >> child)
            if (out.insert(child).second) descendants(child, out, depth + 1);
    }
    closedir(d);
}

int watch(pid_t root) {
    struct sigaction sa {};
    sa.sa_handler = onStop;
    sigaction(SIGTERM, &sa, nullptr);
    sigaction(SIGINT, &sa, nullptr);
    std::map<pid_t, long> ticks;
    long peak = 0;
    while (!gStop) {
        std::set<pid_t> below;
        descendants(root, below);
        for (pid_t pid : below) {
            pid_t ppid = 0;
            long t = 0;
            if (!readStat(pid, ppid, t)) continue;
            ticks[pid] = t;
            long hwm = readHwm(pid);
            if (hwm > peak) peak = hwm;
        }
        usleep(20000);  // light enough not to slow what it watches; the job lives 200 ms past END
    }
    long total = 0;
    for (auto& [pid, t] : ticks) total += t;
    std::printf("%.3f %ld %zu\n", double(total) / double(sysconf(_SC_CLK_TCK)), peak, ticks.size());
    return 0;
}

struct FloorCount {
    long long bytes = 0;
    long files = 0;
};

void readTree(const std::string& dir, FloorCount& count, std::vector<char>& block) {
    DIR* d = opendir(dir.c_str());
    if (!d) return;
    while (dirent* e = readdir(d)) {
        if (std::strcmp(e->d_name, ".") == 0 || std::strcmp(e->d_name, "..") == 0) continue;
        std::string path = dir + "/" + e->d_name;
        struct stat st {};
        if (lstat(path.c_str(), &st) != 0) continue;
        if (S_ISDIR(st.st_mode)) {
            readTree(path, count, block);
        } else if (S_ISREG(st.st_mode)) {
            int fd = open(path.c_str(), O_RDONLY | O_NOFOLLOW);
            if (fd < 0) continue;
            for (ssize_t n; (n = read(fd, block.data(), block.size())) > 0;) count.bytes += n;
            close(fd);
            count.files++;
        }
    }
    closedir(d);
}

int floorOf(const char* dir) {
    std::vector<char> block(64 * 1024);
    FloorCount count;
    double start = now();
    readTree(dir, count, block);
    std::printf("%.3f %lld %ld\n", now() - start, count.bytes, count.files);
    return 0;
}

int loopback(size_t blockSize, long long total) {
    int listener = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof addr;
    if (listener < 0 || bind(listener, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
        listen(listener, 1) != 0 || getsockname(listener, reinterpret_cast<sockaddr*>(&addr), &length) != 0) {
        std::perror("loopback");
        return 1;
    }
    double start = now();
    pid_t writer = fork();
    if (writer == 0) {
        int fd = socket(AF_INET, SOCK_STREAM, 0);
        if (fd < 0 || connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) _exit(1);
        std::vector<char> block(blockSize, 'x');
        for (long long sent = 0; sent < total;) {
            ssize_t n = write(fd, block.data(), size_t(std::min<long long>(total - sent, (long long)blockSize)));
            if (n <= 0) _exit(1);
            sent += n;
        }
        _exit(0);
    }
    int fd = accept(listener, nullptr, nullptr);
    std::vector<char> sink(128 * 1024);
    long long got = 0;
    for (ssize_t n; fd >= 0 && (n = read(fd, sink.data(), sink.size())) > 0;) got += n;
    int status = 0;
    waitpid(writer, &status, 0);
    std::printf("%.3f %lld\n", now() - start, got);
    return got == total && WIFEXITED(status) && WEXITSTATUS(status) == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char* argv[]) {
    if (argc >= 3 && std::strcmp(argv[1], "run") == 0) return run(argv + 2);
    if (argc == 3 && std::strcmp(argv[1], "watch") == 0) return watch(pid_t(std::atol(argv[2])));
    if (argc == 3 && std::strcmp(argv[1], "floor") == 0) return floorOf(argv[2]);
    if (argc == 4 && std::strcmp(argv[1], "loopback") == 0)
        return loopback(size_t(std::atol(argv[2])), std::atoll(argv[3]));
    std::fprintf(stderr, "usage: tavik_bench_probe run CMD [ARGS...] | watch PID | floor DIR | loopback BLOCK BYTES\n");
    return 2;
}
