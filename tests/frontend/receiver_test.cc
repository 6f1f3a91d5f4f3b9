// The stream receiver against a fake agent on a real loopback connection:
// the fake agent sends packets built with the real codecs and, like the
// agent's sender, waits for an acknowledgement after every n-th file header
// or data packet, announces a new port and continues there, or breaks off.
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <fstream>
#include <functional>
#include <thread>
#include <vector>

#include "daemon/scratch_home.h"
#include "frontend/archive.h"
#include "frontend/backup_client.h"
#include "frontend/stream_builder.h"
#include "platform/fd.h"
#include "platform/tempfile.h"

namespace {

using namespace tavik::frontend;
using tavik::platform::UniqueFd;
using tavik::test::archiveVerifies;
using tavik::test::StreamBuilder;
namespace code = tavik::protocol::code;

// A listening socket on a port the system picks, on the loopback address.
UniqueFd listenLoopback(uint16_t& port) {
    UniqueFd fd(::socket(AF_INET, SOCK_STREAM, 0));
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof addr;
    if (!fd || ::bind(fd.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 || ::listen(fd.get(), 4) != 0 ||
        ::getsockname(fd.get(), reinterpret_cast<sockaddr*>(&addr), &length) != 0)
        return UniqueFd();
    port = ntohs(addr.sin_port);
    return fd;
}

UniqueFd acceptWithin(int listener, int ms) {
    pollfd p{listener, POLLIN, 0};
    return UniqueFd(::poll(&p, 1, ms) == 1 ? ::accept(listener, nullptr, nullptr) : -1);
}

bool sendAll(int fd, const std::vector<uint8_t>& b) {
    return ::send(fd, b.data(), b.size(), MSG_NOSIGNAL) == ssize_t(b.size());
}

// What the fake agent saw.
struct AgentLog {
    std::vector<size_t> ackedAfter;  // packet indices after which an ack came
    bool badAck = false;
    bool closedAfterEnd = false;
};

// The fake agent: sends the packets, waits for the acknowledgements that
// are due, optionally renews the connection before packet `renewBefore`.
void fakeAgent(UniqueFd conn, const StreamBuilder& s, uint16_t ackInterval, size_t renewBefore, AgentLog& log,
               size_t stopAfter = SIZE_MAX) {
    uint16_t counter = 0;
    for (size_t i = 0; i < s.packets().size(); ++i) {
        if (i == stopAfter) return;  // the agent breaks off
        if (i == renewBefore) {
            uint16_t port = 0;
            UniqueFd listener = listenLoopback(port);
            StreamBuilder announce;
            announce.packet(code::kNewPort, {}, port);
            if (!sendAll(conn.get(), announce.bytes())) return;
            UniqueFd next = acceptWithin(listener.get(), 5000);
            if (!next) return;
            conn = std::move(next);
        }
        const std::vector<uint8_t>& p = s.packets()[i];
        if (!sendAll(conn.get(), p)) return;
        int8_t c = int8_t(p[2]);
        if (ackInterval != 0 && (c == code::kFileHeader || c == code::kMof || c == code::kEndf)) {
            bool due = ackInterval == 1 || (counter = uint16_t((counter + 1) % ackInterval)) == 0;
            if (due) {
                uint8_t h[8];
                if (!tavik::testing::recvWithin(conn.get(), h, 8) || h[2] != 0) {
                    log.badAck = true;
                    return;
                }
                log.ackedAfter.push_back(i);
            }
        }
    }
    uint8_t extra;
    pollfd p{conn.get(), POLLIN, 0};
    log.closedAfterEnd = ::poll(&p, 1, 5000) == 1 && ::recv(conn.get(), &extra, 1, 0) == 0;
}

struct Received {
    bool ok = false;
    ReceiveStats stats;
    std::string error;
    AgentLog agent;
    std::vector<uint8_t> archive;
};

Received receive(const StreamBuilder& s, uint16_t ack, size_t renewBefore = SIZE_MAX, size_t stopAfter = SIZE_MAX) {
    Received run;
    uint16_t port = 0;
    UniqueFd listener = listenLoopback(port);
    UniqueFd mine(tavik::testing::connectLoopback(port));
    UniqueFd theirs = acceptWithin(listener.get(), 5000);
    if (!mine || !theirs) return run;
    tavik::platform::TempFile file("/tmp/tavik-rx-");
    ArchiveWriter writer;
    ArchiveHeader h;
    h.host = "127.0.0.1";
    h.source = "/src";
    if (!writer.open(file.path(), h)) return run;
    std::thread agent(fakeAgent, std::move(theirs), std::cref(s), ack, renewBefore, std::ref(run.agent), stopAfter);
    StreamReceiver receiver(&writer, ack);
    receiver.setTimeoutMs(5000);
    run.ok = receiver.run(std::move(mine));
    agent.join();
    run.stats = receiver.stats();
    run.error = receiver.error();
    if (!writer.finish(run.stats.packets, run.stats.complete)) return run;
    std::ifstream in(file.path(), std::ios::binary);
    run.archive.assign(std::istreambuf_iterator<char>(in), {});
    return run;
}

StreamBuilder tree() {
    StreamBuilder s;
    s.source()                              // 0 (counted 1)
        .file("a", std::string(4096, 'x'))  // 1 2 3 4 (counted 2..5)
        .packet(code::kWatchDog)            // 5, never counted
        .dir("d")                           // 6 (6)
        .file("b", "y")                     // 7 8 (7, 8)
        .status(code::kNoFile, "c")         // 9
        .endDir()                           // 10
        .endDir()                           // 11
        .end();                             // 12
    return s;
}

TEST(StreamReceiver, AcknowledgesEveryNthHeaderOrDataPacket) {
    StreamBuilder s = tree();
    struct Case {
        uint16_t ack;
        std::vector<size_t> ackedAfter;
    };
    for (const Case& c : {Case{0, {}}, Case{1, {0, 1, 2, 3, 4, 6, 7, 8}}, Case{3, {2, 6}}, Case{4, {3, 8}}}) {
        Received r = receive(s, c.ack);
        EXPECT_TRUE(r.ok) << "ack " << c.ack << ": " << r.error;
        EXPECT_FALSE(r.agent.badAck);
        EXPECT_EQ(r.agent.ackedAfter, c.ackedAfter) << "ack " << c.ack;
        EXPECT_EQ(r.stats.acks, c.ackedAfter.size());
        EXPECT_TRUE(r.agent.closedAfterEnd) << "the receiver closes the connection after END";
        EXPECT_TRUE(r.stats.complete);
        EXPECT_EQ(r.stats.entries, 5u);  // source, a, d, b and the unopened c
        ASSERT_EQ(r.stats.problems.size(), 1u);
        EXPECT_EQ(r.stats.problems[0].path, "d/c");
        EXPECT_EQ(r.stats.problems[0].code, code::kNoFile);
        std::string error;
        EXPECT_TRUE(archiveVerifies(r.archive, &error)) << error;
        // The archive body is the stream byte for byte.
        ASSERT_GT(r.archive.size(), 32u);
        EXPECT_TRUE(std::equal(s.bytes().begin(), s.bytes().end(), r.archive.end() - 32 - long(s.bytes().size())));
    }
}

TEST(StreamReceiver, FollowsARenewalToTheNewPort) {
    StreamBuilder s = tree();
    // Renewed before packet 3 (the second MOF); acknowledgements every 2
    // go on counting across the renewal, on the new connection.
    Received r = receive(s, 2, 3);
    ASSERT_TRUE(r.ok) << r.error;
    EXPECT_EQ(r.stats.renewals, 1u);
    EXPECT_EQ(r.agent.ackedAfter, (std::vector<size_t>{1, 3, 6, 8}));
    EXPECT_TRUE(r.agent.closedAfterEnd);
    EXPECT_EQ(r.stats.packets, s.packets().size() + 1);  // and the new-port packet
    std::string error;
    EXPECT_TRUE(archiveVerifies(r.archive, &error)) << error;
}

TEST(StreamReceiver, AStreamBrokenOffLeavesAnIncompleteArchive) {
    StreamBuilder s = tree();
    Received r = receive(s, 0, SIZE_MAX, 7);
    EXPECT_FALSE(r.ok);
    EXPECT_NE(r.error.find("closed the connection before the end"), std::string::npos) << r.error;
    EXPECT_FALSE(r.stats.complete);
    EXPECT_EQ(r.stats.packets, 7u);
    std::string error;
    EXPECT_FALSE(archiveVerifies(r.archive, &error));
    EXPECT_NE(error.find("no END"), std::string::npos) << error;
}

}  // namespace
