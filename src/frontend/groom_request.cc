#include "frontend/groom_request.h"

#include <array>
#include <cstdlib>

#include "protocol/commands.h"
#include "protocol/packet.h"
#include "wire/bytes.h"

namespace tavik::frontend {
namespace {

constexpr size_t kMaxSetName = protocol::kGroomSetWidth;

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
    uint32_t options = request.kind == GroomKind::kRotationSet ? protocol::kGroomRotationSet : protocol::kGroomDelete;
    return protocol::encodeGroomingRecord(request.months, options, request.set);
}

bool sendGrooming(JobClient& client, const GroomRequest& request, std::string& error) {
    if (request.kind == GroomKind::kNone) return true;
    std::array<uint8_t, protocol::kTapeRecordSize> tape{};
    int answer = client.grooming(encodeGroomRecord(request), tape);
    if (answer == protocol::code::kReady) return true;
    error = "GROOMING: " + (answer == kNoAnswer ? client.lastError() : "refused (answer " + std::to_string(answer) + ")");
    return false;
}

}  // namespace tavik::frontend
