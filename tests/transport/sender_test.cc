// SendDaemon over a real socket pair with a small send buffer, so that its
// vectored sends are taken in parts and have to wait: the byte stream stays
// exactly the packets in order, and the sender stops exactly after the
// packet that makes an acknowledgement due until the answer arrives.
#include "transport/sender.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <csignal>
#include <vector>

#include "daemon/scratch_home.h"
#include "daemon/state.h"
#include "transport/packet.h"

namespace {

using namespace tavik;
using namespace tavik::transport;
using tavik::testing::ScratchHome;
using tavik::testing::SocketPair;

std::vector<std::vector<uint8_t>> gSlots;  // header and payload of each packet
size_t gReleased = 0;

uint16_t readyCount() {
    size_t left = gSlots.size() - gReleased;
    return uint16_t(left > 1000 ? 1000 : left);
}
int neverWaits(int count, int) { return count + 1; }
const uint8_t* slotAhead(uint16_t ahead) { return gSlots[gReleased + ahead].data(); }
int release(uint16_t n) {
    gReleased += n;
    return 0;
}

std::vector<uint8_t> packet(int8_t packetCode, size_t length, size_t seed) {
    protocol::PacketHeader h;
    h.code = packetCode;
    h.length = uint16_t(length);
    protocol::HeaderBytes bytes = protocol::encodeHeader(h);
    std::vector<uint8_t> out(bytes.begin(), bytes.end());
    for (size_t i = 0; i < length; ++i) out.push_back(uint8_t(seed * 31 + i * 7));
    return out;
}

TEST(SenderTest, PartialVectoredSendsKeepTheStreamAndStopBeforeEachAcknowledgement) {
    ScratchHome home;
    startupSettings() = Settings{};
    tavik::transport::transport() = TransportState{blockSend, blockRecv};
    gSlots.clear();
    gReleased = 0;
    for (size_t f = 0; f < 30; ++f) {
        gSlots.push_back(packet(protocol::code::kFileHeader, 60, f));
        for (size_t c = 0; c < 8; ++c) gSlots.push_back(packet(protocol::code::kMof, 2048, f * 10 + c));
        gSlots.push_back(packet(protocol::code::kEndf, 100 + f, f));
    }
    gSlots.push_back(packet(protocol::code::kEnd, 0, 0));
    constexpr uint16_t kAckInterval = 7;

    SocketPair sp;
    int small = 4096;
    ASSERT_EQ(::setsockopt(sp.agent, SOL_SOCKET, SO_SNDBUF, &small, sizeof small), 0);
    pid_t sender = fork();
    if (sender == 0) {
        sp.closeServer();
        PacketSource source{neverWaits, readyCount, slotAhead, release};
        SenderOptions options;
        options.ackInterval = kAckInterval;
        _exit(SendDaemon(sp.agent, source, options) == 0 ? 0 : 1);  // pauses after END
    }
    sp.closeAgent();
    int counted = 0;
    for (size_t i = 0; i < gSlots.size(); ++i) {
        const std::vector<uint8_t>& want = gSlots[i];
        std::vector<uint8_t> got(want.size());
        ASSERT_EQ(::recv(sp.server, got.data(), got.size(), MSG_WAITALL), ssize_t(got.size())) << "packet " << i;
        ASSERT_EQ(got, want) << "packet " << i;
        if (want[2] == uint8_t(protocol::code::kEnd)) break;
        if (++counted % kAckInterval != 0) continue;
        // Nothing more until the acknowledgement.
        pollfd p{sp.server, POLLIN, 0};
        EXPECT_EQ(::poll(&p, 1, 30), 0) << "data after packet " << i;
        protocol::HeaderBytes ok = protocol::encodeHeader(protocol::PacketHeader{});
        ASSERT_EQ(::send(sp.server, ok.data(), ok.size(), 0), ssize_t(ok.size()));
    }
    pollfd p{sp.server, POLLIN, 0};
    EXPECT_EQ(::poll(&p, 1, 30), 0);  // nothing after END
    ::kill(sender, SIGKILL);
    int status = 0;
    waitpid(sender, &status, 0);
    EXPECT_TRUE(WIFSIGNALED(status));
}

}  // namespace
