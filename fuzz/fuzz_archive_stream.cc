// Arbitrary bytes as a live backup stream: split into packets the way the
// receiver does and pushed through the tree walker.
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "frontend/archive.h"
#include "protocol/packet.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    tavik::frontend::TreeWalker tree;
    tavik::frontend::TreeEvent event;
    size_t at = 0;
    while (size - at >= tavik::protocol::kHeaderSize) {
        tavik::protocol::HeaderBytes hb{};
        std::memcpy(hb.data(), data + at, hb.size());
        tavik::protocol::PacketHeader h = tavik::protocol::decodeHeader(hb);
        if (size - at - hb.size() < h.length) break;
        auto r = tree.push(h, {data + at + hb.size(), h.length}, event);
        if (r == tavik::frontend::TreeWalker::Result::kError) break;
        at += hb.size() + h.length;
    }
    tree.finish();  // a stream without END is fine here: only crashes matter
    return 0;
}
