// tavikctl compare ARCHIVE HOST:/path [options] [PATH...]: compares a tree
// on an agent with an archive and prints every difference.
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "frontend/commands.h"
#include "frontend/compare_client.h"
#include "frontend/json_output.h"
#include "frontend/net.h"

namespace tavik::frontend {
namespace {

const char kCompareUsage[] =
    "usage: tavikctl compare ARCHIVE HOST:/path [--detailed] [--directories]\n"
    "       [--groom delete | --groom set NAME --months N] [--timeout SECONDS] [login options] [--json]\n"
    "       [PATH...]\n"
    "  PATH: compare only these archive paths (relative to the archive's source) and what is below them\n";

bool parse(std::vector<std::string> args, CompareSpec& job, std::string& error) {
    if (!parseLoginOptions(args, job.login, error)) return false;
    std::vector<std::string> positional;
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string& a = args[i];
        auto value = [&](std::string& out) {
            if (i + 1 >= args.size()) return false;
            out = args[++i];
            return true;
        };
        std::string v;
        if (a == "--detailed") {
            job.detailed = true;
        } else if (a == "--directories") {
            job.directories = true;
        } else if (takeGroomOption(args, i, job.groom, error)) {
            if (!error.empty()) return false;
        } else if (a == "--timeout") {
            if (!value(v) || std::atoi(v.c_str()) <= 0) return (error = "--timeout takes seconds", false);
            job.timeoutMs = std::atoi(v.c_str()) * 1000;
        } else if (!a.empty() && a[0] == '-') {
            return (error = "unknown option " + a, false);
        } else {
            positional.push_back(a);
        }
    }
    if (positional.size() < 2) return (error = "an archive and HOST:/path are needed", false);
    job.archive = positional[0];
    if (!splitTarget(positional[1], job.host, job.root)) return (error = "the target must be HOST:/path", false);
    for (size_t i = 2; i < positional.size(); ++i) {
        std::string p = positional[i];
        while (!p.empty() && p.front() == '/') p.erase(0, 1);
        while (!p.empty() && p.back() == '/') p.pop_back();
        job.only.push_back(p);
    }
    return groomOptionsComplete(job.groom, error);
}

}  // namespace

int commandCompare(int argc, char* argv[]) {
    bool json = takeJsonFlag(argc, argv);
    CompareSpec job;
    std::string error;
    if (!parse(std::vector<std::string>(argv, argv + argc), job, error)) {
        fprintf(stderr, "tavikctl compare: %s\n%s", error.c_str(), kCompareUsage);
        return 2;
    }
    if (!readPassword(job.login, error)) {
        fprintf(stderr, "tavikctl compare: %s\n", error.c_str());
        return 2;
    }
    CompareResult result;
    if (!compareArchive(job, result, error)) {
        fprintf(stderr, "tavikctl compare: %s\n", error.c_str());
        return 2;
    }
    int status = result.different + result.unreadable == 0 ? 0 : 1;
    if (json) {
        for (const CompareVerdict& v : result.differences)
            printJson(stdout, Json{{"record", "difference"},
                                   {"path", v.path},
                                   {"verdict", verdictWords(v.code)},
                                   {"code", v.code},
                                   {"unreadable", verdictUnreadable(v.code)}});
        Json summary{{"record", "summary"},
                     {"identical", result.identical},
                     {"different", result.different},
                     {"unreadable", result.unreadable}};
        if (result.groomed) {
            summary["groomed_files"] = result.groomCount;
            summary["groom_report"] = result.groomReport;
        }
        printJson(stdout, summary);
        return status;
    }
    for (const CompareVerdict& v : result.differences) printf("%s: %s\n", v.path.c_str(), verdictWords(v.code));
    printf("%zu identical, %zu different, %zu unreadable\n", result.identical, result.different, result.unreadable);
    if (result.groomed) {
        printf("grooming: %s files\n", result.groomCount.c_str());
        fputs(result.groomReport.c_str(), stdout);
        if (!result.groomReport.empty() && result.groomReport.back() != '\n') putchar('\n');
    }
    return status;
}

}  // namespace tavik::frontend
