#include "frontend/backup_options.h"

#include <ctime>
#include <cstdlib>

#include "protocol/filter_items.h"

namespace tavik::frontend {
namespace {

bool parseUnsigned(const std::string& text, unsigned long high, unsigned long& out) {
    if (text.empty() || text.size() > 10 || text.find_first_not_of("0123456789") != std::string::npos) return false;
    out = std::strtoul(text.c_str(), nullptr, 10);
    return out <= high;
}

// Options that set a bit of the options record.
struct FlagOption {
    const char* name;
    bool backupOnly;
    uint8_t flag;
};
constexpr FlagOption kFlagOptions[] = {
    {"--no-atime-reset", false, option_flag::kNoAtimeReset},
    {"--one-file-system", false, option_flag::kOneFileSystem},
    {"--nfs", false, option_flag::kTraverseNfs},
    {"--watchdog", true, option_flag::kWatchDog},
    {"--renew", true, option_flag::kRenew},
    {"--buffer-from-agent", true, option_flag::kBufferFromAgent},
};

// Options that take a number in [low, high].
struct NumberOption {
    const char* name;
    bool backupOnly;
    unsigned long low, high;
    const char* needs;  // the error's text after the option's name
    void (*set)(BackupJobSpec& job, unsigned long n);
};
constexpr NumberOption kNumberOptions[] = {
    {"--timeout", false, 1, 86400, "needs seconds (1..86400)",
     [](BackupJobSpec& j, unsigned long n) { j.timeoutMs = int(n) * 1000; }},
    {"--lock-retries", false, 0, 65535, "needs a number (0..65535)",
     [](BackupJobSpec& j, unsigned long n) { j.retryCount = uint16_t(n); }},
    {"--lock-interval", false, 0, 65535, "needs a number (0..65535)",
     [](BackupJobSpec& j, unsigned long n) { j.retryInterval = uint16_t(n); }},
    {"--ack", true, 0, 65535, "needs a number (0..65535)",
     [](BackupJobSpec& j, unsigned long n) { j.ackInterval = uint16_t(n); }},
    {"--hold-after-end", true, 0, 60000, "needs milliseconds (0..60000)",
     [](BackupJobSpec& j, unsigned long n) { j.holdAfterEndMs = int(n); }},
};

template <typename Option, size_t N>
const Option* findOption(const Option (&table)[N], const std::string& name, bool forBackup) {
    for (const Option& o : table)
        if (name == o.name && (forBackup || !o.backupOnly)) return &o;
    return nullptr;
}

}  // namespace

const char kBackupUsage[] =
    "usage: tavikctl backup HOST:/path -o ARCHIVE [options]\n"
    "  selection: --include-file PAT --exclude-file PAT --include-dir PAT --exclude-dir PAT\n"
    "             --before DAY --after DAY --between DAY,DAY --within N{d|m|y}  (DAY is YYYY-MM-DD)\n"
    "             --date-field ctime|mtime|atime (default mtime) --exclude-dates --top NAME\n"
    "  job:       --ack N --watchdog --renew --buffer-from-agent --no-atime-reset --one-file-system\n"
    "             --nfs --follow-links --restart PATH[:OFFSET] --lock-retries N --lock-interval S\n"
    "             --timeout SECONDS --hold-after-end MS --groom delete | --groom set NAME --months N\n"
    "  login:     --user NAME --port N --server-version 49..52 (password from TAVIK_PASSWORD or asked)\n"
    "  output:    --json (the run's summary as one JSON object)\n";
const char kEstimateUsage[] =
    "usage: tavikctl estimate HOST:/path [selection options of backup] [--no-atime-reset]\n"
    "       [--one-file-system] [--nfs] [--follow-links] [--timeout SECONDS] [login options] [--json]\n";

bool parseDay(const std::string& text, int32_t& out) {
    int y, m, d;
    char tail;
    if (text.size() != 10 || std::sscanf(text.c_str(), "%4d-%2d-%2d%c", &y, &m, &d, &tail) != 3) return false;
    if (y < 1970 || y > 2037 || m < 1 || m > 12 || d < 1 || d > 31) return false;
    std::tm tm{};
    tm.tm_year = y - 1900;
    tm.tm_mon = m - 1;
    tm.tm_mday = d;
    time_t t = timegm(&tm);
    if (tm.tm_mday != d) return false;  // 2026-02-30 and the like
    out = int32_t(t);
    return true;
}

bool parseRestart(const std::string& text, uint32_t& offset, std::string& path) {
    offset = 0;
    path = text;
    size_t colon = text.rfind(':');
    if (colon != std::string::npos) {
        std::string tail = text.substr(colon + 1);
        unsigned long n = 0;
        if (tail == "-1") {
            offset = 0xFFFFFFFFu;
            path = text.substr(0, colon);
        } else if (parseUnsigned(tail, 0xFFFFFFFEul, n)) {
            offset = uint32_t(n);
            path = text.substr(0, colon);
        }
    }
    return !path.empty();
}

namespace {

// The selection options: name patterns and date rules, collected while the
// command line is read and turned into filter items at its end.
class SelectionOptions {
public:
    // Takes args[i] (and its value) when it is a selection option: true, with
    // `error` set when its value is bad.
    bool take(const std::vector<std::string>& args, size_t& i, std::string& error);
    // Appends the filter items; false when the patterns are too long.
    bool encode(std::vector<std::vector<uint8_t>>& items, std::string& error) const;

private:
    struct DateRule {
        uint8_t kind;
        int32_t first, second;
        uint32_t n;
        uint16_t unit;
    };
    bool dateRule(const std::string& a, const std::string& v, std::string& error);

