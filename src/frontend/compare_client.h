// The server's side of a compare job: replays an archive to an agent as the
// restore command stream and collects the agent's verdicts.
//
// Every file, link and device of the archive is sent as OPENFILE, its data
// and ENDF; the agent answers after OPENFILE (attributes) and after ENDF
// (contents). Directories are sent as MKDIR only when asked for: a restore
// cannot carry directory times, so the directories of a restored tree
// would all differ in their modification time. Names are relative to the
// compared root, where the agent works.
//
// Fails: compareArchive returns false with `error` set when the archive is
// damaged, the agent refuses the job or the connection breaks; differences
// are results, not failures.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "frontend/groom_request.h"
#include "frontend/login_options.h"

namespace tavik::frontend {

struct CompareSpec {
    std::string archive;
    std::string host;
    std::string root;  // the tree compared with the archive
    LoginOptions login;
    bool detailed = false;     // detailed verdict codes (option flag 0x80)
    bool directories = false;  // also compare directories (MKDIR)
    std::vector<std::string> only;  // archive paths to compare (all when empty)
    GroomRequest groom;
    int timeoutMs = 600 * 1000;
};

struct CompareVerdict {
    std::string path;
    uint8_t code = 0;
};

struct CompareResult {
    size_t identical = 0, different = 0, unreadable = 0;
    std::vector<CompareVerdict> differences;  // every verdict other than 0, in stream order
    bool groomed = false;
    std::string groomCount;   // the agent's count of groomed files
    std::string groomReport;  // the grooming work file it sent
};

// A verdict code in words ("contents differ", "missing", ...).
const char* verdictWords(uint8_t code);
// True for verdicts that mean the entry could not be read or locked.
bool verdictUnreadable(uint8_t code);

bool compareArchive(const CompareSpec& job, CompareResult& result, std::string& error);

}  // namespace tavik::frontend
