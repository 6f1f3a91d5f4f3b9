#include "frontend/json_output.h"

#include <cstring>
#include <string>

namespace tavik::frontend {

bool takeJsonFlag(int& argc, char* argv[]) {
    int kept = 0;
    for (int i = 0; i < argc; ++i)
        if (std::strcmp(argv[i], "--json") != 0) argv[kept++] = argv[i];
    bool found = kept != argc;
    argc = kept;
    return found;
}

void printJson(std::FILE* out, const Json& object) {
    std::string line = object.dump(-1, ' ', false, Json::error_handler_t::replace);
    line += '\n';
    std::fwrite(line.data(), 1, line.size(), out);
    std::fflush(out);
}

}  // namespace tavik::frontend
