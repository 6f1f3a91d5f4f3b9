// Packet exchange over real socket pairs: header bytes, whole-buffer
// transfers and their failures with their log lines, the retry waits, status
// packets, GetReply bounds, the acknowledgement rule and a stalled send
// outside the sender (the sender's own stall, which puts the backup process
// to sleep, is tested end to end).
#include "transport/packet.h"

#include <sys/wait.h>

#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <vector>

#include "daemon/scratch_home.h"
#include "log/ulog.h"

namespace {

using namespace tavik;
using namespace tavik::transport;
using tavik::testing::ScratchHome;
using tavik::testing::SocketPair;

class PacketTest : public ::testing::Test {
protected:
    void SetUp() override {
        startupSettings() = Settings{};
        tavik::transport::transport() = TransportState{blockSend, blockRecv};
    }
    void TearDown() override { startupSettings().timeDivisor = 1; }
    ScratchHome home_;
};

void writeAll(int fd, const std::vector<uint8_t>& bytes) {
    ASSERT_EQ(::send(fd, bytes.data(), bytes.size(), 0), static_cast<ssize_t>(bytes.size()));
}

std::vector<uint8_t> packetBytes(int8_t c, std::vector<uint8_t> payload) {
    protocol::PacketHeader h;
    h.code = c;
    h.length = static_cast<uint16_t>(payload.size());
    protocol::HeaderBytes b = protocol::encodeHeader(h);
    payload.insert(payload.begin(), b.begin(), b.end());
    return payload;
}

std::array<uint8_t, 8> readHeader(int fd) {
    std::array<uint8_t, 8> b{};
    EXPECT_EQ(::recv(fd, b.data(), b.size(), MSG_WAITALL), 8);
    return b;
}

TEST_F(PacketTest, HeaderGoldenBytesAndRoundTrip) {
    protocol::PacketHeader h{0xC0, 0, protocol::code::kReady, 52, 0x1234, 0xABCD};
    protocol::HeaderBytes b = protocol::encodeHeader(h);
    EXPECT_EQ(b, (protocol::HeaderBytes{0xC0, 0x00, 0x04, 0x34, 0x34, 0x12, 0xCD, 0xAB}));
    protocol::PacketHeader back = protocol::decodeHeader(b);
    EXPECT_EQ(back.flags, 0xC0);
    EXPECT_EQ(back.code, 4);
    EXPECT_EQ(back.version, 52);
    EXPECT_EQ(back.value, 0x1234);
    EXPECT_EQ(back.length, 0xABCD);
    EXPECT_EQ(protocol::decodeHeader(protocol::HeaderBytes{0, 0, 200, 0, 0, 0, 0, 0}).code, -56);
}

TEST_F(PacketTest, WholeBufferTransfersAndZeroLengths) {
    SocketPair sp;
    std::vector<uint8_t> data(100000);
    for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<uint8_t>(i * 7);
    pid_t child = fork();
    if (child == 0) {
        _exit(blockSend(sp.server, data.data(), data.size()) == 0 ? 0 : 1);
    }
    std::vector<uint8_t> got(data.size(), 0xFF);
    EXPECT_EQ(blockRecv(sp.agent, got.data(), got.size()), 0);
    EXPECT_EQ(got, data);
    EXPECT_EQ(tavik::testing::exitStatusOf(child), 0);

    EXPECT_EQ(blockSend(sp.agent, nullptr, 0), 0);
    EXPECT_EQ(blockRecv(sp.agent, nullptr, 0), 0);
    EXPECT_EQ(nonblockSend(-1, nullptr, 0), 0);
    EXPECT_EQ(nonblockRecv(-1, nullptr, 0), 0);
}

TEST_F(PacketTest, EndOfFileClearsBufferAndIsLoggedByBothReceivers) {
    for (IoRoutine routine : {blockRecv, nonblockRecv}) {
        SocketPair sp;
        writeAll(sp.server, {1, 2, 3});
        sp.closeServer();
        std::array<uint8_t, 8> b;
        b.fill(0xEE);
        EXPECT_EQ(routine(sp.agent, b.data(), b.size()), kFailed);
        EXPECT_EQ(b, (std::array<uint8_t, 8>{1, 2, 3, 0, 0, 0, 0, 0}));
    }
    EXPECT_TRUE(home_.logHas("(blockRecv) EOF received"));
    EXPECT_TRUE(home_.logHas("(nonblockRecv) EOF received"));
}

TEST_F(PacketTest, TheReceiveDeadlineHoldsHoweverTheBytesTrickleIn) {
    startupSettings().timeDivisor = 1000;  // 120 s becomes 120 ms
    for (IoRoutine routine : {blockRecv, nonblockRecv}) {
        setReceiveDeadline(120);
        SocketPair sp;
        // A byte every 50 ms: each arrives well within 120 ms of the one
        // before, but the whole never arrives within 120 ms of the start.
        pid_t dripper = ::fork();
        if (dripper == 0) {
            for (int i = 0; i < 8; ++i) {
                writeAll(sp.server, {9});
                ::usleep(50000);
            }
            ::_exit(0);
        }
        std::array<uint8_t, 8> b{};
        auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(routine(sp.agent, b.data(), b.size()), kFailed);
        auto took = std::chrono::steady_clock::now() - start;
        EXPECT_LT(took, std::chrono::milliseconds(350));
        ::kill(dripper, SIGKILL);
        ::waitpid(dripper, nullptr, 0);
        setReceiveDeadline(0);
    }
    EXPECT_TRUE(home_.logHas("(blockRecv) Timed out in Receive, expected = 8 rcved = "));
    EXPECT_TRUE(home_.logHas("(nonblockRecv) Timed out in Receive, expected = 8 rcved = "));

    // The non-blocking receiver also gives up at its own limit.
    SocketPair sp;
    std::array<uint8_t, 8> b{};
    startupSettings().timeDivisor = 100000;
    EXPECT_EQ(nonblockRecv(sp.agent, b.data(), 4), kFailed);
    EXPECT_TRUE(home_.logHas("(nonblockRecv) Timed out in Receive, expected = 4 rcved = 0"));
}

TEST_F(PacketTest, TimeOutCountsAndStopsAtItsLimit) {
    startupSettings().timeDivisor = 1000;
    startupSettings().verbose = true;
    EXPECT_EQ(timeOut(0, 1300), 1);
    EXPECT_EQ(timeOut(1000, 2200), 1001);
    EXPECT_EQ(timeOut(2200, 2200), -1);
    EXPECT_EQ(timeOut(1099, 2200), 1100);
    EXPECT_TRUE(home_.logHas("(timeOut) TimeCount=1001, sleep(1)..."));
    EXPECT_TRUE(home_.logHas("(timeOut) TimeCount=1100, sleep(2)..."));
    EXPECT_EQ(nmseleep(1), 0);
}

TEST_F(PacketTest, ReadyCarriesAckIntervalAndVersionByServer) {
    SocketPair sp;
    ASSERT_EQ(syncSendCode(sp.agent, protocol::code::kReady, ReadyInfo{7, 49}), 0);
    EXPECT_EQ(readHeader(sp.server), (std::array<uint8_t, 8>{0, 0, 4, 5, 7, 0, 0, 0}));
    ASSERT_EQ(syncSendCode(sp.agent, protocol::code::kReady, ReadyInfo{0, 52}), 0);
    EXPECT_EQ(readHeader(sp.server), (std::array<uint8_t, 8>{0, 0, 4, 52, 0, 0, 0, 0}));
    ASSERT_EQ(syncSendCode(sp.agent, protocol::code::kNotAbsolute, ReadyInfo{7, 52}), 0);
    EXPECT_EQ(readHeader(sp.server), (std::array<uint8_t, 8>{0, 0, 116, 0, 0, 0, 0, 0}));

    sp.closeServer();
    EXPECT_EQ(syncSendCode(sp.agent, protocol::code::kLoginFailed), kFailed);
    EXPECT_TRUE(home_.logHas("(sync_send_code) Send command [0x71] failed"));
    EXPECT_TRUE(home_.logHas("(blockSend) Failed in send(), "));
}

TEST_F(PacketTest, GetReplyRoutesPayloadsAndRefusesOversizedLengths) {
    SocketPair sp;
    std::array<uint8_t, 16> record{};
    std::array<uint8_t, 10> data{};
    FileDataBuffer fileData{data, 0};
    int8_t c = -1;

    writeAll(sp.server, {0, 0, 3, 0, 0, 0, 0, 0});
    EXPECT_EQ(GetReply(sp.agent, c, record, &fileData), 0);
    EXPECT_EQ(c, 3);

    writeAll(sp.server, {0, 0, 7, 0, 0, 0, 4, 0, 'a', 'b', 'c', 'd'});
    writeAll(sp.server, {0, 0, 8, 0, 0, 0, 3, 0, 'e', 'f', 'g'});
    EXPECT_EQ(GetReply(sp.agent, c, record, &fileData), 0);
    EXPECT_EQ(GetReply(sp.agent, c, record, &fileData), 0);
    EXPECT_EQ(fileData.fill, 7u);
    EXPECT_EQ(std::string(data.begin(), data.begin() + 7), "abcdefg");

    writeAll(sp.server, {0, 0, 22, 0, 0, 0, 2, 0, 'x', 'y'});
    EXPECT_EQ(GetReply(sp.agent, c, record, &fileData), 0);
    EXPECT_EQ(c, 22);
    EXPECT_EQ(record[0], 'x');

    // Four more data bytes do not fit the three left: refused before reading.
    writeAll(sp.server, {0, 0, 7, 0, 0, 0, 4, 0});
    EXPECT_EQ(GetReply(sp.agent, c, record, &fileData), kFailed);
    EXPECT_EQ(fileData.fill, 7u);
    writeAll(sp.server, {0, 0, 22, 0, 0, 0, 0xFF, 0xFF});
    EXPECT_EQ(GetReply(sp.agent, c, record, &fileData), kFailed);
    EXPECT_TRUE(home_.logHas("(GetReply) Failed to Receive Data Packet"));

    writeAll(sp.server, {0, 0, 3});
    sp.closeServer();
    EXPECT_EQ(GetReply(sp.agent, c, record, &fileData), kFailed);
    EXPECT_TRUE(home_.logHas("(GetReply) Failed to Receive Header Packet"));
}

TEST_F(PacketTest, AcknowledgesEveryNthPacket) {
    SocketPair sp;
    for (int i = 1; i <= 9; ++i) ASSERT_EQ(ackIfDue(sp.agent, 3), 0);
    std::array<uint8_t, 64> b{};
    ssize_t n = ::recv(sp.server, b.data(), b.size(), MSG_DONTWAIT);
    EXPECT_EQ(n, 24);  // after the 3rd, 6th and 9th
    tavik::transport::transport().ackCounter = 0;
    for (int i = 1; i <= 2; ++i) ASSERT_EQ(ackIfDue(sp.agent, 1), 0);
    n = ::recv(sp.server, b.data(), b.size(), MSG_DONTWAIT);
    EXPECT_EQ(n, 16);
    EXPECT_EQ(b[2], 0);
}

TEST_F(PacketTest, UsbPairReportsShortTransfersAndTimesOut) {
    startupSettings().timeDivisor = 100000;  // 1801 s becomes 18 ms
    SocketPair quiet;
    std::array<uint8_t, 4> four{};
    EXPECT_EQ(usbReceive(quiet.agent, four.data(), four.size()), -1);
    EXPECT_TRUE(home_.logHas("(usbReceive) recv(): timeout"));

    SocketPair sp;
    std::array<uint8_t, 6> b{};
    writeAll(sp.server, {1, 2, 3, 4, 5, 6});
    EXPECT_EQ(usbReceive(sp.agent, b.data(), b.size()), 0);
    writeAll(sp.server, {1, 2});
    sp.closeServer();
    EXPECT_EQ(usbReceive(sp.agent, b.data(), b.size()), -1);
    EXPECT_TRUE(home_.logHas("(usbReceive) Failed to recv 6 bytes, length = 2"));
    EXPECT_EQ(usbSend(sp.agent, b.data(), b.size()), -1);
    EXPECT_TRUE(home_.logHas("(usbSend) Failed in send(), "));
}

// Fills a socket until a send would block.
void fillSocket(int fd) {
    std::vector<uint8_t> chunk(65536, 'z');
    while (::send(fd, chunk.data(), chunk.size(), MSG_DONTWAIT) > 0) {
    }
}

TEST_F(PacketTest, StalledSendOutsideTheSenderFailsAfterTheSpanTapeAlarm) {
    startupSettings().timeDivisor = 1000000;  // 180 s -> 0.18 ms, 72 h -> 0.26 s
    SocketPair sp;
    fillSocket(sp.agent);
    std::vector<uint8_t> more(4096, 'q');
    EXPECT_EQ(blockSend(sp.agent, more.data(), more.size()), kFailed);
    std::string log = home_.log();
    EXPECT_NE(log.find("(blockSend) Span Tape Failed"), std::string::npos);
    // Not the sender: the parent is never signalled.
    EXPECT_EQ(log.find("into sleep"), std::string::npos);
}

TEST_F(PacketTest, ReadAheadServesManyPacketsFromOneReceiveAndFailsLikeBlockRecv) {
    SocketPair sp;
    std::vector<uint8_t> stream;
    for (int i = 0; i < 20; ++i) {
        auto p = packetBytes(protocol::code::kMof, std::vector<uint8_t>(2048, static_cast<uint8_t>(i)));
        stream.insert(stream.end(), p.begin(), p.end());
    }
    auto rec = packetBytes(protocol::code::kOpenFile, {1, 2, 3});
    stream.insert(stream.end(), rec.begin(), rec.end());
    auto cut = packetBytes(protocol::code::kEndf, std::vector<uint8_t>(100, 7));
    cut.resize(50);  // the connection ends inside this packet
    stream.insert(stream.end(), cut.begin(), cut.end());
    writeAll(sp.server, stream);
    sp.closeServer();

    ReadAhead ahead;
    std::vector<uint8_t> area(4096);
    std::array<uint8_t, 16> record{};
    for (int i = 0; i < 20; ++i) {
        FileDataBuffer data{area, 0};
        int8_t c = 0;
        ASSERT_EQ(GetReply(sp.agent, c, record, &data, ahead), 0) << i;
        EXPECT_EQ(c, protocol::code::kMof);
        EXPECT_EQ(data.fill, 2048u);
        EXPECT_EQ(area[2047], static_cast<uint8_t>(i));
    }
    int8_t c = 0;
    FileDataBuffer data{area, 0};
    ASSERT_EQ(GetReply(sp.agent, c, record, &data, ahead), 0);
    EXPECT_EQ(c, protocol::code::kOpenFile);
    EXPECT_EQ(record[2], 3);
    EXPECT_EQ(data.fill, 0u);
    EXPECT_EQ(GetReply(sp.agent, c, record, &data, ahead), kFailed);
    EXPECT_TRUE(home_.logHas("(blockRecv) EOF received"));
    EXPECT_TRUE(home_.logHas("(GetReply) Failed to Receive Data Packet"));
}

TEST_F(PacketTest, ReadAheadReadsNoFurtherThanOnePacketUnderAReceiveDeadline) {
    setReceiveDeadline(120);
    SocketPair sp;
    auto first = packetBytes(protocol::code::kMkdir, {4, 5});
    auto second = packetBytes(protocol::code::kEnd, {});
    std::vector<uint8_t> both = first;
    both.insert(both.end(), second.begin(), second.end());
    writeAll(sp.server, both);
    ReadAhead ahead;
    std::array<uint8_t, 16> record{};
    int8_t c = 0;
    ASSERT_EQ(GetReply(sp.agent, c, record, nullptr, ahead), 0);
    EXPECT_EQ(c, protocol::code::kMkdir);
    EXPECT_EQ(ahead.end, 0u);
    // The second packet is still in the socket.
    EXPECT_EQ(readHeader(sp.agent)[2], protocol::code::kEnd);
}

}  // namespace
