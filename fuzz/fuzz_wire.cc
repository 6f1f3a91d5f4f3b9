// Arbitrary bytes through every getter of the bounded reader: no read may
// pass the end, and a failed read must consume nothing.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "wire/bytes.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    tavik::wire::ByteReader r(data, size);
    while (!r.empty()) {
        size_t before = r.position();
        uint8_t op;
        if (!r.getU8(op)) break;
        bool ok = true;
        uint16_t v16;
        uint32_t v32;
        std::string text;
        size_t start = r.position();
        switch (op % 6) {
        case 0: ok = r.getLe16(v16); break;
        case 1: ok = r.getBe32(v32); break;
        case 2: ok = r.getFixedText(op / 6, text); if (ok && text.size() > size_t(op / 6)) abort(); break;
        case 3: ok = r.skip(op / 6); break;
        case 4: ok = r.getLe32(v32); break;
        default: ok = r.getBe16(v16); break;
        }
        if (!ok && r.position() != start) abort();
        if (r.position() <= before) abort();
    }
    return 0;
}
