#include "request/job_context.h"

#include <cstring>

#include "log/ulog.h"
#include "wire/bytes.h"

namespace tavik {
uint16_t JobContext::retryCount() const {
    return wire::loadLe16(jobOptions.data() + protocol::options_layout::kRetryCountAt);
}

uint16_t JobContext::retryInterval() const {
    return wire::loadLe16(jobOptions.data() + protocol::options_layout::kRetryIntervalAt);
}

void prepareForConnection(JobContext& ctx, const JobSettings& agent, const JobPaths& files, uint16_t ackInterval) {
    ctx = JobContext{};
    wire::storeLe16(ctx.jobOptions.data() + protocol::options_layout::kRetryCountAt, 5);
    wire::storeLe16(ctx.jobOptions.data() + protocol::options_layout::kRetryIntervalAt, 5);
    ctx.conflictPolicy = 3;
    ctx.serverVersion = 0;
    ctx.ackInterval = ackInterval;
    ctx.jobSettings = agent;
    ctx.paths = files;
}

int skip_nfs(const JobContext& ctx, const char* path, dev_t dev) {
    int r = ctx.nfsProbe.isNfs(path, dev);
    if (r < 0) ulog(MSG_FAILED_STATVFS, "(skip_nfs) ", path, errText());
    return r;
}

}  // namespace tavik
