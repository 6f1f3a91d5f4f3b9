#include "daemon/limits.h"

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include "log/ulog.h"

namespace tavik {

void readLimits(const std::string& path, Settings& s) {
    std::ifstream in(path);
    if (!in) return;
    std::string line;
    for (int number = 1; std::getline(in, line); ++number) {
        line = line.substr(0, line.find('#'));
        std::istringstream words(line);
        std::string name, value, extra;
        if (!(words >> name)) continue;
        words >> value >> extra;
        char* end = nullptr;
        errno = 0;
        long n = std::strtol(value.c_str(), &end, 10);
        bool valid = !value.empty() && *end == '\0' && errno == 0 && n >= 1 && n <= kMaxLimit && extra.empty();
        int* target = name == "waiting" ? &s.maxWaiting : name == "jobs" ? &s.maxJobs : nullptr;
        if (!target || !valid) {
            ulog("(limits) %s line %d is ignored: %s", path.c_str(), number, line.c_str());
            continue;
        }
        *target = static_cast<int>(n);
    }
    if (s.maxWaiting != kDefaultMaxWaiting || s.maxJobs != kDefaultMaxJobs)
        ulog("* At most %d callers waiting for admission and %d jobs", s.maxWaiting, s.maxJobs);
}

}  // namespace tavik
