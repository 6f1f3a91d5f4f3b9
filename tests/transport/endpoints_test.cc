#include "transport/endpoints.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstring>

#include "platform/fd.h"
#include "transport/machine_query.h"

namespace {

using tavik::platform::UniqueFd;
namespace transport = tavik::transport;

TEST(Endpoints, TcpOpenOnPortZeroHandsBackTheChosenPort) {
    uint16_t port = 0;
    UniqueFd listening(transport::tcpOpen(port));
    ASSERT_TRUE(listening);
    ASSERT_NE(port, 0);
    UniqueFd client(socket(AF_INET, SOCK_STREAM, 0));
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(port);
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(connect(client.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
    UniqueFd accepted(transport::tcpAccept(listening.get()));
    EXPECT_TRUE(accepted);
}

TEST(BufferSizing, SizesAreRequestedSizesAndGrantedOnesSucceed) {
    UniqueFd s(socket(AF_INET, SOCK_STREAM, 0));
    int before = transport::getBufSize(s.get(), SO_SNDBUF);
    EXPECT_EQ(transport::setBufSize(s.get(), SO_SNDBUF, 0), 0) << "0 leaves the socket alone";
    EXPECT_EQ(transport::getBufSize(s.get(), SO_SNDBUF), before);

    EXPECT_EQ(transport::setBufSize(s.get(), SO_SNDBUF, 1000), 0) << "below 4096 means 4096";
    EXPECT_EQ(transport::getBufSize(s.get(), SO_SNDBUF), 4096);
    EXPECT_EQ(transport::setBufSize(s.get(), SO_RCVBUF, 32768), 0);
    EXPECT_EQ(transport::getBufSize(s.get(), SO_RCVBUF), 32768);
    int raw = 0;
    socklen_t len = sizeof raw;
    getsockopt(s.get(), SOL_SOCKET, SO_RCVBUF, &raw, &len);
    EXPECT_EQ(raw, transport::kernelReportFor(32768)) << "the kernel reports twice the size set";
}

TEST(BufferSizing, ProbeStaysBelow64KAndMaxUsesIt) {
    int initial = 0, largest = 0;
    ASSERT_EQ(transport::probeBufSize(SO_SNDBUF, initial, largest), 0);
    EXPECT_GT(initial, 0);
    EXPECT_LT(largest, 65536);
    EXPECT_GE(largest, initial);
    // The candidates step by 1024 from twice the initial size.
    if (largest != initial) {
        EXPECT_EQ((largest - 2 * initial) % 1024, 0);
    }

    UniqueFd s(socket(AF_INET, SOCK_STREAM, 0));
    EXPECT_EQ(transport::setBufSize(s.get(), SO_SNDBUF, -1), 0);
    EXPECT_EQ(transport::getBufSize(s.get(), SO_SNDBUF), largest);
}

TEST(BufferSizing, RefusedSizeRestoresThePreviousOne) {
    UniqueFd s(socket(AF_INET, SOCK_STREAM, 0));
    ASSERT_EQ(transport::setBufSize(s.get(), SO_SNDBUF, 8192), 0);
    // Far above what the kernel grants an unprivileged setsockopt: read back differs.
    int huge = 1 << 30;
    EXPECT_EQ(transport::setBufSize(s.get(), SO_SNDBUF, huge), -1);
    EXPECT_EQ(transport::getBufSize(s.get(), SO_SNDBUF), 8192);
    EXPECT_EQ(transport::getBufSize(-1, SO_SNDBUF), -1);
}

TEST(MachineReply, LayoutForAnAnswerAndForAFailure) {
    transport::MachineQuery q = {1, 2, 13, 30, 9, 9, 0xAB, 0xCD};
    tavik::platform::MachineName name{};
    std::strcpy(name.sysname, "Sys");
    std::strcpy(name.release, "Rel");
    std::strcpy(name.version, "Ver");
    std::strcpy(name.machine, "Mach");
    std::strcpy(name.nodename, "secret-node");
    auto r = transport::buildMachineReply(q, &name);
    EXPECT_EQ(r[0], 1);
    EXPECT_EQ(r[1], 2);
    EXPECT_EQ(r[2], 13);
    EXPECT_EQ(r[3], 22);
    EXPECT_EQ(r[4], 0);
    EXPECT_EQ(r[5], 50);
    EXPECT_EQ(r[6], 4);
    EXPECT_EQ(r[7], 4);
    EXPECT_STREQ(reinterpret_cast<const char*>(&r[8]), "Sys");
    EXPECT_STREQ(reinterpret_cast<const char*>(&r[265]), "Rel");
    EXPECT_STREQ(reinterpret_cast<const char*>(&r[522]), "Ver");
    EXPECT_STREQ(reinterpret_cast<const char*>(&r[779]), "Mach");
    std::string all(r.begin(), r.end());
    EXPECT_EQ(all.find("secret-node"), std::string::npos) << "the node name is not sent";

    auto f = transport::buildMachineReply(q, nullptr);
    EXPECT_EQ(f[2], 18);
    EXPECT_EQ(f[6], 0xAB) << "bytes 6-7 of the query, unchanged";
    EXPECT_EQ(f[7], 0xCD);
    for (size_t i = 8; i < f.size(); ++i) ASSERT_EQ(f[i], 0) << i;
}

}  // namespace
