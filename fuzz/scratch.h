// Set-up shared by the fuzz targets: the agent's log sent nowhere, or a
// scratch home (with its LOG folder) that is made on first use and removed
// with everything in it when the fuzzer exits.
#pragma once

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "../tests/scratch_base.h"
#include "daemon/state.h"

namespace tavik::fuzz {

// Every log line, the rotated log's too, goes to /dev/null.
inline void discardLog() {
    paths().logPath = "/dev/null";
    paths().oldLogPath = "/dev/null";
    publishSettings();
}

// Writes the `size` bytes at `data` to `path`, replacing what was there.
inline void writeInput(const std::string& path, const uint8_t* data, size_t size) {
    std::ofstream(path, std::ios::binary | std::ios::trunc).write(reinterpret_cast<const char*>(data),
                                                                  std::streamsize(size));
}

// <base>/tavik-fuzz-<name>-XXXXXX, on a memory file system when the machine
// has one (restores end with a syncfs, which on a disk waits for everything
// else written there), made by the first call (a target uses one
// name). Never destroyed: the exit handler that removes it runs after
// static destructors would have.
inline const std::string& scratchDir(const char* name) {
    static const std::string* dir = [name] {
        std::string tmpl = std::string(testing::scratchBase()) + "/tavik-fuzz-" + name + "-XXXXXX";
        if (!::mkdtemp(tmpl.data())) std::abort();
        std::atexit([] {
            std::error_code ec;
            std::filesystem::remove_all(*dir, ec);
        });
        return new std::string(tmpl);
    }();
    return *dir;
}

// The agent's paths() below the scratch directory, its LOG folder made.
inline void scratchHome(const char* name) {
    paths().deriveFrom(scratchDir(name) + "/");
    publishSettings();
    ::mkdir(paths().logDir.c_str(), 0700);
}

}  // namespace tavik::fuzz
