// tavikctl: the command-line front-end of the agent.
#include <cstdio>
#include <cstring>

#include "frontend/commands.h"

namespace {

struct Command {
    const char* name;
    int (*run)(int argc, char* argv[]);
    const char* synopsis;
};

const Command kCommands[] = {
    {"query", tavik::frontend::commandQuery, "query HOST[:PORT]        show the agent's system name, release, version, machine"},
    {"ls", tavik::frontend::commandLs, "ls [-d|-f] HOST:/dir      list a directory like ls -l (-d directories, -f files)"},
    {"mounts", tavik::frontend::commandMounts, "mounts HOST               list the agent's mounted file systems"},
    {"readlink", tavik::frontend::commandReadlink, "readlink HOST:/path       show a symbolic link's text"},
    {"backup", tavik::frontend::commandBackup, "backup HOST:/path -o ARCHIVE  back up a tree into an archive (-o /dev/null discards it)"},
    {"list", tavik::frontend::commandList, "list [--verify] ARCHIVE  show an archive's entries like tar -tv; --verify checks it"},
    {"estimate", tavik::frontend::commandEstimate, "estimate HOST:/path      count the files and kilobytes a backup would send"},
    {"compare", tavik::frontend::commandCompare, "compare ARCHIVE HOST:/path  compare a tree with an archive; prints every difference"},
    {"restore", tavik::frontend::commandRestore, "restore ARCHIVE HOST:/dest [PATH...]  restore an archive (or parts) into a directory"},
};

int usage() {
    fprintf(stderr, "usage: tavikctl COMMAND [ARGS]\n\ncommands:\n");
    for (const Command& c : kCommands) fprintf(stderr, "  %s\n", c.synopsis);
    fprintf(stderr, "\nquery, list, estimate, compare, backup and restore take --json: JSON Lines for scripts\n"
                    "(tavikctl(1) gives their fields, and every command's options)\n");
    return 2;
}

}  // namespace

int main(int argc, char* argv[]) {
    if (argc < 2) return usage();
    for (const Command& c : kCommands)
        if (std::strcmp(argv[1], c.name) == 0) return c.run(argc - 2, argv + 2);
    if (std::strcmp(argv[1], "--help") == 0 || std::strcmp(argv[1], "help") == 0) {
        usage();
        return 0;
    }
    fprintf(stderr, "tavikctl: unknown command '%s'\n", argv[1]);
    return usage();
}
