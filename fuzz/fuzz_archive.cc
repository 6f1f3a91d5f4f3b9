// Arbitrary bytes as an archive file (header, trailer, packets, tree), and
// the same bytes as the body of an archive with a good header and trailer,
// so that the packet reader and the tree walker are reached past the
// checksums.
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "frontend/archive.h"

namespace {

size_t walk(std::span<const uint8_t> bytes) {
    tavik::frontend::ArchiveReader reader;
    if (!reader.openMemory(bytes)) return 0;
    tavik::frontend::ArchiveWalker walker(reader);
    tavik::frontend::TreeEvent event;
    size_t total = 0;
    while (walker.next(event) == tavik::frontend::ArchiveWalker::Next::kEvent) total += event.data.size();
    return total;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::span<const uint8_t> input(data, size);
    walk(input);
    std::vector<uint8_t> archive = tavik::frontend::encodeArchiveHeader({.host = "fuzz", .source = "/"});
    archive.insert(archive.end(), input.begin(), input.end());
    std::vector<uint8_t> trailer = tavik::frontend::encodeArchiveTrailer(
        {.crc = tavik::frontend::crc32Update(0, archive), .bodyLength = size, .complete = true});
    archive.insert(archive.end(), trailer.begin(), trailer.end());
    walk(archive);
    return 0;
}
