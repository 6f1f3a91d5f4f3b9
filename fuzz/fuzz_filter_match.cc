// Arbitrary names and patterns through the wildcard matcher, in the C and
// the UTF-8 locale: it must not read outside its strings, must finish, and
// on short inputs must agree with the plain recursion of the matching rules.
#include <clocale>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "../tests/filter/reference_match.h"
#include "filter/match.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1) return 0;
    // First byte: locale choice; then the pattern, a NUL, and the name.
    setlocale(LC_CTYPE, (data[0] & 1) ? "C.UTF-8" : "C");
    std::string_view rest(reinterpret_cast<const char*>(data + 1), size - 1);
    const size_t split = rest.find('\0');
    const std::string_view pattern = rest.substr(0, split);
    const std::string_view name = split == std::string_view::npos ? std::string_view() : rest.substr(split + 1);
    const int result = tavik::filter::MatchName(name, pattern);
    if (result != 0 && result != 1) abort();
    // The recursion is exponential in stars: compare only on short inputs.
    if (pattern.size() <= 12 && name.size() <= 12 && result != filtertest::referenceMatchName(name, pattern)) {
        abort();
    }
    return 0;
}
