// Arbitrary bytes as a restore attribute record: decoding never reads past
// the record, and whatever decodes encodes back to the same fields.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <span>

#include "protocol/restore_record.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace tavik::protocol;
    RestoreAttributes a;
    RecordError e = decodeRestoreAttributes(std::span<const uint8_t>(data, size), a);
    if (e != RecordError::None) return 0;
    std::vector<uint8_t> again = encodeRestoreAttributes(a);
    RestoreAttributes b;
    if (again.empty() || decodeRestoreAttributes(again, b) != RecordError::None) std::abort();
    if (b.name != a.name || b.mode != a.mode || b.size != a.size || b.unused44 != a.unused44) std::abort();
    return 0;
}
