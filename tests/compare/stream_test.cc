// ws_compare in a process of its own on one end of a socket pair, working in
// a scratch directory: the test writes a whole command stream to the other
// end and reads every packet the agent sends back. Covers the damaged
// streams the front-end client would never send, sizes beyond 32 bits, a
// deleting grooming that finds nothing, and sync_send_file's packets.
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <vector>

#include "compare/ws_compare.h"
#include "platform/wire_stat.h"
#include "restore/agent_run.h"
#include "protocol/restore_record.h"
#include "wire/bytes.h"

namespace tavik::compare {
namespace {

using Bytes = std::vector<uint8_t>;
using testing::Packet;

// A record whose name field is `nameBytes` bytes of 'n' and then a NUL.
Bytes longNameRecord(size_t nameBytes) {
    Bytes r(protocol::kRecName + nameBytes + 1, 0);
    std::fill(r.begin() + protocol::kRecName, r.end() - 1, 'n');
    return r;
}

class CompareStream : public ::testing::Test {
protected:
    void SetUp() override {
        tree_ = home_.dir() + "/tree";
        ::mkdir(tree_.c_str(), 0755);
        ctx_.serverVersion = 52;
    }
    void makeFile(const std::string& name, const std::string& content) {
        std::ofstream(tree_ + "/" + name, std::ios::binary) << content;
    }
    // A record for `name` with the attributes the disk shows now.
    Bytes record(const std::string& name) const {
        struct stat st {};
        ::lstat((tree_ + "/" + name).c_str(), &st);
        return protocol::encodeRestoreAttributes({.mode = st.st_mode, .nlink = static_cast<uint32_t>(st.st_nlink),
                                                 .uid = st.st_uid, .gid = st.st_gid,
                                                 .mtime = platform::wireTime(st.st_mtime),
                                                 .size = platform::wireSize(st.st_size), .name = name});
    }
    // ws_compare's result and packets for `stream` followed by `tail` zero bytes.
    testing::Run compare(const std::vector<Packet>& stream, size_t tail = 0) {
        Bytes bytes = testing::streamOf(stream);
        bytes.resize(bytes.size() + tail, 0);
        return testing::runAgent(bytes, [&](int fd) {
            if (::chdir(tree_.c_str()) != 0) return 99;
            return ws_compare(fd, tree_ + "/", ctx_);
        });
    }
    // sync_send_file's result and packets, the socket's buffer large enough for all.
    std::vector<Packet> sendFile(const std::string& path, int& result) {
        testing::SocketPair pair;
        int big = 1 << 20;
        ::setsockopt(pair.agent, SOL_SOCKET, SO_SNDBUF, &big, sizeof big);
        result = sync_send_file(pair.agent, path.c_str());
        pair.closeAgent();
        return testing::packetsOf(testing::drain(pair.server));
    }

