// The job request and the parameter phase read from replayed server bytes:
// damaged, short and oversized requests, the server version, command
// records and filter items whose sizes from the wire are checked before
// anything is read, short fixed-size payloads, and the lines they leave;
// then the front-end's login options. Every command's ordinary answer and
// line, and requests cut in their header or their record, are driven on
// the real daemon by
// JobSessionTest.BrokenCallersThenEveryCommandOfTheParameterPhase, restart
// points by BackupFlowTest.RestartPointWithAndWithoutOffset, the option
// flags and old servers by the BackupStreamTest cases.
#include "request/commands.h"
#include "request/request.h"

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "daemon/scratch_home.h"
#include "frontend/job_client.h"
#include "frontend/login_options.h"
#include "protocol/request.h"
#include "transport/packet.h"
#include "wire/bytes.h"

namespace {

using namespace tavik;
using tavik::frontend::buildRequestPacket;
using tavik::frontend::RequestFields;
using Bytes = std::vector<uint8_t>;

void append(Bytes& out, const Bytes& more) { out.insert(out.end(), more.begin(), more.end()); }

Bytes cmd(int8_t code, const Bytes& payload = {}, uint16_t value = 0) {
    return frontend::buildCommand(code, value, payload);
}

// Little-endian 32-bit words, one after the other.
Bytes le32(std::initializer_list<uint32_t> words) {
    Bytes b(4 * words.size());
    size_t at = 0;
    for (uint32_t v : words) wire::storeLe32(&b[std::exchange(at, at + 4)], v);
    return b;
}

RequestFields fields(const std::string& root) {
    return {.root = root, .login = "alice", .password = "Pw0rd-42", .opMode = 2, .acceptEA = 'e', .follow = 1};
}

// The agent's side of one connection, fed with the given bytes.
class ReplayTest : public ::testing::Test {
protected:
    void SetUp() override {
        startupSettings() = Settings{};
        publishSettings();
        prepareJob(ctx_);
    }
    int request(const Bytes& stream) {
        Channel channel{std::span<const uint8_t>(stream)};
        return GetRequest(channel, ctx_);
    }
    int commands(const Bytes& stream) {
        Channel channel{std::span<const uint8_t>(stream)};
        int r = GetCommands(channel, ctx_);
        answers_.clear();  // the codes of the header-only answers sent
        for (size_t at = 0; at + 8 <= channel.sent().size(); at += 8) answers_.push_back(int8_t(channel.sent()[at + 2]));
        return r;
    }
    int pattern(const Bytes& stream) {
        Channel channel{std::span<const uint8_t>(stream)};
        return GetPattern(channel, ctx_);
    }
    bool logged(const std::string& line) const { return home_.logHas(line); }
    tavik::testing::ScratchHome home_;
    JobContext ctx_;
    std::vector<int> answers_;
};
using RequestTest = ReplayTest;
using CommandsTest = ReplayTest;

TEST_F(RequestTest, RecordFieldsAndTheRootInOrAfterTheRecord) {
    // A root field without its NUL is cut at 176 bytes.
    Bytes packet = buildRequestPacket(fields("/home/alice"));
    std::fill(packet.begin() + 8, packet.begin() + 8 + 176, 'r');
    ASSERT_EQ(request(packet), 0);
    EXPECT_EQ(ctx_.jobRoot, std::string(176, 'r'));
    // A long root follows the record, which keeps its first 175 characters.
    std::string root = "/" + std::string(299, 'd');
    ASSERT_EQ(request(buildRequestPacket(fields(root))), 0);
    EXPECT_EQ(ctx_.jobRoot, root);
    EXPECT_EQ(ctx_.request.root(), root.substr(0, 175));
    EXPECT_TRUE(buildRequestPacket(fields("/" + std::string(1022, 'l'))).empty()) << "no room for 1023 + NUL";
}

TEST_F(RequestTest, ServerVersionFromVersionByteAndFlags) {
    const struct {
        uint8_t version, flags;
        int8_t expected;
    } cases[] = {{'2', 0x40, '4'}, {'2', 0x80, '3'}, {'2', 0xC0, '4'}, {'2', 0, '2'}, {'3', 0x40, '3'}, {'1', 0xC0, '1'}};
    for (const auto& c : cases) {
        Bytes packet = buildRequestPacket(fields("/"));
        packet[0] = c.flags;
        packet[8 + 678] = c.version;
        ASSERT_EQ(request(packet), 0);
        EXPECT_EQ(ctx_.serverVersion, c.expected) << c.version << " " << int(c.flags);
    }
}

TEST_F(RequestTest, ShortLengthsReadAWholeRecordOrNone) {
    ctx_.jobRoot = "/previous";
    ASSERT_EQ(request({0, 0, 0, 0, 0, 0, 0, 0}), 0);
    EXPECT_EQ(ctx_.jobRoot, "/previous");
    EXPECT_EQ(ctx_.request.loginID(), "");
    EXPECT_EQ(ctx_.request.opMode(), 0);
    Bytes packet = buildRequestPacket(fields("/short"));
    wire::storeLe16(&packet[6], 10);
    ASSERT_EQ(request(packet), 0);
    EXPECT_EQ(ctx_.jobRoot, "/short");
}

TEST_F(RequestTest, LengthBeyondTheRootBufferFailsBeforeReading) {
    Bytes packet = buildRequestPacket(fields("/"));
    wire::storeLe16(&packet[6], 680 + 1024);
    packet.resize(8 + 680 + 1024, 'x');
    EXPECT_EQ(request(packet), transport::kFailed);
    EXPECT_TRUE(logged("(GetRequest) Failed to Receive Data Packet"));
    EXPECT_EQ(ctx_.request.loginID(), "");  // the record was not read
    wire::storeLe16(&packet[6], 680 + 1023);
    EXPECT_EQ(request(packet), 0);
    EXPECT_EQ(ctx_.jobRoot.size(), 1023u);
}

TEST_F(CommandsTest, DiskItemBuildsTheTopListWithinItsStatedSize) {
    startupSettings().verbose = true;
    publishSettings();
    Bytes s = cmd(11, le32({3, 11}));
    append(s, Bytes{'a', 0, 'b', 'c', 0, 'd', 'e', 'f', 0, 'x', 0});  // four names, three counted
    append(s, cmd(0));
    ASSERT_EQ(commands(s), 0);
    EXPECT_EQ(answers_, (std::vector<int>{4}));
    ASSERT_EQ(ctx_.topList.names.size(), 3u);
    EXPECT_STREQ(ctx_.topList.text.data() + ctx_.topList.names[2], "def");
    EXPECT_TRUE(logged("DISK_ITEM: flist.nFiles=3, flist.size=11"));

    // An absurd size fails without reading; so does a short text stream.
    EXPECT_EQ(commands(cmd(11, le32({1, 0xFFFFFFF0u}))), transport::kFailed);
    EXPECT_TRUE(logged("(GetCommands) Failed to Receive Data Packet"));
    Bytes t = cmd(11, le32({1, 100}));
    append(t, Bytes{'a', 0});
    EXPECT_EQ(commands(t), transport::kFailed);
    // A database file list above the limit is refused even when all of it follows.
    Bytes db = cmd(15, le32({protocol::kMaxRawTransfer + 1}));
    db.resize(db.size() + protocol::kMaxRawTransfer + 1);
    append(db, cmd(0));
    EXPECT_EQ(commands(db), transport::kFailed);
}

TEST_F(CommandsTest, ShortFixedPayloadsReadAsZeroPadded) {
    Bytes s = cmd(12, {1, 2, 0x69});  // OPTION: retry count 0x0201, the rest zero
    append(s, cmd(11, le32({2})));    // DISK_ITEM: size 0
    append(s, cmd(16, {}));           // CONTINUE: offset 0, empty name
    append(s, cmd(0));
    ASSERT_EQ(commands(s), 0);
    EXPECT_EQ(ctx_.retryCount(), 0x0201);
    EXPECT_EQ(ctx_.retryInterval(), 0x0069);
    EXPECT_EQ(ctx_.optionFlags(), 0);
    EXPECT_TRUE(ctx_.topList.names.empty());
    EXPECT_EQ(answers_, (std::vector<int>{4, 4, 4}));
}

TEST_F(CommandsTest, GroomingKeepsRecordTapeAndSetNameOrIsDropped) {
    startupSettings().verbose = true;
    publishSettings();
    Bytes record(40, 0);
    wire::storeLe16(&record[0], 6);
    wire::storeLe16(&record[2], 2);
    wire::storeLe32(&record[12], 0x02);
    std::memcpy(&record[16], "WEEKLYSETX", 10);  // only 8 characters count
    Bytes tape(63, 0);
    std::memcpy(tape.data(), "TAPE-1", 6);
    tape[62] = 0xFF;
    Bytes s = cmd(13, record);
    append(s, tape);
    append(s, cmd(0));
    ASSERT_EQ(commands(s), 0);
    EXPECT_EQ(ctx_.groomSet, "WEEKLYSE");
    ASSERT_EQ(ctx_.groomRecord.size(), 40u);
    EXPECT_EQ(ctx_.groomRecord[16], 0);  // the set name is cleared in the record
    EXPECT_TRUE(logged("GROOMING: vGroom->nMonths=6, nCopies=2, nFilterItems=0, fOptions=0x2"));
    EXPECT_TRUE(logged("tapeID=[TAPE-1], sessionNumber=[], tapeName=[], tapeSequence=[-1]"));

    // Without a rotation set or deletion the record is dropped.
    Bytes plain = cmd(13, Bytes(24, 0));
    append(plain, Bytes(63, 'T'));
    append(plain, cmd(0));
    ASSERT_EQ(commands(plain), 0);
    EXPECT_TRUE(ctx_.groomRecord.empty());
    // A tape record cut short ends the job.
    Bytes cut = cmd(13, Bytes(24, 0));
    append(cut, Bytes(20, 'T'));
    EXPECT_EQ(commands(cut), transport::kFailed);
}

// Unknown codes are answered 5 on the real daemon
// (JobSessionTest.BrokenCallersThenEveryCommandOfTheParameterPhase).
TEST_F(CommandsTest, UnsupportedCommandsAreRejectedAndTheJobGoesOn) {
    Bytes s = cmd(14, {'/', 0});            // ESTIMATE, without an estimator
    append(s, cmd(9, Bytes(65535, 0xAB)));  // the largest payload is read as sized
    append(s, cmd(0, {}, 1));
    ASSERT_EQ(commands(s), 0);
    EXPECT_EQ(answers_, (std::vector<int>{5, 5}));
    EXPECT_TRUE(logged("(GetCommands) Unsupported command 14 is rejected"));
}

TEST_F(CommandsTest, BrokenStreamsFailWithTheirLines) {
    EXPECT_EQ(commands({0, 0}), transport::kFailed);
    EXPECT_TRUE(logged("(GetCommands) Failed to Receive Header Packet"));
    Bytes s = cmd(12, Bytes(512, 0));
    EXPECT_EQ(commands(s), transport::kFailed);  // no start command
    s.resize(8 + 100);
    EXPECT_EQ(commands(s), transport::kFailed);
    EXPECT_TRUE(logged("(GetCommands) Failed to Receive Data Packet"));
}

Bytes item(uint16_t type, uint32_t count, const Bytes& data, uint16_t length) {
    Bytes b(32, 0);
    wire::storeLe16(&b[0], type);
    wire::storeLe32(&b[4], count);
    wire::storeLe32(&b[8], 0xDEADBEEF);  // an address on the wire: ignored
    wire::storeLe16(&b[12], length);
    append(b, data);
    return b;
}
Bytes item(uint16_t type, uint32_t count, const Bytes& data) { return item(type, count, data, uint16_t(data.size())); }

TEST_F(CommandsTest, FilterItemsAndTheirDataWithinTheTextArea) {
    ctx_.serverVersion = '4';
    wire::storeLe16(ctx_.request.raw.data() + protocol::request_layout::kTpSizeAt, 3);
    Bytes s(512, 0);
    append(s, item(2, 2, {'*', '.', 'c', 0, '*', '.', 'h', 0}));
    append(s, item(9, 0, {}, 500));  // unknown: takes no data from the stream
    append(s, item(3, 1, {'t', 'm', 'p', 0}));
    ASSERT_EQ(pattern(s), 0);
    const auto& f = ctx_.filterItems;
    ASSERT_EQ(f.items.size(), 3u);
    EXPECT_EQ(f.items[0].dataLength, 8);
    EXPECT_EQ(f.items[2].dataOffset, 8u);
    EXPECT_EQ(std::string(f.patternArea.data() + 8), "tmp");
    EXPECT_TRUE(logged("(GetPattern) Unknown filter type: 9"));

    // Pattern data beyond the text area is refused.
    Bytes big(512, 0);
    for (char c : {'a', 'b', 'c'}) append(big, item(2, 1, Bytes(8000, uint8_t(c))));
    EXPECT_EQ(pattern(big), transport::kFailed);
    EXPECT_LE(ctx_.filterItems.patternArea.size(), 16384u);
    EXPECT_TRUE(logged("(GetPattern) Failed to Receive Data Packet"));
    // Items cut short, and a missing options record.
    Bytes t(512, 0);
    append(t, Bytes(10, 2));
    EXPECT_EQ(pattern(t), transport::kFailed);
    EXPECT_EQ(pattern(Bytes(100, 0)), transport::kFailed);
}

TEST(LoginOptions, RefusesBadValuesAndPasswordsOnTheCommandLine) {
    for (std::vector<std::string> bad : std::vector<std::vector<std::string>>{
             {"--port", "0"}, {"--port", "65536"}, {"--port", "x"}, {"--server-version", "53"},
             {"--server-version", "48"}, {"--user"}, {"--password", "secret"}}) {
        frontend::LoginOptions o;
        std::string error;
        EXPECT_FALSE(frontend::parseLoginOptions(bad, o, error)) << bad[0];
        EXPECT_FALSE(error.empty());
    }
}

}  // namespace
