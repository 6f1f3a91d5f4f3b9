// Arbitrary bytes as the agent's answers to a restore stream: split whole,
// and split as they would arrive in two pieces.
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "frontend/restore_client.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::span<const uint8_t> input(data, size);
    size_t codes = 0;
    auto count = [&codes](uint8_t) { ++codes; };
    size_t used = tavik::frontend::splitAnswers(input, count);
    if (used > size) __builtin_trap();
    size_t half = size / 2;
    size_t first = tavik::frontend::splitAnswers(input.first(half), count);
    std::vector<uint8_t> rest(input.begin() + static_cast<std::ptrdiff_t>(first), input.end());
    if (first + tavik::frontend::splitAnswers(rest, count) != used) __builtin_trap();
    return 0;
}
