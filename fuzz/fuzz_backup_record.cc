// Arbitrary bytes as the payload of a file header packet (code 6), as a
// front-end decodes it: a record that decodes must encode back to the same
// bytes up to its name's NUL and three zero bytes after it.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "backup/attribute_record.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    auto record = tavik::backup::decodeBackupAttributes({data, size});
    if (!record) return 0;
    std::vector<uint8_t> out(tavik::backup::kMaxAttrRecord);
    size_t length = tavik::backup::encodeBackupAttributes(*record, out);
    if (record->name.size() > tavik::backup::kMaxRecordName) {
        if (length != 0) abort();
        return 0;
    }
    if (length != tavik::backup::kAttrFixedSize + record->name.size()) abort();
    if (std::memcmp(out.data(), data, tavik::backup::kAttrName + record->name.size() + 1) != 0) abort();
    return 0;
}
