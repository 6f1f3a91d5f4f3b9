// The --json output of tavikctl: JSON Lines, one object per line, for
// scripts and monitoring (tavikctl(1) lists the fields of every command).
// Objects keep their fields in the order they were added. Text that is not
// valid UTF-8 (a file name may hold any bytes) has each bad byte replaced by
// U+FFFD, so that every line is valid JSON.
#pragma once

#include <cstdio>

#include <nlohmann/json.hpp>

namespace tavik::frontend {

using Json = nlohmann::ordered_json;

// Removes every "--json" from argv[0..argc) (the rest keep their order) and
// says whether there was one.
bool takeJsonFlag(int& argc, char* argv[]);

// Writes `object` and a newline to `out`, then flushes it.
void printJson(std::FILE* out, const Json& object);

}  // namespace tavik::frontend
