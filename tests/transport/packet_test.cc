// Packet exchange over real socket pairs: receive failures and their log
// lines, the receive deadline against a dripping peer, the retry waits, an
// old server's READY, the read-ahead under a deadline, the browse pair's
// short transfers, a stalled send outside the sender, and the sender's
// partial vectored sends. Header
// bytes, whole transfers, read-ahead streams and acknowledgements of
// received packets are what every end-to-end backup, restore and compare
// reads (BackupStreamTest.EveryEntryKindInStreamOrder parses the headers
// byte by byte; RestoreTest.FilesDirectoriesModesOwnersAndTimesComeBackExactlyWhereTheLoginMayWrite
// counts the acknowledgements). GetReply's refusals of oversized and cut
// packets are CompareStream.OversizedPacketsEndTheJobWithCode100 and
// RestoreTest.BrokenStreamsEndTheJobAndAnsweredFilesStayIntact.
#include "transport/packet.h"
#include "transport/sender.h"

#include <poll.h>
#include <sys/wait.h>

#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <vector>

#include "daemon/scratch_home.h"

namespace {

using namespace tavik;
using namespace tavik::transport;
using tavik::testing::SocketPair;
using Bytes = std::vector<uint8_t>;

class PacketTest : public ::testing::Test {
protected:
    void SetUp() override {
        startupSettings() = Settings{};
        publishSettings();
    }
    // Every long wait of the routines under test divided by `d`.
    void divideTimes(int d) { t_.settings.timeDivisor = d; }
    void TearDown() override {
        startupSettings().timeDivisor = 1;
        publishSettings();
    }
    tavik::testing::ScratchHome home_;
    SocketPair sp_;
    TransportState t_;
};

void writeAll(int fd, const Bytes& bytes) {
    ASSERT_EQ(::send(fd, bytes.data(), bytes.size(), 0), static_cast<ssize_t>(bytes.size()));
}

Bytes packetBytes(int8_t code, Bytes payload) {
    protocol::HeaderBytes h = protocol::encodeHeader({.code = code, .length = uint16_t(payload.size())});
    payload.insert(payload.begin(), h.begin(), h.end());
    return payload;
}

std::array<uint8_t, 8> readHeader(int fd) {
    std::array<uint8_t, 8> b{};
    EXPECT_EQ(::recv(fd, b.data(), b.size(), MSG_WAITALL), 8);
    return b;
}

TEST_F(PacketTest, EndOfFileClearsBufferAndIsLoggedByBothReceivers) {
    for (IoRoutine routine : {blockRecv, nonblockRecv}) {
        SocketPair sp;
        writeAll(sp.server, {1, 2, 3});
        sp.closeServer();
        std::array<uint8_t, 8> b;
        b.fill(0xEE);
        EXPECT_EQ(routine(t_, sp.agent, b.data(), b.size()), kFailed);
        EXPECT_EQ(b, (std::array<uint8_t, 8>{1, 2, 3, 0, 0, 0, 0, 0}));
    }
    EXPECT_TRUE(home_.logHas("(blockRecv) EOF received"));
    EXPECT_TRUE(home_.logHas("(nonblockRecv) EOF received"));
}

TEST_F(PacketTest, TheReceiveDeadlineHoldsHoweverTheBytesTrickleIn) {
    divideTimes(1000);  // 120 s becomes 120 ms
    for (IoRoutine routine : {blockRecv, nonblockRecv}) {
        setReceiveDeadline(t_, 120);
        SocketPair sp;
        // A byte every 50 ms: each arrives well within 120 ms of the one
        // before, but the whole never arrives within 120 ms of the start.
        pid_t dripper = ::fork();
        if (dripper == 0) {
            for (int i = 0; i < 8; ++i, ::usleep(50000)) writeAll(sp.server, {9});
            ::_exit(0);
        }
        std::array<uint8_t, 8> b{};
        auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(routine(t_, sp.agent, b.data(), b.size()), kFailed);
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(350));
        ::kill(dripper, SIGKILL);
        ::waitpid(dripper, nullptr, 0);
        setReceiveDeadline(t_, 0);
    }
    EXPECT_TRUE(home_.logHas("(blockRecv) Timed out in Receive, expected = 8 rcved = "));
    EXPECT_TRUE(home_.logHas("(nonblockRecv) Timed out in Receive, expected = 8 rcved = "));

