// Arbitrary bytes as an archive file: the header, the trailer, every packet
// of the body and the tree rebuilt from it.
#include <cstddef>
#include <cstdint>
#include <span>

#include "frontend/archive.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    tavik::frontend::ArchiveReader reader;
    if (!reader.openMemory(std::span<const uint8_t>(data, size))) return 0;
    tavik::frontend::ArchiveWalker walker(reader);
    tavik::frontend::TreeEvent event;
    size_t bytes = 0;
    while (walker.next(event) == tavik::frontend::ArchiveWalker::Next::kEvent) bytes += event.data.size();
    return bytes == SIZE_MAX ? 1 : 0;
}