    std::vector<std::string> patterns_[4];  // include file, exclude file, include dir, exclude dir
    std::vector<DateRule> dates_;
    uint8_t which_ = protocol::kWhichModified;
    bool excludeDates_ = false;
};

bool SelectionOptions::take(const std::vector<std::string>& args, size_t& i, std::string& error) {
    const std::string& a = args[i];
    if (a == "--exclude-dates") {
        excludeDates_ = true;
        return true;
    }
    const bool pattern = a == "--include-file" || a == "--exclude-file" || a == "--include-dir" || a == "--exclude-dir";
    const bool date = a == "--before" || a == "--after" || a == "--between" || a == "--within";
    if (!pattern && !date && a != "--date-field") return false;
    if (i + 1 >= args.size()) {
        error = a + " needs a value";
        return true;
    }
    const std::string& v = args[++i];
    if (pattern) {
        int slot = (a == "--exclude-file") + 2 * (a == "--include-dir") + 3 * (a == "--exclude-dir");
        patterns_[slot].push_back(v);
    } else if (date) {
        dateRule(a, v, error);
    } else if (v == "ctime") {
        which_ = protocol::kWhichChanged;
    } else if (v == "mtime") {
        which_ = protocol::kWhichModified;
    } else if (v == "atime") {
        which_ = protocol::kWhichAccessed;
    } else {
        error = "--date-field is ctime, mtime or atime";
    }
    return true;
}

bool SelectionOptions::dateRule(const std::string& a, const std::string& v, std::string& error) {
    if (a == "--before" || a == "--after") {
        DateRule r{a == "--before" ? protocol::kOnOrBefore : protocol::kOnOrAfter, 0, 0, 0, 0};
        if (!parseDay(v, r.first)) {
            error = a + " needs a day YYYY-MM-DD";
            return false;
        }
        dates_.push_back(r);
    } else if (a == "--between") {
        DateRule r{protocol::kBetween, 0, 0, 0, 0};
        size_t comma = v.find(',');
        if (comma == std::string::npos || !parseDay(v.substr(0, comma), r.first) ||
            !parseDay(v.substr(comma + 1), r.second)) {
            error = "--between needs DAY,DAY";
            return false;
        }
        dates_.push_back(r);
    } else {
        DateRule r{protocol::kWithin, 0, 0, 0, 0};
        unsigned long n = 0;
        if (v.size() < 2 || !parseUnsigned(v.substr(0, v.size() - 1), 100000, n) ||
            std::string("dmy").find(v.back()) == std::string::npos) {
            error = "--within needs N followed by d, m or y";
            return false;
        }
        r.n = uint32_t(n);
        r.unit = v.back() == 'd' ? protocol::kUnitDays : v.back() == 'm' ? protocol::kUnitMonths : protocol::kUnitYears;
        dates_.push_back(r);
    }
    return true;
}

bool SelectionOptions::encode(std::vector<std::vector<uint8_t>>& items, std::string& error) const {
    for (int slot = 0; slot < 4; ++slot) {
        if (patterns_[slot].empty()) continue;
        auto item = protocol::encodeNamePatternItem(slot >= 2, slot % 2 == 1, patterns_[slot]);
        if (!item) {
            error = "the name patterns are too long";
            return false;
        }
        items.push_back(std::move(*item));
    }
    for (const DateRule& r : dates_)
        items.push_back(r.kind == protocol::kWithin
                            ? protocol::encodeWithinItem(excludeDates_, which_, r.n, r.unit)
                            : protocol::encodeDateItem(excludeDates_, which_, r.kind, r.first, r.second));
    return true;
}

}  // namespace

bool parseBackupCommandLine(std::vector<std::string> args, bool forBackup, BackupCommandLine& out,
                            std::string& error) {
    BackupJobSpec& job = out.job;
    if (!parseLoginOptions(args, job.login, error)) return false;
    job.port = job.login.port;
    SelectionOptions selection;
    std::string target;
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string& a = args[i];
        auto value = [&](std::string& v) {
            if (i + 1 >= args.size()) {
                error = a + " needs a value";
                return false;
            }
            v = args[++i];
            return true;
        };
        std::string v;
        unsigned long n = 0;
        if (const FlagOption* f = findOption(kFlagOptions, a, forBackup)) {
            job.optionFlags |= f->flag;
        } else if (const NumberOption* o = findOption(kNumberOptions, a, forBackup)) {
            if (!value(v) || !parseUnsigned(v, o->high, n) || n < o->low) {
                if (error.empty()) error = a + " " + o->needs;
                return false;
            }
            o->set(job, n);
        } else if (selection.take(args, i, error)) {
            if (!error.empty()) return false;
        } else if (a == "--top") {
            if (!value(v)) return false;
            if (v.empty() || v.find('/') != std::string::npos) {
                error = "--top takes a name in the source directory";
                return false;
            }
            job.topNames.push_back(v);
        } else if (a == "--follow-links") {
            job.follow = 1;
        } else if (forBackup && (a == "-o" || a == "--output")) {
            if (!value(out.output)) return false;
        } else if (forBackup && takeGroomOption(args, i, job.groom, error)) {
            if (!error.empty()) return false;
        } else if (forBackup && a == "--restart") {
            uint32_t offset = 0;
            std::string path;
            if (!value(v) || !parseRestart(v, offset, path)) {
                if (error.empty()) error = "--restart needs PATH[:OFFSET]";
                return false;
            }
            job.restart = std::make_pair(offset, path);
        } else if (!a.empty() && a[0] != '-' && target.empty()) {
            target = a;
        } else {
            error = "unexpected argument '" + a + "'";
            return false;
        }
    }
    if (!groomOptionsComplete(job.groom, error)) return false;
    if (target.empty() || !splitTarget(target, job.host, job.source)) {
        error = "give the source as HOST:/path";
        return false;
    }
    if (forBackup && out.output.empty()) {
        error = "give the archive with -o ARCHIVE (-o /dev/null discards it)";
        return false;
    }
    return selection.encode(job.filterItems, error);
}

}  // namespace tavik::frontend
