// Arbitrary datagrams through both sides of the machine query: the agent's
// reply builder (which reads the first 8 bytes of a datagram) and the
// front-end's reply decoder.
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "frontend/machine_query.h"
#include "transport/machine_query.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    tavik::protocol::MachineQuery q{};
    std::memcpy(q.data(), data, size < q.size() ? size : q.size());
    auto reply = tavik::protocol::buildMachineReply(q, nullptr);
    if (reply[3] != q[3] && int8_t(q[3]) <= 22) abort();
    auto info = tavik::protocol::decodeMachineReply(data, size);
    if (info && (info->sysname.size() > 256 || size != 1036)) abort();
    return 0;
}