    testing::ScratchHome home_;
    std::string tree_;
    JobContext ctx_;
};

TEST_F(CompareStream, OverlongNamesAreAnsweredAsObjectsThatCannotBeExamined) {
    makeFile("f", "data");
    testing::Run r = compare({
        {protocol::code::kOpenFile, longNameRecord(1024)}, {protocol::code::kMof, Bytes(2048, 'x')}, {protocol::code::kEndf, Bytes(10, 'x')},
        {protocol::code::kMkdir, longNameRecord(4000)},
        {protocol::code::kOpenFile, longNameRecord(1023)}, {protocol::code::kEndf},  // fits the buffer; too long for the system
        {protocol::code::kOpenFile, record("f")}, {protocol::code::kEndf, {'d', 'a', 't', 'a'}},  // the stream goes on
        {protocol::code::kEndf},  // no file to end: nothing is compared
        {protocol::code::kEnd},
    });
    EXPECT_EQ(r.result, 0);
    EXPECT_EQ(r.codes(), (std::vector<int>{0xD2, 0, 0xD3, 0xD2, 0, 0, 0, 0, 3}));
    EXPECT_TRUE(home_.logHas("(ws_compare[OPENFILE]) Failed to get the attributes (lstat) of " + std::string(100, 'n') +
                             "... (File name too long)"));
    EXPECT_TRUE(home_.logHas("(ws_compare[MKDIR]) Failed to get the attributes (stat) of " + std::string(100, 'n') +
                             "... (File name too long)"));
}

TEST_F(CompareStream, OversizedPacketsEndTheJobWithCode100) {
    makeFile("f", std::string(5000, 'a'));
    const struct {
        const char* what;
        std::vector<Packet> stream;
        size_t tail;
        std::vector<int> codes;
    } rows[] = {
        {"a data payload larger than one packet may carry",
         {{protocol::code::kOpenFile, record("f")}, {protocol::code::kMof, Bytes(2049, 'a')}, {protocol::code::kEnd}}, 0, {0, 100}},
        {"a record larger than the record area",
         {{protocol::code::kOpenFile, longNameRecord(60000)}, {protocol::code::kEnd}}, 0, {100}},
        {"a stream that stops in a header", {{protocol::code::kOpenFile, record("f")}}, 3, {0, 100}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        testing::Run r = compare(row.stream, row.tail);
        EXPECT_EQ(r.result, 0);
        EXPECT_EQ(r.codes(), row.codes);
    }
    EXPECT_TRUE(home_.logHas("(GetReply) Failed to Receive Data Packet"));
    EXPECT_TRUE(home_.logHas("(GetReply) Failed to Receive Header Packet"));
}

TEST_F(CompareStream, LargeFilesCompareByTheLow32BitsOfTheirSize) {
    int fd = ::open((tree_ + "/big").c_str(), O_WRONLY | O_CREAT, 0644);
    ASSERT_GE(fd, 0);
    const off_t size = (off_t{1} << 32) + 10;
    if (::ftruncate(fd, size) != 0) {
        ::close(fd);
        GTEST_SKIP() << "no sparse files of 4 GiB here";
    }
    ::close(fd);
    Bytes same = record("big");
    EXPECT_EQ(wire::loadLe32(&same[protocol::kRecSize]), 10u);
    Bytes other = same;
    wire::storeLe32(&other[protocol::kRecSize], 11);
    testing::Run r = compare({{protocol::code::kOpenFile, same}, {protocol::code::kOpenFile, other}, {protocol::code::kAbort}});
    EXPECT_EQ(r.result, 0);
    EXPECT_EQ(r.codes(), (std::vector<int>{0, 0xD5}));
    EXPECT_TRUE(home_.logHas("(ws_compare[OPENFILE]) File [big] size is changed (11 -> 10)"));
}

TEST_F(CompareStream, DeletingGroomingThatFindsNothingSendsNoReport) {
    makeFile("f", "data");
    ctx_.groomRecord.assign(24, 0);
    ctx_.groomRecord[12] = 0x04;
    testing::Run r = compare({{protocol::code::kOpenFile, record("f")}, {protocol::code::kEndf, {'D', 'a', 't', 'a'}},  // not "data"
                              {protocol::code::kEnd}});
    EXPECT_EQ(r.result, 0);
    EXPECT_EQ(r.codes(), (std::vector<int>{0, 0xDA, 3}));
    EXPECT_TRUE(home_.logHas("Total 0 files were deleted"));
    EXPECT_TRUE(std::ifstream(tree_ + "/f").good());
}

// Each packet as its code and length: 7:2048 for a full MOF, 8:n for the ENDF.
TEST_F(CompareStream, SendFileSendsFullPacketsThenOneShorterEnd) {
    const std::pair<size_t, std::vector<std::string>> cases[] = {
        {0, {"8:0"}}, {100, {"8:100"}}, {2048, {"7:2048", "8:0"}}, {5000, {"7:2048", "7:2048", "8:904"}}};
    for (const auto& [size, packets] : cases) {
        std::string content(size, '\0');
        for (size_t i = 0; i < size; ++i) content[i] = static_cast<char>('a' + i % 26);
        makeFile("work", content);
        int result = -5;
        std::vector<std::string> got;
        std::string joined;
        for (const Packet& p : sendFile(tree_ + "/work", result)) {
            got.push_back(std::to_string(p.code) + ":" + std::to_string(p.data.size()));
            joined.append(p.data.begin(), p.data.end());
        }
        EXPECT_EQ(result, 0);
        EXPECT_EQ(got, packets) << size;
        EXPECT_EQ(joined, content) << size;
    }
}

TEST_F(CompareStream, SendFileMissingUnreadableAndBrokenConnection) {
    int result = 0;
    EXPECT_TRUE(sendFile(tree_ + "/none", result).empty());
    EXPECT_EQ(result, -1);
    EXPECT_TRUE(home_.logHas("(sync_send_file) Faied to open " + tree_ + "/none (No such file or directory)"));

    // A directory opens but cannot be read: an empty ENDF never goes out, 103 does.
    std::vector<Packet> got = sendFile(tree_, result);
    EXPECT_EQ(result, 0);
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0].code, 103);
    EXPECT_TRUE(home_.logHas("(sync_send_file) Failed in reading file [" + tree_ + "] (Is a directory)"));

    makeFile("work", "0123456789");
    ::signal(SIGPIPE, SIG_IGN);
    testing::SocketPair pair;
    pair.closeServer();
    EXPECT_EQ(sync_send_file(pair.agent, (tree_ + "/work").c_str()), 100);
    ::signal(SIGPIPE, SIG_DFL);
    EXPECT_TRUE(home_.logHas("(sync_send_file) Send command [0x8] failed"));
}

}  // namespace
}  // namespace tavik::compare
