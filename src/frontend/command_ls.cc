#include <cstdio>
#include <string>
#include <vector>

#include "frontend/browse_client.h"
#include "frontend/commands.h"
#include "frontend/login_options.h"

namespace tavik::frontend {
namespace {

constexpr const char* kUsage =
    "usage: tavikctl ls [-d|-f] [--browse-version 20|21|22] [--user NAME] [--port N] [--server-version N] HOST:/dir\n";

}  // namespace

// tavikctl ls HOST:/dir: the directory's entries as the agent lists them,
// -d directories only, -f regular files only (links count as their target).
int commandLs(int argc, char* argv[]) {
    std::vector<std::string> args(argv, argv + argc);
    LoginOptions options;
    std::string error;
    if (!parseLoginOptions(args, options, error)) {
        std::fprintf(stderr, "tavikctl: %s\n%s", error.c_str(), kUsage);
        return 2;
    }
    uint16_t select = protocol::browse::kSelectAll;
    int version = protocol::browse::kAgentVersion;
    std::string target;
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string& a = args[i];
        if (a == "-d") {
            select = protocol::browse::kSelectDirectories;
        } else if (a == "-f") {
            select = protocol::browse::kSelectFiles;
        } else if (takeBrowseVersion(args, i, version)) {
        } else if (target.empty() && !a.empty() && a[0] != '-') {
            target = a;
        } else {
            std::fputs(kUsage, stderr);
            return 2;
        }
    }
    std::string path;
    BrowseClient client;
    if (int status = openBrowseTarget(target, options, kUsage, client, path)) return status;
    std::optional<Listing> listing = client.readDir(path, select, static_cast<int8_t>(version));
    if (!listing) {
        std::fprintf(stderr, "tavikctl: %s: %s\n", target.c_str(), client.lastError().c_str());
        return 1;
    }
    if (!client.logout()) {
        // The listing is complete; the agent ends the job when it finds the
        // connection closed.
    }
    if (listing->end != protocol::browse::kEndOfList) {
        std::fprintf(stderr, "tavikctl: %s: %s\n", target.c_str(), describeAnswer(listing->end).c_str());
        return 1;
    }
    for (const ListedEntry& e : listing->entries) std::printf("%s\n", longListingLine(e).c_str());
    return 0;
}

}  // namespace tavik::frontend
