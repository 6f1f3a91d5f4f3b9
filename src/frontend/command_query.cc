#include <cstdio>
#include <cstdlib>
#include <string>

#include "frontend/commands.h"
#include "frontend/json_output.h"
#include "frontend/machine_query.h"
#include "frontend/net.h"

namespace tavik::frontend {

// tavikctl query HOST[:PORT] [--timeout MS] [--server-version N] [--json]
int commandQuery(int argc, char* argv[]) {
    bool json = takeJsonFlag(argc, argv);
    std::string target;
    int timeoutMs = 3000;
    int version = 22;
    for (int i = 0; i < argc; ++i) {
        std::string arg = argv[i];
        if (arg == "--timeout" && i + 1 < argc) {
            timeoutMs = std::atoi(argv[++i]);
        } else if (arg == "--server-version" && i + 1 < argc) {
            version = std::atoi(argv[++i]);
        } else if (target.empty() && arg[0] != '-') {
            target = arg;
        } else {
            target.clear();
            break;
        }
    }
    auto hp = target.empty() ? std::nullopt : parseHostPort(target);
    if (!hp || timeoutMs <= 0) {
        fprintf(stderr, "usage: tavikctl query HOST[:PORT] [--timeout MS] [--server-version N] [--json]\n");
        return 2;
    }
    std::string error;
    auto info = queryMachine(hp->host, hp->port, timeoutMs, int8_t(version), error);
    if (!info) {
        fprintf(stderr, "tavikctl: %s\n", error.c_str());
        return 1;
    }
    if (info->command != 13) {
        fprintf(stderr, "tavikctl: the agent could not identify its system (answer %d)\n", info->command);
        return 1;
    }
    if (json) {
        printJson(stdout, Json{{"host", hp->host},
                               {"port", hp->port},
                               {"system", info->sysname},
                               {"release", info->release},
                               {"version", info->version_text},
                               {"machine", info->machine}});
        return 0;
    }
    printf("System:  %s\n", info->sysname.c_str());
    printf("Release: %s\n", info->release.c_str());
    printf("Version: %s\n", info->version_text.c_str());
    printf("Machine: %s\n", info->machine.c_str());
    return 0;
}

}  // namespace tavik::frontend
