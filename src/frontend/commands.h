// The commands of tavikctl. Each takes the arguments after its own name and
// returns the process exit status; usage errors return 2.
#pragma once

namespace tavik::frontend {

int commandQuery(int argc, char* argv[]);
int commandLs(int argc, char* argv[]);
int commandMounts(int argc, char* argv[]);
int commandReadlink(int argc, char* argv[]);

}  // namespace tavik::frontend
