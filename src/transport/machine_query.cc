#include "transport/machine_query.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <algorithm>
#include <cstring>
#include <utility>

#include "log/ulog.h"
#include "platform/signals.h"
#include "wire/bytes.h"

namespace tavik::transport {
namespace {

constexpr const char* kPrefix = "(AskMachine) ";

}  // namespace

bool QueryRateLimit::allow(uint32_t address, Clock::time_point now) {
    size_t home = (address * 2654435761u) % kTableSize;
    Bucket* slot = nullptr;
    for (size_t i = 0; i < kProbe; ++i) {
        Bucket& b = buckets_[(home + i) % kTableSize];
        if (b.used && b.address == address) {
            slot = &b;
            break;
        }
        if (!slot || !b.used || (slot->used && b.last < slot->last)) slot = &b;
    }
    if (!slot->used || slot->address != address) *slot = Bucket{address, true, kQueryBurst, now};
    double elapsed = std::chrono::duration<double>(now - slot->last).count();
    slot->tokens = std::min(kQueryBurst, slot->tokens + elapsed * kQueryRate);
    slot->last = now;
    if (slot->tokens < 1.0) {
        ++refused_;
        return false;
    }
    slot->tokens -= 1.0;
    return true;
}

uint64_t QueryRateLimit::dueReport(Clock::time_point now) {
    if (refused_ == 0 || (reported_ && now - lastReport_ < std::chrono::minutes(1))) return 0;
    reported_ = true;
    lastReport_ = now;
    return std::exchange(refused_, 0);
}

int AskMachine(int udpSocket, QueryRateLimit& limit) {
    // The do-nothing alarm handler only makes a pending recvfrom or sendto
    // return EINTR; it stays installed for the processes forked later.
    platform::installHandler(SIGALRM, platform::interruptOnly);
    protocol::MachineQuery query{};
    sockaddr_storage from{};
    socklen_t fromLen = sizeof from;
    alarm(1);
    ssize_t got = recvfrom(udpSocket, query.data(), query.size(), 0, reinterpret_cast<sockaddr*>(&from), &fromLen);
    int savedErrno = errno;
    alarm(0);
    if (got < 0) {
        errno = savedErrno;
        if (errno == EINTR) ulog(MSG_RECVFROM_TIMEOUT, kPrefix);
        ulog(MSG_FAILED_RECVFROM, kPrefix, errText());
        return -1;
    }
    if (size_t(got) < protocol::kQuerySize) {
        ulog(MSG_SHORT_MACHINE_QUERY, kPrefix, int(protocol::kQuerySize), int(got));
        return -1;
    }
    if (query[2] != protocol::kMachineQuery) {
        ulog(MSG_UNKNOWN_COMMAND, kPrefix, unsigned(query[2]));
        return 0;
    }
    auto now = QueryRateLimit::Clock::now();
    uint32_t address = from.ss_family == AF_INET ? reinterpret_cast<const sockaddr_in&>(from).sin_addr.s_addr : 0;
    bool allowed = limit.allow(address, now);
    if (uint64_t refused = limit.dueReport(now))
        ulog("%s%llu machine queries were not answered: at most %d a second to one address", kPrefix,
             static_cast<unsigned long long>(refused), int(QueryRateLimit::kQueryRate));
    if (!allowed) return 0;
    platform::MachineName name;
    const platform::MachineName* found = &name;
    if (platform::nuname(name) != 0) {
        ulog(MSG_FAILED_UNAME, kPrefix, errText());
        found = nullptr;
    }
    protocol::MachineReply reply = protocol::buildMachineReply(query, found);
    alarm(1);
    ssize_t sent = sendto(udpSocket, reply.data(), reply.size(), 0, reinterpret_cast<sockaddr*>(&from), fromLen);
    savedErrno = errno;
    alarm(0);
    if (sent < 0) {
        errno = savedErrno;
        ulog(MSG_FAILED_SENDTO, kPrefix, errText());
        return -1;
    }
    if (size_t(sent) < protocol::kReplySize) {
        ulog(MSG_SHORT_MACHINE_INFO, kPrefix, int(protocol::kReplySize), int(sent));
        return -1;
    }
    return 0;
}

}  // namespace tavik::transport