    // The non-blocking receiver also gives up at its own limit.
    std::array<uint8_t, 4> b{};
    divideTimes(100000);
    EXPECT_EQ(nonblockRecv(t_, sp_.agent, b.data(), b.size()), kFailed);
    EXPECT_TRUE(home_.logHas("(nonblockRecv) Timed out in Receive, expected = 4 rcved = 0"));
}

TEST_F(PacketTest, TimeOutCountsAndStopsAtItsLimit) {
    divideTimes(1000);
    startupSettings().verbose = true;
    publishSettings();
    EXPECT_EQ(timeOut(t_, 0, 1300), 1);
    EXPECT_EQ(timeOut(t_, 1000, 2200), 1001);
    EXPECT_EQ(timeOut(t_, 2200, 2200), -1);
    EXPECT_EQ(timeOut(t_, 1099, 2200), 1100);
    EXPECT_TRUE(home_.logHas("(timeOut) TimeCount=1001, sleep(1)..."));
    EXPECT_TRUE(home_.logHas("(timeOut) TimeCount=1100, sleep(2)..."));
}

// The newest server's READY and the refusal codes are read end to end
// (JobSessionTest.EveryAdmissionAndRefusalCode); an older server gets
// version 5 with the acknowledgement interval.
TEST_F(PacketTest, ReadyCarriesAckIntervalAndVersionByServer) {
    ASSERT_EQ(syncSendCode(t_, sp_.agent, protocol::code::kReady, ReadyInfo{7, 49}), 0);
    EXPECT_EQ(readHeader(sp_.server), (std::array<uint8_t, 8>{0, 0, 4, 5, 7, 0, 0, 0}));
    sp_.closeServer();
    EXPECT_EQ(syncSendCode(t_, sp_.agent, protocol::code::kLoginFailed), kFailed);
    EXPECT_TRUE(home_.logHas("(sync_send_code) Send command [0x71] failed"));
    EXPECT_TRUE(home_.logHas("(blockSend) Failed in send(), "));
}

// Under a receive deadline (the request phase) a read-ahead takes one
// packet and leaves the next in the socket for whoever reads after it.
TEST_F(PacketTest, ReadAheadReadsNoFurtherThanOnePacketUnderAReceiveDeadline) {
    setReceiveDeadline(t_, 120);
    Bytes both = packetBytes(protocol::code::kMkdir, {4, 5}), end = packetBytes(protocol::code::kEnd, {});
    both.insert(both.end(), end.begin(), end.end());
    writeAll(sp_.server, both);
    ReadAhead ahead;
    std::array<uint8_t, 16> record{};
    int8_t c = 0;
    ASSERT_EQ(GetReply(t_, sp_.agent, c, record, nullptr, ahead), 0);
    EXPECT_EQ(c, protocol::code::kMkdir);
    EXPECT_EQ(ahead.end, 0u);
    EXPECT_EQ(readHeader(sp_.agent)[2], protocol::code::kEnd);
    setReceiveDeadline(t_, 0);
}

// Short transfers of the browse pair are made on the real daemon
// (BrowseTest.BrokenRequestsEndTheBrowseCleanly,
// BrowseTest.PeerGoneWhileListingEndsTheJob); a silent peer is not.
TEST_F(PacketTest, UsbPairReportsShortTransfersAndTimesOut) {
    divideTimes(100000);  // 1801 s becomes 18 ms
    std::array<uint8_t, 4> b{};
    EXPECT_EQ(usbReceive(sp_.agent, b.data(), b.size(), t_.settings.divisor()), -1);
    EXPECT_TRUE(home_.logHas("(usbReceive) recv(): timeout"));
}

