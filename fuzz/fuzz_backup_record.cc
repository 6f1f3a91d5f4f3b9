// Arbitrary bytes as the payload of a file header packet (code 6), as a
// front-end decodes it: a record that decodes must encode back to the same
// bytes up to its name's NUL and three zero bytes after it.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "backup/attribute_record.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    auto record = tavik::protocol::decodeBackupAttributes({data, size});
    if (!record) return 0;
    std::vector<uint8_t> out(tavik::protocol::kMaxAttrRecord);
    size_t length = tavik::protocol::encodeBackupAttributes(*record, out);
    if (record->name.size() > tavik::protocol::kMaxRecordName) {
        if (length != 0) abort();
        return 0;
    }
    if (length != tavik::protocol::kAttrFixedSize + record->name.size()) abort();
    if (std::memcmp(out.data(), data, tavik::protocol::kAttrName + record->name.size() + 1) != 0) abort();
    return 0;
}
