// Kernel buffer sizing, the machine query's reply (also when the system
// cannot name itself) and the query rate limit. The listening endpoints and the
// answered query are what every end-to-end test starts with.
#include "transport/endpoints.h"

#include <sys/socket.h>

#include <gtest/gtest.h>

#include <cstring>

#include "platform/fd.h"
#include "transport/machine_query.h"

namespace {

using tavik::platform::UniqueFd;
namespace transport = tavik::transport;

TEST(BufferSizing, SizesAreRequestedSizesAndGrantedOnesSucceed) {
    UniqueFd s(socket(AF_INET, SOCK_STREAM, 0));
    int before = transport::getBufSize(s.get(), SO_SNDBUF);
    EXPECT_EQ(transport::setBufSize(s.get(), SO_SNDBUF, 0), 0) << "0 leaves the socket alone";
    EXPECT_EQ(transport::getBufSize(s.get(), SO_SNDBUF), before);
    EXPECT_EQ(transport::setBufSize(s.get(), SO_SNDBUF, 1000), 0) << "below 4096 means 4096";
    EXPECT_EQ(transport::getBufSize(s.get(), SO_SNDBUF), 4096);
    // The kernel reports twice the size set: the size read back is halved.
    EXPECT_EQ(transport::setBufSize(s.get(), SO_RCVBUF, 32768), 0);
    EXPECT_EQ(transport::getBufSize(s.get(), SO_RCVBUF), 32768);

    // Far above what the kernel grants an unprivileged setsockopt: the size
    // read back differs, and the previous one is restored.
    ASSERT_EQ(transport::setBufSize(s.get(), SO_SNDBUF, 8192), 0);
    EXPECT_EQ(transport::setBufSize(s.get(), SO_SNDBUF, 1 << 30), -1);
    EXPECT_EQ(transport::getBufSize(s.get(), SO_SNDBUF), 8192);
    EXPECT_EQ(transport::getBufSize(-1, SO_SNDBUF), -1);

    // "-s max": the largest size below 64 KiB that the probe finds, stepping
    // by 1024 from twice the initial size.
    int initial = 0, largest = 0;
    ASSERT_EQ(transport::probeBufSize(SO_SNDBUF, initial, largest), 0);
    EXPECT_LT(largest, 65536);
    EXPECT_TRUE(largest == initial || (largest - 2 * initial) % 1024 == 0) << largest << " from " << initial;
    EXPECT_EQ(transport::setBufSize(s.get(), SO_SNDBUF, -1), 0);
    EXPECT_EQ(transport::getBufSize(s.get(), SO_SNDBUF), largest);
}

// The fields at their offsets, never the node name; a failure: code 18,
// bytes 6-7 of the query unchanged, nothing after.
TEST(MachineReply, LayoutForAnAnswerAndForAFailure) {
    tavik::protocol::MachineQuery q = {1, 2, 13, 30, 9, 9, 0xAB, 0xCD};
    tavik::platform::MachineName name{};
    std::strcpy(name.sysname, "Sys");
    std::strcpy(name.release, "Rel");
    std::strcpy(name.version, "Ver");
    std::strcpy(name.machine, "Mach");
    std::strcpy(name.nodename, "secret-node");
    auto r = tavik::protocol::buildMachineReply(q, &name);
    EXPECT_EQ(std::vector<uint8_t>(r.begin(), r.begin() + 8), (std::vector<uint8_t>{1, 2, 13, 22, 0, 50, 4, 4}));
    for (auto [at, text] : {std::pair{8, "Sys"}, {265, "Rel"}, {522, "Ver"}, {779, "Mach"}})
        EXPECT_STREQ(reinterpret_cast<const char*>(&r[size_t(at)]), text);
    EXPECT_EQ(std::string(r.begin(), r.end()).find("secret-node"), std::string::npos);
    auto f = tavik::protocol::buildMachineReply(q, nullptr);
    EXPECT_EQ(std::vector<uint8_t>(f.begin() + 2, f.begin() + 8), (std::vector<uint8_t>{18, 22, 0, 50, 0xAB, 0xCD}));
    EXPECT_EQ(std::count(f.begin() + 8, f.end(), 0), f.end() - f.begin() - 8);
}

// Ten answers at once to one address, then two a second; other addresses
// have their own allowance; the refusals are reported at most once a minute.
TEST(QueryRateLimit, BurstThenRatePerAddressReportedOnceAMinute) {
    using transport::QueryRateLimit;
    QueryRateLimit limit;
    auto t0 = QueryRateLimit::Clock::now();
    int answered = 0;
    for (int i = 0; i < 100; ++i) answered += limit.allow(0x0100007f, t0);
    EXPECT_EQ(answered, 10);
    EXPECT_TRUE(limit.allow(0x0200007f, t0));
    EXPECT_EQ(limit.dueReport(t0), 90u);
    EXPECT_FALSE(limit.allow(0x0100007f, t0 + std::chrono::milliseconds(400)));
    EXPECT_TRUE(limit.allow(0x0100007f, t0 + std::chrono::milliseconds(600)));
    EXPECT_EQ(limit.dueReport(t0 + std::chrono::seconds(30)), 0u);
    EXPECT_EQ(limit.dueReport(t0 + std::chrono::seconds(61)), 1u);
    // Many more addresses than the table holds: each new one is answered.
    for (uint32_t a = 1; a <= 5000; ++a) EXPECT_TRUE(limit.allow(a << 8, t0 + std::chrono::seconds(62)));
}

}  // namespace