TEST_F(PacketTest, StalledSendOutsideTheSenderFailsAfterTheSpanTapeAlarm) {
    divideTimes(1000000);  // 180 s -> 0.18 ms, 72 h -> 0.26 s
    Bytes chunk(65536, 'z');
    while (::send(sp_.agent, chunk.data(), chunk.size(), MSG_DONTWAIT) > 0) {
    }
    EXPECT_EQ(blockSend(t_, sp_.agent, chunk.data(), 4096), kFailed);
    EXPECT_TRUE(home_.logHas("(blockSend) Span Tape Failed"));
    EXPECT_FALSE(home_.logHas("into sleep")) << "not the sender: the parent is never signalled";
}

// The sender's source: a fixed list of packets, all ready at once.
std::vector<Bytes> gSlots;
size_t gReleased = 0;

int neverWaits(int count, int) { return count + 1; }
uint16_t readyCount() { return uint16_t(std::min<size_t>(gSlots.size() - gReleased, 1000)); }
const uint8_t* slotAhead(uint16_t ahead) { return gSlots[gReleased + ahead].data(); }
int release(uint16_t n) {
    gReleased += n;
    return 0;
}

// SendDaemon with a small send buffer, so that its vectored sends are taken
// in parts: the byte stream stays exactly the packets in order, and the
// sender stops after each packet that makes an acknowledgement due until
// the answer arrives.
using SenderTest = PacketTest;
TEST_F(SenderTest, PartialVectoredSendsKeepTheStreamAndStopBeforeEachAcknowledgement) {
    gSlots.clear();
    for (size_t f = 0; f < 30; ++f) {
        gSlots.push_back(packetBytes(protocol::code::kFileHeader, Bytes(60, uint8_t(f))));
        for (size_t c = 0; c < 8; ++c) gSlots.push_back(packetBytes(protocol::code::kMof, Bytes(2048, uint8_t(f + c))));
        gSlots.push_back(packetBytes(protocol::code::kEndf, Bytes(100 + f, uint8_t(f))));
    }
    gSlots.push_back(packetBytes(protocol::code::kEnd, {}));
    constexpr uint16_t kAckInterval = 7;
    int small = 4096;
    ASSERT_EQ(::setsockopt(sp_.agent, SOL_SOCKET, SO_SNDBUF, &small, sizeof small), 0);
    pid_t sender = fork();
    if (sender == 0) {
        sp_.closeServer();
        PacketSource source{neverWaits, readyCount, slotAhead, release};
        _exit(SendDaemon(t_, sp_.agent, source, SenderOptions{.ackInterval = kAckInterval}) == 0 ? 0 : 1);
    }
    sp_.closeAgent();
    pollfd quiet{sp_.server, POLLIN, 0};
    for (size_t i = 0, counted = 0; i < gSlots.size(); ++i) {
        Bytes got(gSlots[i].size());
        ASSERT_EQ(::recv(sp_.server, got.data(), got.size(), MSG_WAITALL), ssize_t(got.size())) << "packet " << i;
        ASSERT_EQ(got, gSlots[i]) << "packet " << i;
        if (i + 1 == gSlots.size() || ++counted % kAckInterval != 0) continue;
        EXPECT_EQ(::poll(&quiet, 1, 30), 0) << "data after packet " << i << " before its acknowledgement";
        writeAll(sp_.server, Bytes(8, 0));
    }
    EXPECT_EQ(::poll(&quiet, 1, 30), 0) << "nothing after END";
    ::kill(sender, SIGKILL);
    EXPECT_EQ(tavik::testing::exitStatusOf(sender), -1) << "the sender pauses after END";
}

}  // namespace
