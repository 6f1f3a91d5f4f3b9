#include "protocol/filter_items.h"

#include <array>

namespace tavik::protocol {

uint16_t itemType(ItemRecord record) { return wire::loadLe16(&record[kItemTypeOffset]); }

PatternItem decodePatternItem(ItemRecord record) {
    PatternItem item;
    item.type = itemType(record);
    item.exclude = wire::loadLe16(&record[kItemExcludeOffset]) != 0;
    item.count = wire::loadLe32(&record[kItemCountOffset]);
    item.dataLength = wire::loadLe16(&record[kItemDataLengthOffset]);
    return item;
}

TimeItem decodeTimeItem(ItemRecord record) {
    TimeItem item;
    item.exclude = wire::loadLe16(&record[kItemExcludeOffset]) != 0;
    item.which = record[kItemWhichOffset];
    item.kind = record[kItemKindOffset];
    item.first = int32_t(wire::loadLe32(&record[kItemFirstDateOffset]));
    item.second = int32_t(wire::loadLe32(&record[kItemSecondDateOffset]));
    item.unit = wire::loadLe16(&record[kItemUnitOffset]);
    return item;
}

uint16_t itemDataLength(ItemRecord record) {
    uint16_t type = itemType(record);
    if (type != kFilePatternItem && type != kDirPatternItem) return 0;
    return wire::loadLe16(&record[kItemDataLengthOffset]);
}

bool addReceivedItem(ReceivedFilter& out, ItemRecord record, std::span<const uint8_t> data) {
    const size_t used = out.patternArea.size();
    if (data.size() != itemDataLength(record)) return false;
    if (used > kPatternAreaSize || kPatternAreaSize - used < data.size()) return false;
    ReceivedItem item;
    std::copy(record.begin(), record.end(), item.record.begin());
    item.dataOffset = uint32_t(used);
    item.dataLength = uint16_t(data.size());
    out.patternArea.insert(out.patternArea.end(), data.begin(), data.end());
    out.items.push_back(item);
    return true;
}

bool readFilterItems(wire::ByteReader& in, uint32_t count, ReceivedFilter& out) {
    for (uint32_t i = 0; i < count; ++i) {
        std::span<const uint8_t> record;
        if (!in.view(kFilterItemSize, record)) return false;
        ItemRecord fixed(record.data(), kFilterItemSize);
        const uint16_t length = itemDataLength(fixed);
        const size_t used = out.patternArea.size();
        if (used > kPatternAreaSize || kPatternAreaSize - used < length) return false;
        std::span<const uint8_t> data;
        if (!in.view(length, data)) return false;
        if (!addReceivedItem(out, fixed, data)) return false;
    }
    return true;
}

namespace {

// The fixed head of a time item; the encoders fill the rest at known offsets.
std::array<uint8_t, kFilterItemSize> timeItemHead(bool exclude, uint8_t which, uint8_t kind) {
    std::array<uint8_t, kFilterItemSize> record{};
    wire::storeLe16(&record[kItemTypeOffset], kTimeItem);
    wire::storeLe16(&record[kItemExcludeOffset], exclude ? 1 : 0);
    record[kItemWhichOffset] = which;
    wire::storeLe16(&record[kItemKindOffset], kind);
    return record;
}

}  // namespace

std::optional<std::vector<uint8_t>> encodeNamePatternItem(bool isDirectory, bool exclude,
                                                          std::span<const std::string> patterns) {
    size_t dataLength = 0;
    for (const std::string& p : patterns) {
        if (p.find('\0') != std::string::npos) return std::nullopt;
        dataLength += p.size() + 1;
        if (dataLength > kPatternAreaSize) return std::nullopt;
    }
    std::vector<uint8_t> bytes(kFilterItemSize + dataLength);
    wire::ByteWriter w(bytes.data(), bytes.size());
    bool ok = w.putLe16(isDirectory ? kDirPatternItem : kFilePatternItem) && w.putLe16(exclude ? 1 : 0) &&
              w.putLe32(uint32_t(patterns.size())) && w.putLe32(0) && w.putLe16(uint16_t(dataLength)) &&
              w.putZeros(kFilterItemSize - w.position());
    for (const std::string& p : patterns) {
        ok = ok && w.putBytes({reinterpret_cast<const uint8_t*>(p.data()), p.size()}) && w.putU8(0);
    }
    if (!ok || w.remaining() != 0) return std::nullopt;
    return bytes;
}

std::vector<uint8_t> encodeDateItem(bool exclude, uint8_t which, uint8_t kind, int32_t first, int32_t second) {
    std::array<uint8_t, kFilterItemSize> record = timeItemHead(exclude, which, kind);
    wire::storeLe32(&record[kItemFirstDateOffset], uint32_t(first));
    wire::storeLe32(&record[kItemSecondDateOffset], uint32_t(second));
    return {record.begin(), record.end()};
}

std::vector<uint8_t> encodeWithinItem(bool exclude, uint8_t which, uint32_t n, uint16_t unit) {
    std::array<uint8_t, kFilterItemSize> record = timeItemHead(exclude, which, kWithin);
    wire::storeLe32(&record[kItemFirstDateOffset], n);
    wire::storeLe16(&record[kItemUnitOffset], unit);
    return {record.begin(), record.end()};
}

}  // namespace tavik::protocol
