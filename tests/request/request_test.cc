// The job request as the agent reads it: record and root text, server
// version, conflict policy, the verbose dump, and damaged packets (every
// truncation, absurd lengths).
#include "request/request.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "daemon/scratch_home.h"
#include "frontend/job_client.h"
#include "protocol/request.h"
#include "platform/secret.h"
#include "transport/packet.h"
#include "wire/bytes.h"

namespace {

using namespace tavik;
using tavik::frontend::buildRequestPacket;
using tavik::frontend::RequestFields;
using tavik::testing::ScratchHome;

class RequestTest : public ::testing::Test {
protected:
    void SetUp() override {
        startupSettings() = Settings{};
        prepareForConnection(ctx_);
        ctx_.jobRoot.clear();
    }
    int read(const std::vector<uint8_t>& packet) {
        Channel channel{std::span<const uint8_t>(packet)};
        return GetRequest(channel, ctx_);
    }
    ScratchHome home_;
    JobContext ctx_;
};

RequestFields fields(const std::string& root, int version = 52) {
    RequestFields s;
    s.root = root;
    s.login = "alice";
    s.password = "Pw0rd-42";
    s.opMode = 2;
    s.serverVersion = version;
    s.conflict = 4;
    s.follow = 1;
    s.tpSize = 3;
    s.acceptEA = 'e';
    return s;
}

TEST_F(RequestTest, RecordFieldsAndTheRootInOrAfterTheRecord) {
    std::vector<uint8_t> packet = buildRequestPacket(fields("/home/alice"));
    ASSERT_EQ(read(packet), 0);
    EXPECT_EQ(ctx_.jobRoot, "/home/alice");
    EXPECT_EQ(ctx_.request.loginID(), "alice");
    EXPECT_EQ(ctx_.request.opMode(), 2);
    EXPECT_EQ(ctx_.request.tpSize(), 3);
    EXPECT_EQ(ctx_.request.acceptEA(), 'e');
    EXPECT_EQ(ctx_.conflictPolicy, 4);
    char plain[protocol::kPasswordSize];
    protocol::descramblePassword(plain, ctx_.request.paswd());
    EXPECT_STREQ(plain, "Pw0rd-42");

    // A root field without its NUL is cut at 176 bytes.
    std::fill(packet.begin() + 8, packet.begin() + 8 + 176, 'r');
    ASSERT_EQ(read(packet), 0);
    EXPECT_EQ(ctx_.jobRoot, std::string(176, 'r'));

    // A long root follows the record.
    std::string root = "/" + std::string(299, 'd');
    ASSERT_EQ(read(buildRequestPacket(fields(root))), 0);
    EXPECT_EQ(ctx_.jobRoot, root);
    EXPECT_EQ(ctx_.request.root(), root.substr(0, 175));
}

TEST_F(RequestTest, ServerVersionFromVersionByteAndFlags) {
    struct Case {
        uint8_t version, flags;
        int8_t expected;
    } cases[] = {{'2', 0x40, '4'}, {'2', 0x80, '3'}, {'2', 0xC0, '4'}, {'2', 0, '2'},
                 {'3', 0x40, '3'}, {'1', 0xC0, '1'}};
    for (const Case& c : cases) {
        std::vector<uint8_t> packet = buildRequestPacket(fields("/"));
        packet[0] = c.flags;
        packet[8 + 678] = c.version;
        ASSERT_EQ(read(packet), 0);
        EXPECT_EQ(ctx_.serverVersion, c.expected) << int(c.version) << " " << int(c.flags);
    }
}

TEST_F(RequestTest, ConflictFiveMeansOverwrite) {
    for (auto [sent, kept] : {std::pair{5, 3}, {0, 0}, {1, 1}}) {
        RequestFields s = fields("/");
        s.conflict = static_cast<uint8_t>(sent);
        ASSERT_EQ(read(buildRequestPacket(s)), 0);
        EXPECT_EQ(ctx_.conflictPolicy, kept);
    }
}

TEST_F(RequestTest, VerboseDumpNeverShowsThePassword) {
    startupSettings().verbose = true;
    RequestFields s = fields("/data", 49);
    std::vector<uint8_t> packet = buildRequestPacket(s);
    packet[8 + 256] = 2;  // two file patterns, include
    packet[8 + 257] = 1;
    std::memcpy(&packet[8 + 258], "*.c", 4);
    std::memcpy(&packet[8 + 258 + 13], "*.h", 4);
    ASSERT_EQ(read(packet), 0);
    std::string log = home_.log();
    EXPECT_NE(log.find("(GetRequest) KorvaneVer=49"), std::string::npos);
    EXPECT_NE(log.find("root=/data loginID=alice paswd=* follow=1 version=49 conflict=4"), std::string::npos);
    EXPECT_NE(log.find("tpSize=3 acceptEA=65 opMode=2 timeThresh=0 method=0"), std::string::npos);
    EXPECT_NE(log.find("fileCount=2 Include"), std::string::npos);
    EXPECT_NE(log.find("      '*.h'"), std::string::npos);
    EXPECT_EQ(log.find("Pw0rd-42"), std::string::npos);
}

TEST_F(RequestTest, ShortLengthsReadAWholeRecordOrNone) {
    ctx_.jobRoot = "/previous";
    ASSERT_EQ(read({0, 0, 0, 0, 0, 0, 0, 0}), 0);
    EXPECT_EQ(ctx_.jobRoot, "/previous");
    EXPECT_EQ(ctx_.request.loginID(), "");
    EXPECT_EQ(ctx_.request.opMode(), 0);

    std::vector<uint8_t> packet = buildRequestPacket(fields("/short"));
    wire::storeLe16(&packet[6], 10);
    ASSERT_EQ(read(packet), 0);
    EXPECT_EQ(ctx_.jobRoot, "/short");
}

TEST_F(RequestTest, LengthBeyondTheRootBufferFailsBeforeReading) {
    std::vector<uint8_t> packet = buildRequestPacket(fields("/"));
    wire::storeLe16(&packet[6], 680 + 1024);
    packet.resize(8 + 680 + 1024, 'x');
    EXPECT_EQ(read(packet), transport::kFailed);
    EXPECT_TRUE(home_.logHas("(GetRequest) Failed to Receive Data Packet"));
    EXPECT_EQ(ctx_.request.loginID(), "");  // the record was not read

    wire::storeLe16(&packet[6], 680 + 1023);
    EXPECT_EQ(read(packet), 0);
    EXPECT_EQ(ctx_.jobRoot.size(), 1023u);
}

TEST_F(RequestTest, EveryTruncationFails) {
    std::vector<uint8_t> packet = buildRequestPacket(fields("/" + std::string(400, 'a')));
    for (size_t cut = 0; cut < 8; ++cut) {
        std::vector<uint8_t> part(packet.begin(), packet.begin() + static_cast<long>(cut));
        EXPECT_EQ(read(part), transport::kFailed) << cut;
    }
    EXPECT_TRUE(home_.logHas("(GetRequest) Failed to Receive Header Packet"));
    for (size_t cut = 8; cut < packet.size(); ++cut) {
        std::vector<uint8_t> part(packet.begin(), packet.begin() + static_cast<long>(cut));
        EXPECT_EQ(read(part), transport::kFailed) << cut;
    }
    EXPECT_TRUE(home_.logHas("(GetRequest) Failed to Receive Data Packet"));
}

TEST(Password, ScrambleRoundTripsAndStopsAtKeyCharacters) {
    auto s = protocol::scramblePassword("pass");
    char plain[protocol::kPasswordSize];
    protocol::descramblePassword(plain, s.data());
    EXPECT_STREQ(plain, "pass");
    EXPECT_EQ(s[0], 'p' ^ 'K');
    EXPECT_EQ(s[4], static_cast<uint8_t>('b'));  // the NUL scrambled with key[4]

    std::array<uint8_t, protocol::kPasswordSize> empty{};
    protocol::descramblePassword(plain, empty.data());
    EXPECT_STREQ(plain, "");

    // A character equal to the key character scrambles to NUL: the password
    // is read up to there.
    auto k = protocol::scramblePassword("abmXY");  // key[2] is 'm'
    protocol::descramblePassword(plain, k.data());
    EXPECT_STREQ(plain, "ab");

    std::array<uint8_t, protocol::kPasswordSize> full;
    full.fill(0x7F);
    protocol::descramblePassword(plain, full.data());
    EXPECT_EQ(std::strlen(plain), 23u);
}

}  // namespace
