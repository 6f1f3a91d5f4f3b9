// Arbitrary bytes as a server's side of a job connection: the job request,
// then (as the job process would) the options record with the filter items
// and the command loop, all read from the same buffer.
#include <cstddef>
#include <cstdint>
#include <span>

#include "daemon/state.h"
#include "request/channel.h"
#include "request/commands.h"
#include "request/job_context.h"
#include "request/request.h"
#include "scratch.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    tavik::fuzz::discardLog();
    tavik::startupSettings().verbose = true;
    tavik::publishSettings();
    tavik::JobContext ctx;
    tavik::prepareJob(ctx);
    tavik::Channel channel{std::span<const uint8_t>(data, size)};
    if (tavik::GetRequest(channel, ctx) != 0) return 0;
    if (ctx.request.opMode() == tavik::protocol::kOpBackup && tavik::GetPattern(channel, ctx) != 0) return 0;
    (void)tavik::GetCommands(channel, ctx);
    return 0;
}
