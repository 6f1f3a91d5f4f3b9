// sync_send_file, which sends the grooming work file after a compare: its
// packets read back from the other end of a socket pair, and its answers
// when the file is missing, cannot be read or the peer is gone. The damaged
// command streams a compare job must survive are driven through the real
// daemon by the end-to-end compare tests.
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "compare/ws_compare.h"
#include "daemon/scratch_home.h"
#include "protocol/packet.h"

namespace tavik::compare {
namespace {

// One packet as it went out: the code byte (0..255) and the payload.
using Packet = std::pair<int, std::string>;

class SendFile : public ::testing::Test {
protected:
    // sync_send_file's result for `path`; `packets` receives what it sent,
    // split by the headers (the socket's buffer is large enough for all).
    int send(const std::string& path, std::vector<Packet>& packets) {
        testing::SocketPair pair;
        int big = 1 << 20;
        ::setsockopt(pair.agent, SOL_SOCKET, SO_SNDBUF, &big, sizeof big);
        int result = sync_send_file(link_, pair.agent, path.c_str());
        pair.closeAgent();
        std::string all;
        char buf[4096];
        for (ssize_t n; (n = ::recv(pair.server, buf, sizeof buf, 0)) > 0;) all.append(buf, size_t(n));
        for (size_t at = 0; all.size() - at >= protocol::kHeaderSize;) {
            protocol::HeaderBytes h{};
            std::copy_n(all.begin() + long(at), h.size(), h.begin());
            protocol::PacketHeader header = protocol::decodeHeader(h);
            at += protocol::kHeaderSize;
            packets.emplace_back(uint8_t(header.code), all.substr(at, header.length));
            at += header.length;
        }
        return result;
    }
    std::string at(const std::string& name) const { return home_.dir() + "/" + name; }

    testing::ScratchHome home_;
    tavik::transport::TransportState link_;
};

// Each packet as its code and length: 7:2048 for a full MOF, 8:n for the
// ENDF, which is shorter than a full packet even when that leaves it empty.
TEST_F(SendFile, SendFileSendsFullPacketsThenOneShorterEnd) {
    const std::pair<size_t, std::vector<std::string>> cases[] = {
        {0, {"8:0"}}, {100, {"8:100"}}, {2048, {"7:2048", "8:0"}}, {5000, {"7:2048", "7:2048", "8:904"}}};
    for (const auto& [size, expected] : cases) {
        std::string content(size, '\0');
        for (size_t i = 0; i < size; ++i) content[i] = static_cast<char>('a' + i % 26);
        std::ofstream(at("work"), std::ios::binary | std::ios::trunc) << content;
        std::vector<Packet> packets;
        EXPECT_EQ(send(at("work"), packets), 0);
        std::vector<std::string> got;
        std::string joined;
        for (const auto& [code, data] : packets) {
            got.push_back(std::to_string(code) + ":" + std::to_string(data.size()));
            joined += data;
        }
        EXPECT_EQ(got, expected) << size;
        EXPECT_EQ(joined, content) << size;
    }
}

TEST_F(SendFile, SendFileMissingUnreadableAndBrokenConnection) {
    std::vector<Packet> packets;
    EXPECT_EQ(send(at("none"), packets), -1);
    EXPECT_TRUE(packets.empty());
    EXPECT_TRUE(home_.logHas("(sync_send_file) Faied to open " + at("none") + " (No such file or directory)"));

    // A directory opens but cannot be read: an empty ENDF never goes out, 103 does.
    EXPECT_EQ(send(home_.dir(), packets), 0);
    EXPECT_EQ(packets, (std::vector<Packet>{{103, ""}}));
    EXPECT_TRUE(home_.logHas("(sync_send_file) Failed in reading file [" + home_.dir() + "] (Is a directory)"));

    std::ofstream(at("work")) << "0123456789";
    ::signal(SIGPIPE, SIG_IGN);
    testing::SocketPair pair;
    pair.closeServer();
    EXPECT_EQ(sync_send_file(link_, pair.agent, at("work").c_str()), 100);
    ::signal(SIGPIPE, SIG_DFL);
    EXPECT_TRUE(home_.logHas("(sync_send_file) Send command [0x8] failed"));
}

}  // namespace
}  // namespace tavik::compare
