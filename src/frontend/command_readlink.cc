#include <cstdio>
#include <string>
#include <vector>

#include "frontend/browse_client.h"
#include "frontend/commands.h"
#include "frontend/login_options.h"

namespace tavik::frontend {

// tavikctl readlink HOST:/path: the link's text, and the type of what it
// names.
int commandReadlink(int argc, char* argv[]) {
    constexpr const char* kUsage =
        "usage: tavikctl readlink [--browse-version 20|21|22] [--user NAME] [--port N] [--server-version N] "
        "HOST:/path\n";
    std::vector<std::string> args(argv, argv + argc);
    LoginOptions options;
    std::string error;
    if (!parseLoginOptions(args, options, error)) {
        std::fprintf(stderr, "tavikctl: %s\n%s", error.c_str(), kUsage);
        return 2;
    }
    int version = protocol::browse::kAgentVersion;
    std::string target;
    for (size_t i = 0; i < args.size(); ++i) {
        if (takeBrowseVersion(args, i, version)) {
        } else if (target.empty() && !args[i].empty() && args[i][0] != '-') {
            target = args[i];
        } else {
            std::fputs(kUsage, stderr);
            return 2;
        }
    }
    std::string path;
    BrowseClient client;
    if (int status = openBrowseTarget(target, options, kUsage, client, path)) return status;
    std::optional<protocol::BrowseEntry> link = client.readLink(path, static_cast<int8_t>(version));
    if (!link) {
        std::fprintf(stderr, "tavikctl: %s: the agent could not read the link\n", target.c_str());
        return 1;
    }
    if (!client.logout()) {
        // The answer is complete.
    }
    std::printf("%s (%s)\n", link->name.c_str(), targetType(link->mode).c_str());
    return 0;
}

}  // namespace tavik::frontend
