// The commands of tavikctl. Each takes the arguments after its own name and
// returns the process exit status; usage errors return 2.
#pragma once

#include <string>

namespace tavik::frontend {

int commandQuery(int argc, char* argv[]);
int commandLs(int argc, char* argv[]);
int commandMounts(int argc, char* argv[]);
int commandReadlink(int argc, char* argv[]);
int commandBackup(int argc, char* argv[]);
int commandList(int argc, char* argv[]);
int commandEstimate(int argc, char* argv[]);
int commandCompare(int argc, char* argv[]);
int commandRestore(int argc, char* argv[]);

// An archive's source joined with a path relative to it ("" is the source).
std::string joinSourcePath(const std::string& source, const std::string& relative);

}  // namespace tavik::frontend
