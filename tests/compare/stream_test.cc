// ws_compare in a process of its own on one end of a socket pair, working in
// a scratch directory: the test writes a whole command stream to the other
// end and reads every packet the agent sends back. Covers the damaged
// streams the front-end client would never send, sizes beyond 32 bits, and
// sync_send_file's packets.
#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <vector>

#include "compare/ws_compare.h"
#include "daemon/scratch_home.h"
#include "daemon/state.h"
#include "platform/wire_stat.h"
#include "restore/restore_record.h"
#include "transport/packet.h"
#include "wire/bytes.h"

namespace tavik::compare {
namespace {

using restore::RestoreAttributes;
namespace command = restore::command;

void add(std::vector<uint8_t>& stream, int8_t code, const std::vector<uint8_t>& payload = {}) {
    transport::PacketHeader h;
    h.code = code;
    h.length = static_cast<uint16_t>(payload.size());
    transport::HeaderBytes bytes = transport::encodeHeader(h);
    stream.insert(stream.end(), bytes.begin(), bytes.end());
    stream.insert(stream.end(), payload.begin(), payload.end());
}

// A record for `name` with the attributes the disk shows now.
std::vector<uint8_t> recordOf(const std::string& dir, const std::string& name) {
    struct stat st {};
    ::lstat((dir + "/" + name).c_str(), &st);
    RestoreAttributes a;
    a.name = name;
    a.mode = st.st_mode;
    a.nlink = static_cast<uint32_t>(st.st_nlink);
    a.uid = st.st_uid;
    a.gid = st.st_gid;
    a.mtime = platform::wireTime(st.st_mtime);
    a.size = platform::wireSize(st.st_size);
    return restore::encodeRestoreAttributes(a);
}

// A record whose name field is `nameBytes` bytes of 'n' and then a NUL.
std::vector<uint8_t> longNameRecord(size_t nameBytes) {
    std::vector<uint8_t> r(restore::kRecName + nameBytes + 1, 0);
    std::fill(r.begin() + restore::kRecName, r.end() - 1, 'n');
    return r;
}

struct Packet {
    int code = 0;
    std::string data;
};

struct Outcome {
    int result = -1;              // ws_compare's result (the child's exit status)
    std::vector<Packet> packets;  // everything the agent sent, as packets
    std::vector<int> codes() const {
        std::vector<int> out;
        for (const Packet& p : packets) out.push_back(p.code);
        return out;
    }
};

std::string drain(int fd) {
    std::string all;
    char buf[4096];
    for (;;) {
        ssize_t n = ::recv(fd, buf, sizeof buf, 0);
        if (n <= 0) break;
        all.append(buf, static_cast<size_t>(n));
    }
    return all;
}

std::vector<Packet> packetsOf(const std::string& bytes) {
    std::vector<Packet> out;
    size_t pos = 0;
    while (bytes.size() - pos >= transport::kHeaderSize) {
        Packet p;
        p.code = static_cast<uint8_t>(bytes[pos + 2]);
        size_t length = wire::loadLe16(reinterpret_cast<const uint8_t*>(bytes.data()) + pos + 6);
        pos += transport::kHeaderSize;
        length = std::min(length, bytes.size() - pos);
        p.data = bytes.substr(pos, length);
        pos += length;
        out.push_back(p);
    }
    return out;
}

Outcome runStream(const std::vector<uint8_t>& stream, const JobContext& ctx, const std::string& root) {
    Outcome out;
    testing::SocketPair pair;
    ::signal(SIGCHLD, SIG_DFL);
    pid_t child = ::fork();
    if (child == 0) {
        pair.closeServer();
        if (::chdir(root.c_str()) != 0) ::_exit(99);
        ::_exit(ws_compare(pair.agent, root + "/", ctx));
    }
    pair.closeAgent();
    size_t sent = 0;
    while (sent < stream.size()) {
        ssize_t n = ::send(pair.server, stream.data() + sent, stream.size() - sent, MSG_NOSIGNAL);
        if (n <= 0) break;
        sent += static_cast<size_t>(n);
    }
    ::shutdown(pair.server, SHUT_WR);
    out.packets = packetsOf(drain(pair.server));
    int status = 0;
    ::waitpid(child, &status, 0);
    out.result = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return out;
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

    testing::ScratchHome home_;
    std::string tree_;
    JobContext ctx_;
};

TEST_F(CompareStream, OverlongNamesAreAnsweredAsObjectsThatCannotBeExamined) {
    makeFile("f", "data");
    std::vector<uint8_t> s;
    add(s, command::kOpenFile, longNameRecord(1024));
    add(s, command::kMof, std::vector<uint8_t>(2048, 'x'));
    add(s, command::kEndf, std::vector<uint8_t>(10, 'x'));
    add(s, command::kMkdir, longNameRecord(4000));
    add(s, command::kOpenFile, longNameRecord(1023));  // fits the buffer; too long for the system
    add(s, command::kEndf);
    add(s, command::kOpenFile, recordOf(tree_, "f"));  // the stream goes on
    add(s, command::kEndf, {'d', 'a', 't', 'a'});
    add(s, command::kEndf);  // no file to end: nothing is compared
    add(s, command::kEnd);
    Outcome o = runStream(s, ctx_, tree_);
    EXPECT_EQ(o.result, 0);
    EXPECT_EQ(o.codes(), (std::vector<int>{0xD2, 0, 0xD3, 0xD2, 0, 0, 0, 0, 3}));
    EXPECT_TRUE(home_.logHas("(ws_compare[OPENFILE]) Failed to get the attributes (lstat) of " + std::string(100, 'n') +
                             "... (File name too long)"));
    EXPECT_TRUE(home_.logHas("(ws_compare[MKDIR]) Failed to get the attributes (stat) of " + std::string(100, 'n') +
                             "... (File name too long)"));
}

TEST_F(CompareStream, OversizedPacketsEndTheJobWithCode100) {
    makeFile("f", std::string(5000, 'a'));
    {  // a data payload larger than one packet may carry
        std::vector<uint8_t> s;
        add(s, command::kOpenFile, recordOf(tree_, "f"));
        add(s, command::kMof, std::vector<uint8_t>(2049, 'a'));
        add(s, command::kEnd);
        Outcome o = runStream(s, ctx_, tree_);
        EXPECT_EQ(o.result, 0);
        EXPECT_EQ(o.codes(), (std::vector<int>{0, 100}));
    }
    {  // a record larger than the record area
        std::vector<uint8_t> s;
        add(s, command::kOpenFile, longNameRecord(60000));
        add(s, command::kEnd);
        Outcome o = runStream(s, ctx_, tree_);
        EXPECT_EQ(o.result, 0);
        EXPECT_EQ(o.codes(), (std::vector<int>{100}));
    }
    {  // a stream that stops in a header
        std::vector<uint8_t> s;
        add(s, command::kOpenFile, recordOf(tree_, "f"));
        s.resize(s.size() + 3, 0);
        Outcome o = runStream(s, ctx_, tree_);
        EXPECT_EQ(o.codes(), (std::vector<int>{0, 100}));
    }
    EXPECT_TRUE(home_.logHas("(GetReply) Failed to Receive"));
}

TEST_F(CompareStream, LargeFilesCompareByTheLow32BitsOfTheirSize) {
    std::string big = tree_ + "/big";
    int fd = ::open(big.c_str(), O_WRONLY | O_CREAT, 0644);
    ASSERT_GE(fd, 0);
    const off_t size = (off_t{1} << 32) + 10;
    if (::ftruncate(fd, size) != 0) {
        ::close(fd);
        GTEST_SKIP() << "no sparse files of 4 GiB here";
    }
    ::close(fd);
    std::vector<uint8_t> record = recordOf(tree_, "big");
    EXPECT_EQ(wire::loadLe32(&record[restore::kRecSize]), 10u);
    std::vector<uint8_t> s;
    add(s, command::kOpenFile, record);
    wire::storeLe32(&record[restore::kRecSize], 11);
    add(s, command::kOpenFile, record);
    add(s, command::kAbort);
    Outcome o = runStream(s, ctx_, tree_);
    EXPECT_EQ(o.result, 0);
    EXPECT_EQ(o.codes(), (std::vector<int>{0, 0xD5}));
    EXPECT_TRUE(home_.logHas("(ws_compare[OPENFILE]) File [big] size is changed (11 -> 10)"));
}

TEST_F(CompareStream, DeletingGroomingThatFindsNothingSendsNoReport) {
    makeFile("f", "data");
    ctx_.groomRecord.assign(24, 0);
    ctx_.groomRecord[12] = 0x04;
    std::vector<uint8_t> s;
    add(s, command::kOpenFile, recordOf(tree_, "f"));
    add(s, command::kEndf, {'D', 'a', 't', 'a'});
    add(s, command::kEnd);
    Outcome o = runStream(s, ctx_, tree_);
    EXPECT_EQ(o.result, 0);
    EXPECT_EQ(o.codes(), (std::vector<int>{0, 0xDA, 3}));
    EXPECT_TRUE(home_.logHas("Total 0 files were deleted"));
    std::ifstream probe(tree_ + "/f");
    EXPECT_TRUE(probe.good());
}

class SendFile : public ::testing::Test {
protected:
    std::vector<Packet> send(const std::string& path, int& result) {
        testing::SocketPair pair;
        int big = 1 << 20;
        ::setsockopt(pair.agent, SOL_SOCKET, SO_SNDBUF, &big, sizeof big);
        result = sync_send_file(pair.agent, path.c_str());
        pair.closeAgent();
        return packetsOf(drain(pair.server));
    }
    void makeFile(const std::string& name, size_t size) {
        std::string content(size, '\0');
        for (size_t i = 0; i < size; ++i) content[i] = static_cast<char>('a' + i % 26);
        std::ofstream(home_.dir() + "/" + name, std::ios::binary) << content;
    }
    testing::ScratchHome home_;
};

TEST_F(SendFile, FullPacketsThenOneShorterEnd) {
    struct Case {
        size_t size;
        std::vector<std::pair<int, size_t>> packets;  // code, length
    };
    const Case cases[] = {
        {0, {{8, 0}}},
        {100, {{8, 100}}},
        {2048, {{7, 2048}, {8, 0}}},
        {4096, {{7, 2048}, {7, 2048}, {8, 0}}},
        {5000, {{7, 2048}, {7, 2048}, {8, 904}}},
    };
    for (const Case& c : cases) {
        makeFile("work", c.size);
        int result = -5;
        std::vector<Packet> got = send(home_.dir() + "/work", result);
        EXPECT_EQ(result, 0) << c.size;
        ASSERT_EQ(got.size(), c.packets.size()) << c.size;
        std::string joined;
        for (size_t i = 0; i < got.size(); ++i) {
            EXPECT_EQ(got[i].code, c.packets[i].first) << c.size;
            EXPECT_EQ(got[i].data.size(), c.packets[i].second) << c.size;
            joined += got[i].data;
        }
        std::ifstream in(home_.dir() + "/work", std::ios::binary);
        EXPECT_EQ(joined, std::string(std::istreambuf_iterator<char>(in), {})) << c.size;
    }
}

TEST_F(SendFile, MissingUnreadableAndBrokenConnection) {
    int result = 0;
    EXPECT_TRUE(send(home_.dir() + "/none", result).empty());
    EXPECT_EQ(result, -1);
    EXPECT_TRUE(home_.logHas("(sync_send_file) Faied to open " + home_.dir() + "/none (No such file or directory)"));

    // A directory opens but cannot be read: an empty ENDF never goes out, 103 does.
    std::vector<Packet> got = send(home_.dir(), result);
    EXPECT_EQ(result, 0);
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0].code, 103);
    EXPECT_TRUE(home_.logHas("(sync_send_file) Failed in reading file [" + home_.dir() + "] (Is a directory)"));

    makeFile("work", 10);
    ::signal(SIGPIPE, SIG_IGN);
    testing::SocketPair pair;
    pair.closeServer();
    EXPECT_EQ(sync_send_file(pair.agent, (home_.dir() + "/work").c_str()), 100);
    ::signal(SIGPIPE, SIG_DFL);
    EXPECT_TRUE(home_.logHas("(sync_send_file) Send command [0x8] failed"));
}

}  // namespace
}  // namespace tavik::compare
