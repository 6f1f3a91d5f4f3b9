// Arbitrary filter items (as a wire stream, or as received records with
// arbitrary data offsets and lengths) through InitializeFilter, then the
// built filter asked for verdicts on paths from the same input. Nothing may
// crash or read outside the pattern text area, and the pattern table must
// stay within its 100 entries.
#include <sys/stat.h>

#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "daemon/state.h"
#include "filter/filter.h"
#include "protocol/filter_items.h"
#include "filter/match.h"
#include "scratch.h"
#include "wire/bytes.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace tavik::filter;
    using namespace tavik::protocol;
    [[maybe_unused]] static bool once = [] {
        tavik::fuzz::scratchHome("filter");
        setenv("TZ", "EST5EDT,M3.2.0,M11.1.0", 1);
        return true;
    }();
    tavik::wire::ByteReader in(data, size);
    uint8_t mode = 0;
    uint8_t count = 0;
    uint32_t now = 0;
    if (!in.getU8(mode) || !in.getU8(count) || !in.getLe32(now)) return 0;
    tavik::startupSettings().verbose = (mode & 2) != 0;
    tavik::publishSettings();

    ReceivedFilter received;
    if (mode & 1) {
        // Records filed by hand: offsets and lengths may point anywhere.
        for (uint8_t i = 0; i < count; ++i) {
            ReceivedItem item;
            if (!in.getBytes(item.record)) break;
            item.dataOffset = tavik::wire::loadLe32(&item.record[20]);
            item.dataLength = tavik::wire::loadLe16(&item.record[24]);
            received.items.push_back(item);
        }
        std::span<const uint8_t> area;
        const size_t areaSize = in.remaining() < kPatternAreaSize ? in.remaining() : kPatternAreaSize;
        if (in.view(areaSize, area)) received.patternArea.assign(area.begin(), area.end());
    } else if (!readFilterItems(in, count, received) && received.items.empty()) {
        return 0;
    }
    if (received.patternArea.size() > kPatternAreaSize) abort();

    // The rest of the input names the root and the paths to judge, NUL-separated.
    std::span<const uint8_t> tail;
    if (!in.view(in.remaining(), tail)) return 0;
    std::string_view text(reinterpret_cast<const char*>(tail.data()), tail.size());
    auto nextField = [&text] {
        const size_t cut = text.find('\0');
        const std::string field(text.substr(0, cut));
        text = cut == std::string_view::npos ? std::string_view() : text.substr(cut + 1);
        return field;
    };
    const std::string root = nextField();

    Filter filter;
    const int sum = InitializeFilter(filter, received, root, (mode & 4) != 0, time_t(int32_t(now)));
    if (sum > 0 || filter.patternCount > kPatternTableSize) abort();
    if (filter.filterRoot.empty() || filter.filterRoot.back() != '/') abort();

    struct stat st {};
    st.st_mtime = int32_t(now) - 86400;
    st.st_atime = int32_t(now);
    st.st_ctime = int32_t(now) + 86400;
    for (int i = 0; i < 8 && !text.empty(); ++i) {
        const std::string path = filter.filterRoot + nextField();
        const int verdict = int(DirVerdictOf(filter, path));
        if (verdict < 0 || verdict > 2 || FileSelected(filter, path, st) > 1) abort();
    }
    return 0;
}
