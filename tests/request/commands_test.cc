// The parameter phase read from replayed server bytes: the options record and
// filter items, every command with its answer, sizes from the wire checked
// before anything is read, and short fixed-size payloads.
#include "request/commands.h"

#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "daemon/scratch_home.h"
#include "frontend/job_client.h"
#include "transport/packet.h"
#include "wire/bytes.h"

namespace {

using namespace tavik;
using tavik::frontend::buildCommand;
using tavik::testing::ScratchHome;

using Bytes = std::vector<uint8_t>;

void append(Bytes& out, const Bytes& more) { out.insert(out.end(), more.begin(), more.end()); }

Bytes cmd(int8_t code, const Bytes& payload = {}, uint16_t value = 0) { return buildCommand(code, value, payload); }

// Little-endian 32-bit words, one after the other.
Bytes le32(std::initializer_list<uint32_t> words) {
    Bytes b(4 * words.size());
    size_t at = 0;
    for (uint32_t v : words) wire::storeLe32(&b[std::exchange(at, at + 4)], v);
    return b;
}

// The codes of the header-only answers the agent sent.
std::vector<int> answers(const Bytes& sent) {
    std::vector<int> codes;
    for (size_t at = 0; at + 8 <= sent.size(); at += 8) codes.push_back(static_cast<int8_t>(sent[at + 2]));
    return codes;
}

class CommandsTest : public ::testing::Test {
protected:
    void SetUp() override {
        startupSettings() = Settings{};
        prepareForConnection(ctx_);
    }
    int run(const Bytes& stream) {
        Channel channel{std::span<const uint8_t>(stream)};
        int r = GetCommands(channel, ctx_);
        sent_ = channel.sent();
        return r;
    }
    int pattern(const Bytes& stream) {
        Channel channel{std::span<const uint8_t>(stream)};
        return GetPattern(channel, ctx_);
    }
    ScratchHome home_;
    JobContext ctx_;
    Bytes sent_;
};

TEST_F(CommandsTest, StartCommandSetsTheAckInterval) {
    ctx_.ackInterval = 10;  // from -a 10
    EXPECT_EQ(run(cmd(0, {}, 3)), 0);
    EXPECT_EQ(ctx_.ackInterval, 3);
    EXPECT_TRUE(sent_.empty());  // the start command is not answered
}

TEST_F(CommandsTest, DiskItemBuildsTheTopListWithinItsStatedSize) {
    startupSettings().verbose = true;
    Bytes s = cmd(11, le32({3, 11}));
    append(s, Bytes{'a', 0, 'b', 'c', 0, 'd', 'e', 'f', 0, 'x', 0});  // four names, three counted
    append(s, cmd(0));
    ASSERT_EQ(run(s), 0);
    EXPECT_EQ(answers(sent_), (std::vector<int>{4}));
    ASSERT_EQ(ctx_.topList.names.size(), 3u);
    EXPECT_STREQ(ctx_.topList.text.data() + ctx_.topList.names[2], "def");
    EXPECT_TRUE(home_.logHas("DISK_ITEM: flist.nFiles=3, flist.size=11"));
    EXPECT_TRUE(home_.logHas("flist_tbl[1]=[bc]"));

    // An absurd size fails without reading; so does a short text stream.
    EXPECT_EQ(run(cmd(11, le32({1, 0xFFFFFFF0u}))), transport::kFailed);
    EXPECT_TRUE(home_.logHas("(GetCommands) Failed to Receive Data Packet"));
    Bytes t = cmd(11, le32({1, 100}));
    append(t, Bytes{'a', 0});
    EXPECT_EQ(run(t), transport::kFailed);
}

TEST_F(CommandsTest, ShortFixedPayloadsReadAsZeroPadded) {
    // OPTION with 3 bytes: retry count 0x0201, the rest zero.
    Bytes s = cmd(12, {1, 2, 0x69});
    // DISK_ITEM with a 4-byte payload: size 0.
    append(s, cmd(11, le32({2})));
    append(s, cmd(16, {}));  // continue without payload: offset 0, empty name
    append(s, cmd(0));
    ASSERT_EQ(run(s), 0);
    EXPECT_EQ(ctx_.retryCount(), 0x0201);
    EXPECT_EQ(ctx_.retryInterval(), 0x0069);
    EXPECT_EQ(ctx_.optionFlags(), 0);
    EXPECT_TRUE(ctx_.topList.names.empty());
    EXPECT_EQ(answers(sent_), (std::vector<int>{4, 4, 4}));
}

TEST_F(CommandsTest, GroomingKeepsRecordTapeAndSetNameOrIsDropped) {
    startupSettings().verbose = true;
    Bytes record(40, 0);
    wire::storeLe16(&record[0], 6);
    wire::storeLe16(&record[2], 2);
    wire::storeLe32(&record[12], 0x02);
    std::memcpy(&record[16], "WEEKLYSETX", 10);  // only 8 characters count
    record[30] = 0x5A;
    Bytes tape(63, 0);
    std::memcpy(tape.data(), "TAPE-1", 6);
    tape[62] = 0xFF;
    Bytes s = cmd(13, record);
    append(s, tape);
    append(s, cmd(0));
    ASSERT_EQ(run(s), 0);
    EXPECT_EQ(ctx_.groomSet, "WEEKLYSE");
    ASSERT_EQ(ctx_.groomRecord.size(), 40u);
    EXPECT_EQ(ctx_.groomRecord[16], 0);  // the set name is cleared in the record
    EXPECT_EQ(ctx_.groomRecord[30], 0x5A);
    EXPECT_EQ(ctx_.tapeRecord[0], 'T');
    EXPECT_TRUE(home_.logHas("GROOMING: vGroom->nMonths=6, nCopies=2, nFilterItems=0, fOptions=0x2"));
    EXPECT_TRUE(home_.logHas("tapeID=[TAPE-1], sessionNumber=[], tapeName=[], tapeSequence=[-1]"));
    EXPECT_TRUE(home_.logHas("GROOMSET=[WEEKLYSE]"));

    // Without a rotation set or deletion the record is dropped.
    for (uint32_t options : {0u, 4u}) {
        Bytes plain(24, 0);
        wire::storeLe32(&plain[12], options);
        Bytes p = cmd(13, plain);
        append(p, Bytes(63, 'T'));
        append(p, cmd(0));
        ASSERT_EQ(run(p), 0);
        EXPECT_EQ(ctx_.groomRecord.empty(), options == 0) << options;
        EXPECT_EQ(ctx_.groomSet, "");
    }
    // A tape record cut short ends the job.
    Bytes cut = cmd(13, Bytes(24, 0));
    append(cut, Bytes(20, 'T'));
    EXPECT_EQ(run(cut), transport::kFailed);
}

TEST_F(CommandsTest, DbFileListIsKeptRaw) {
    Bytes list = le32({4096});
    append(list, Bytes{'/', 'd', 'e', 'v', '/', 'r', 'd', 0});
    Bytes s = cmd(15, le32({static_cast<uint32_t>(list.size())}));
    append(s, list);
    append(s, cmd(0));
    ASSERT_EQ(run(s), 0);
    EXPECT_EQ(ctx_.dbFileList, list);
    EXPECT_EQ(run(cmd(15, le32({protocol::kMaxRawTransfer + 1}))), transport::kFailed);
}

TEST_F(CommandsTest, ContinueLogsItsThreeForms) {
    auto payload = [](uint32_t offset, const std::string& name) {
        Bytes p = le32({offset});
        p.insert(p.end(), name.begin(), name.end());
        p.push_back(0);
        return p;
    };
    Bytes s = cmd(16, payload(0, "a/first"));
    append(s, cmd(16, payload(0xFFFFFFFFu, "b/second")));
    append(s, cmd(16, payload(8192, "c/third")));
    append(s, cmd(0));
    ASSERT_EQ(run(s), 0);
    EXPECT_EQ(ctx_.restartPath, "c/third");
    EXPECT_EQ(ctx_.restartOffset, 8192);
    EXPECT_TRUE(home_.logHas("(GetCommands) Continue on file next to a/first"));
    EXPECT_TRUE(home_.logHas("(GetCommands) Continue on file b/second at offset 0"));
    EXPECT_TRUE(home_.logHas("(GetCommands) Continue on file c/third at offset 8192"));
}

TEST_F(CommandsTest, UnsupportedCommandsAreRejectedAndTheJobGoesOn) {
    Bytes s = cmd(7, {1, 2, 3});
    append(s, cmd(static_cast<int8_t>(200)));
    append(s, cmd(14, {'/', 0}));  // ESTIMATE, until the estimator exists
    append(s, cmd(9, Bytes(65535, 0xAB)));  // the largest payload is read as sized
    append(s, cmd(0, {}, 1));
    ASSERT_EQ(run(s), 0);
    EXPECT_EQ(answers(sent_), (std::vector<int>{5, 5, 5, 5}));
    EXPECT_TRUE(home_.logHas("(GetCommands) Unsupported command 14 is rejected"));
}

TEST_F(CommandsTest, BrokenStreamsFailWithTheirLines) {
    EXPECT_EQ(run({0, 0}), transport::kFailed);
    EXPECT_TRUE(home_.logHas("(GetCommands) Failed to Receive Header Packet"));
    Bytes s = cmd(12, Bytes(512, 0));
    s.resize(8 + 100);
    EXPECT_EQ(run(s), transport::kFailed);
    EXPECT_TRUE(home_.logHas("(GetCommands) Failed to Receive Data Packet"));
    EXPECT_EQ(run(cmd(12, Bytes(512, 0))), transport::kFailed);  // no start command
}

TEST_F(CommandsTest, OldServerPatternPhaseReadsNothing) {
    ctx_.serverVersion = '1';
    ctx_.request.raw[protocol::request_layout::kFollowAt] = 1;
    EXPECT_EQ(pattern({}), 0);
    EXPECT_EQ(ctx_.maxDirDepth, 19);
    EXPECT_FALSE(ctx_.jobSettings.followLinks);  // no marker file, whatever follow says
    int fd = ::creat(paths().followMarkerPath.c_str(), 0700);
    ::close(fd);
    EXPECT_EQ(pattern({}), 0);
    EXPECT_TRUE(ctx_.jobSettings.followLinks);
    EXPECT_TRUE(home_.logHas("* Symbolic links will be followed"));
}

TEST_F(CommandsTest, OptionFlagsSetTheJobSettings) {
    ctx_.serverVersion = '4';
    ctx_.jobSettings.ioBufferSize = 4096;
    Bytes options(512, 0);
    EXPECT_EQ(pattern(options), 0);
    EXPECT_EQ(ctx_.maxDirDepth, 51);
    EXPECT_TRUE(ctx_.jobSettings.skipNfs);
    EXPECT_TRUE(ctx_.jobSettings.resetAccessTime);
    EXPECT_FALSE(ctx_.jobSettings.noCrossFs);
    EXPECT_EQ(ctx_.jobSettings.ioBufferSize, 2048);

    ctx_.jobSettings.ioBufferSize = 4096;
    options[4] = 0x69;
    EXPECT_EQ(pattern(options), 0);
    EXPECT_FALSE(ctx_.jobSettings.skipNfs);
    EXPECT_FALSE(ctx_.jobSettings.resetAccessTime);
    EXPECT_TRUE(ctx_.jobSettings.noCrossFs);
    EXPECT_EQ(ctx_.jobSettings.ioBufferSize, 4096);
    EXPECT_TRUE(home_.logHas("* NFS directories will be traversed"));
    EXPECT_TRUE(home_.logHas("* File access time will not be reset"));
    EXPECT_TRUE(home_.logHas("* Will not traverse across file system"));
}

Bytes item(uint16_t type, uint32_t count, const Bytes& data) {
    Bytes b(32, 0);
    wire::storeLe16(&b[0], type);
    wire::storeLe32(&b[4], count);
    wire::storeLe32(&b[8], 0xDEADBEEF);  // an address on the wire: ignored
    wire::storeLe16(&b[12], static_cast<uint16_t>(data.size()));
    append(b, data);
    return b;
}

TEST_F(CommandsTest, FilterItemsAndTheirDataWithinTheTextArea) {
    ctx_.serverVersion = '4';
    wire::storeLe16(ctx_.request.raw.data() + protocol::request_layout::kTpSizeAt, 4);
    Bytes s(512, 0);
    append(s, item(2, 2, {'*', '.', 'c', 0, '*', '.', 'h', 0}));
    append(s, item(4, 0, {}));
    Bytes typeNine(32, 0);
    wire::storeLe16(&typeNine[0], 9);
    wire::storeLe16(&typeNine[12], 500);  // takes no data from the stream
    append(s, typeNine);
    append(s, item(3, 1, {'t', 'm', 'p', 0}));
    ASSERT_EQ(pattern(s), 0);
    const auto& f = ctx_.filterItems;
    ASSERT_EQ(f.items.size(), 4u);
    EXPECT_EQ(f.items[0].dataLength, 8);
    EXPECT_EQ(f.items[3].dataOffset, 8u);
    EXPECT_EQ(std::string(f.patternArea.data() + 8), "tmp");
    EXPECT_TRUE(home_.logHas("(GetPattern) Unknown filter type: 9"));

    // Pattern data beyond the text area is refused.
    wire::storeLe16(ctx_.request.raw.data() + protocol::request_layout::kTpSizeAt, 3);
    Bytes big(512, 0);
    append(big, item(2, 1, Bytes(8000, 'a')));
    append(big, item(2, 1, Bytes(8000, 'b')));
    append(big, item(3, 1, Bytes(8000, 'c')));
    EXPECT_EQ(pattern(big), transport::kFailed);
    EXPECT_LE(ctx_.filterItems.patternArea.size(), 16384u);
    EXPECT_TRUE(home_.logHas("(GetPattern) Failed to Receive Data Packet"));
    // Items cut short, and a missing options record.
    Bytes t(512, 0);
    append(t, Bytes(10, 2));
    EXPECT_EQ(pattern(t), transport::kFailed);
    EXPECT_EQ(pattern(Bytes(100, 0)), transport::kFailed);
}

}  // namespace
