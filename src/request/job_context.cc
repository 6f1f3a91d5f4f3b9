#include "request/job_context.h"

#include <cstring>

#include "daemon/state.h"
#include "wire/bytes.h"

namespace tavik {
namespace {

std::string fixedText(const uint8_t* at, size_t width) {
    size_t len = strnlen(reinterpret_cast<const char*>(at), width);
    return std::string(reinterpret_cast<const char*>(at), len);
}

}  // namespace

std::string JobRequest::root() const {
    return fixedText(raw.data() + request_layout::kRootAt, request_layout::kRootWidth);
}

std::string JobRequest::loginID() const {
    // The field keeps room for its NUL: at most 47 characters count.
    return fixedText(raw.data() + request_layout::kLoginAt, request_layout::kLoginWidth - 1);
}

uint16_t JobRequest::tpSize() const { return wire::loadLe16(raw.data() + request_layout::kTpSizeAt); }

int32_t JobRequest::timeThresh() const {
    return static_cast<int32_t>(wire::loadLe32(raw.data() + request_layout::kTimeThreshAt));
}

uint16_t JobContext::retryCount() const {
    return wire::loadLe16(jobOptions.data() + options_layout::kRetryCountAt);
}

uint16_t JobContext::retryInterval() const {
    return wire::loadLe16(jobOptions.data() + options_layout::kRetryIntervalAt);
}

JobContext& job() {
    static JobContext context;
    return context;
}

void prepareForConnection(JobContext& ctx) {
    ctx = JobContext{};
    wire::storeLe16(ctx.jobOptions.data() + options_layout::kRetryCountAt, 5);
    wire::storeLe16(ctx.jobOptions.data() + options_layout::kRetryIntervalAt, 5);
    ctx.conflictPolicy = 3;
    ctx.serverVersion = 0;
    ctx.ackInterval = settings().ackInterval;
}

}  // namespace tavik
