#include <sys/sysmacros.h>

#include <cstdio>
#include <string>
#include <vector>

#include "frontend/browse_client.h"
#include "frontend/commands.h"
#include "frontend/login_options.h"
#include "platform/wire_stat.h"

namespace tavik::frontend {

// tavikctl mounts HOST: the mounted file systems the agent offers (fs.cntl
// on the agent leaves types out). The browse protocol carries each mount
// point's status but not its file-system type; the device shown is the
// number of the file system's device, major:minor.
int commandMounts(int argc, char* argv[]) {
    constexpr const char* kUsage = "usage: tavikctl mounts [--user NAME] [--port N] [--server-version N] HOST\n";
    std::vector<std::string> args(argv, argv + argc);
    LoginOptions options;
    std::string error;
    if (!parseLoginOptions(args, options, error)) {
        std::fprintf(stderr, "tavikctl: %s\n%s", error.c_str(), kUsage);
        return 2;
    }
    if (args.size() != 1 || args[0].empty() || args[0][0] == '-') {
        std::fputs(kUsage, stderr);
        return 2;
    }
    std::string host = args[0];
    if (!host.empty() && host.back() == ':') host.pop_back();
    BrowseClient client;
    if (!beginBrowse(client, host, options, error)) {
        std::fprintf(stderr, "tavikctl: %s: %s\n", host.c_str(), error.c_str());
        return 1;
    }
    std::optional<Listing> listing = client.readDir("", protocol::browse::kSelectAll, protocol::browse::kAgentVersion);
    if (!listing) {
        std::fprintf(stderr, "tavikctl: %s: %s\n", host.c_str(), client.lastError().c_str());
        return 1;
    }
    if (!client.logout()) {
        // As for ls: the listing is complete.
    }
    if (listing->end != protocol::browse::kEndOfList) {
        std::fprintf(stderr, "tavikctl: %s: the agent cannot open its mount table (answer %d)\n", host.c_str(),
                     listing->end);
        return 1;
    }
    for (const ListedEntry& e : listing->entries) {
        dev_t dev = platform::decodeDev32(e.entry.fsDev);
        std::printf("%u:%u\t%s\n", major(dev), minor(dev), e.entry.name.c_str());
    }
    return 0;
}

}  // namespace tavik::frontend
