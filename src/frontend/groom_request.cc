#include "frontend/groom_request.h"

#include <array>
#include <cstdlib>

#include "transport/packet.h"
#include "wire/bytes.h"

namespace tavik::frontend {
namespace {

constexpr size_t kGroomRecordSize = 32;
constexpr size_t kTapeRecordSize = 63;
constexpr uint32_t kGroomRotationSet = 0x02;
constexpr uint32_t kGroomDelete = 0x04;
constexpr size_t kMaxSetName = 8;

}  // namespace

bool takeGroomOption(const std::vector<std::string>& args, size_t& i, GroomRequest& out, std::string& error) {
    const std::string& a = args[i];
    if (a == "--groom") {
        if (i + 1 < args.size() && args[i + 1] == "delete") {
            out.kind = GroomKind::kDelete;
            i += 1;
        } else if (i + 2 < args.size() && args[i + 1] == "set" && !args[i + 2].empty() &&
                   args[i + 2].size() <= kMaxSetName) {
            out.kind = GroomKind::kRotationSet;
            out.set = args[i + 2];
            i += 2;
        } else {
            error = std::string("--groom takes delete, or set NAME (at most 8 characters)");
        }
        return true;
    }
    if (a == "--months") {
        const std::string v = i + 1 < args.size() ? args[i + 1] : "";
        if (v.empty() || v.size() > 4 || v.find_first_not_of("0123456789") != std::string::npos)
            error = "--months takes a number";
        else
            out.months = uint16_t(std::atoi(v.c_str()));
        i += 1;
        return true;
    }
    return false;
}

bool groomOptionsComplete(const GroomRequest& request, std::string& error) {
    if (request.kind == GroomKind::kRotationSet && request.months == 0) {
        error = "--groom set needs --months N";
        return false;
    }
    return true;
}

std::vector<uint8_t> encodeGroomRecord(const GroomRequest& request) {
    std::vector<uint8_t> record(kGroomRecordSize, 0);
    wire::ByteWriter w(record);
    uint32_t options = request.kind == GroomKind::kRotationSet ? kGroomRotationSet : kGroomDelete;
    std::string name = request.set.substr(0, kMaxSetName);
    bool ok = w.putLe16(request.months) && w.putLe16(0) && w.putLe32(0) && w.putLe32(0) && w.putLe32(options) &&
              w.putBytes({reinterpret_cast<const uint8_t*>(name.data()), name.size()});
    return ok ? record : std::vector<uint8_t>();
}

bool sendGrooming(JobClient& client, const GroomRequest& request, std::string& error) {
    if (request.kind == GroomKind::kNone) return true;
    std::array<uint8_t, kTapeRecordSize> tape{};
    int answer = client.grooming(encodeGroomRecord(request), tape);
    if (answer == protocol::code::kReady) return true;
    error = "GROOMING: " + (answer == kNoAnswer ? client.lastError() : "refused (answer " + std::to_string(answer) + ")");
    return false;
}

}  // namespace tavik::frontend
