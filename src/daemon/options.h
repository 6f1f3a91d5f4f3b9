// Command-line options of tavikd and the paths derived from its program name.
//
// parseOptions applies every option in command-line order to a Settings
// record, clamping values as the agent always has (an out-of-range number
// falls back to its default rather than failing), and reports a bad option or
// a non-numeric argument as a usage error. The confirmation lines that record
// the settings in the log are written by logSettings once the log exists.
#pragma once

#include <cstdio>
#include <optional>
#include <string>

#include "daemon/state.h"

namespace tavik {

// The option letters, in the order the agent has always listed them.
inline constexpr const char* kOptionString = "vb:m:nts:Sr:R:c:ep:lfa:";

// True when the text is present and all decimal digits ("" counts as digits).
bool isDigits(const char* text);

// Applies argv's options to `out`. False on a usage error.
bool parseOptions(int argc, char* const argv[], Settings& out);

// The usage text for the program named by argv0 (its last path component).
std::string usageText(const char* argv0);

// homeDir for argv0 and the working directory `cwd` (nullptr when it cannot
// be read): argv0's directory with its final "/", or the working directory
// plus "/" when argv0 has no "/" or begins with "./". nullopt when the result
// would exceed kMaxHomeDir characters.
std::optional<std::string> programDirectory(const char* argv0, const char* cwd);

// Logs one confirmation line for each setting that differs from a plain
// start, and settles the defaults those lines depend on.
void logSettings(Settings& s);

}  // namespace tavik
