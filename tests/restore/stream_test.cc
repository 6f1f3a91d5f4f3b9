// ws_restore in a process of its own on one end of a socket pair: the test
// writes a whole command stream to the other end and reads every answer the
// agent sends, then the process's result. Covers what the end-to-end tests
// cannot arrange with a root daemon: a restore that is not run by root.
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "daemon/scratch_home.h"
#include "daemon/state.h"
#include "restore/ws_restore.h"
#include "transport/packet.h"

namespace tavik::restore {
namespace {

constexpr uid_t kNobody = 65534;

void add(std::vector<uint8_t>& stream, int8_t code, const std::vector<uint8_t>& payload = {}) {
    transport::PacketHeader h;
    h.code = code;
    h.length = static_cast<uint16_t>(payload.size());
    transport::HeaderBytes bytes = transport::encodeHeader(h);
    stream.insert(stream.end(), bytes.begin(), bytes.end());
    stream.insert(stream.end(), payload.begin(), payload.end());
}

RestoreAttributes attrs(const std::string& name, uint32_t mode, uint32_t uid = 0) {
    RestoreAttributes a;
    a.name = name;
    a.mode = mode;
    a.nlink = 1;
    a.uid = uid;
    a.gid = uid;
    a.atime = 500000;
    a.mtime = 600000;
    return a;
}

struct Outcome {
    int result = -1;                  // ws_restore's result (the child's exit status)
    std::vector<int> answers;         // the code byte of every answer, 0..255
};

Outcome runStream(const std::vector<uint8_t>& stream, JobContext ctx, uid_t asUser = 0) {
    Outcome out;
    testing::SocketPair pair;
    ::signal(SIGCHLD, SIG_DFL);  // the child's status is collected below
    pid_t child = ::fork();
    if (child == 0) {
        pair.closeServer();
        if (asUser != 0 && (::setgid(asUser) != 0 || ::setuid(asUser) != 0)) ::_exit(99);
        HardLinkTable links;
        links.reset();
        ::_exit(ws_restore(pair.agent, "/", ctx, links, {::geteuid(), ::getegid()}));
    }
    pair.closeAgent();
    size_t sent = 0;
    while (sent < stream.size()) {
        ssize_t n = ::send(pair.server, stream.data() + sent, stream.size() - sent, MSG_NOSIGNAL);
        if (n <= 0) break;
        sent += static_cast<size_t>(n);
    }
    ::shutdown(pair.server, SHUT_WR);
    uint8_t header[8];
    size_t got = 0;
    for (;;) {
        ssize_t n = ::recv(pair.server, header + got, sizeof header - got, 0);
        if (n <= 0) break;
        got += static_cast<size_t>(n);
        if (got == sizeof header) {
            out.answers.push_back(header[2]);
            got = 0;
        }
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    out.result = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return out;
}

class StreamTest : public ::testing::Test {
protected:
    void SetUp() override {
        ::chmod(home_.dir().c_str(), 0777);
        ::chmod(paths().logDir.c_str(), 0777);
        ctx_.conflictPolicy = kPolicyOverwrite;
        ctx_.serverVersion = 52;
    }
    std::string at(const std::string& name) const { return home_.dir() + "/" + name; }

    testing::ScratchHome home_;
    JobContext ctx_;
};

TEST_F(StreamTest, ALoginsRestoreRefusesSpecialFilesAndReportsOwnersItCannotSet) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to run the restore as another user";
    std::vector<uint8_t> s;
    add(s, command::kOpenFile, encodeRestoreAttributes(attrs(at("fifo"), 010644, kNobody)));
    add(s, command::kEndf);
    add(s, command::kOpenFile, encodeRestoreAttributes(attrs(at("dev"), 020644, kNobody)));
    add(s, command::kMof, std::vector<uint8_t>(100, 'z'));
    add(s, command::kEndf);
    add(s, command::kOpenFile, encodeRestoreAttributes(attrs(at("roots"), 0100640, 0)));
    add(s, command::kEndf, std::vector<uint8_t>(10, 'r'));
    add(s, command::kOpenFile, encodeRestoreAttributes(attrs(at("mine"), 0104750, kNobody)));
    add(s, command::kEndf, std::vector<uint8_t>(10, 'm'));
    add(s, command::kEnd);
    Outcome o = runStream(s, ctx_, kNobody);
    EXPECT_EQ(o.result, 0);
    EXPECT_EQ(o.answers, (std::vector<int>{'p', 'p', 'k', 0, 3}));
    struct stat st {};
    EXPECT_NE(::lstat(at("fifo").c_str(), &st), 0);  // nothing was made
    EXPECT_NE(::lstat(at("dev").c_str(), &st), 0);
    ASSERT_EQ(::lstat(at("roots").c_str(), &st), 0);
    EXPECT_EQ(st.st_uid, kNobody);
    ASSERT_EQ(::lstat(at("mine").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode, static_cast<mode_t>(0104750));
    EXPECT_EQ(st.st_mtime, 600000);
    EXPECT_TRUE(home_.logHas("(ws_restore[OPENFILE]) Only system administrator can restore special file"));
    EXPECT_TRUE(home_.logHas("(ws_restore[ENDF]) Failed to change owner for <" + at("roots") + "> (Operation not permitted)"));
}

TEST_F(StreamTest, EveryMofIsAcknowledgedWithIntervalOne) {
    ctx_.ackInterval = 1;
    std::vector<uint8_t> s;
    add(s, command::kOpenFile, encodeRestoreAttributes(attrs(at("f"), 0100600, geteuid())));
    for (int i = 0; i < 3; ++i) add(s, command::kMof, std::vector<uint8_t>(2048, static_cast<uint8_t>('a' + i)));
    add(s, command::kEndf, std::vector<uint8_t>(5, 'e'));
    add(s, command::kEnd);
    Outcome o = runStream(s, ctx_);
    EXPECT_EQ(o.result, 0);
    EXPECT_EQ(o.answers, (std::vector<int>{0, 0, 0, 0, 3}));
    struct stat st {};
    ASSERT_EQ(::stat(at("f").c_str(), &st), 0);
    EXPECT_EQ(st.st_size, 3 * 2048 + 5);
}

TEST_F(StreamTest, LinksThatCannotBeMadeAndDevicesThatCannotBeOpened) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to make device nodes";
    std::vector<uint8_t> s;
    RestoreAttributes first = attrs(at("first"), 0100600, 0);
    first.nlink = 2;
    first.ino = 5;
    add(s, command::kOpenFile, encodeRestoreAttributes(first));
    add(s, command::kEndf, {'1'});
    add(s, command::kUnlink);  // the first name goes again
    RestoreAttributes second = first;
    second.name = at("second");
    add(s, command::kOpenFile, encodeRestoreAttributes(second));
    add(s, command::kEndf, {'2'});
    // A character device of no driver cannot be opened for its raw data.
    RestoreAttributes dev = attrs(at("nodriver"), 020600, 0);
    dev.rdev = 240u << 18;  // major 240: reserved for local use, no driver here
    dev.size = 10;
    add(s, command::kOpenFile, encodeRestoreAttributes(dev));
    add(s, command::kEndf, std::vector<uint8_t>(10, 'r'));
    add(s, command::kEnd);
    Outcome o = runStream(s, ctx_);
    EXPECT_EQ(o.result, 0);
    EXPECT_EQ(o.answers, (std::vector<int>{0, 'o', 'x', 3}));
    struct stat st {};
    EXPECT_NE(::lstat(at("first").c_str(), &st), 0);
    EXPECT_NE(::lstat(at("second").c_str(), &st), 0);
    EXPECT_TRUE(home_.logHas("(postml) Can't create hardlink for <" + at("first") + "> & <" + at("second") + ">"));
    EXPECT_TRUE(home_.logHas("(ws_restore[OPENFILE]) Faied to open " + at("nodriver")));
}

TEST_F(StreamTest, BrokenStreamsEndTheJobWith100) {
    {  // the connection ends without END
        std::vector<uint8_t> s;
        add(s, command::kOpenFile, encodeRestoreAttributes(attrs(at("g"), 0100600, geteuid())));
        Outcome o = runStream(s, ctx_);
        EXPECT_EQ(o.result, 100);
        EXPECT_TRUE(o.answers.empty());
    }
    {  // a record larger than any name could make it
        std::vector<uint8_t> s;
        add(s, command::kOpenFile, std::vector<uint8_t>(48 + 4097, 'a'));
        EXPECT_EQ(runStream(s, ctx_).result, 100);
    }
    {  // a data payload above 2048 bytes
        std::vector<uint8_t> s;
        add(s, command::kOpenFile, encodeRestoreAttributes(attrs(at("h"), 0100600, geteuid())));
        add(s, command::kEndf, std::vector<uint8_t>(2049, 'x'));
        add(s, command::kEnd);
        Outcome o = runStream(s, ctx_);
        EXPECT_EQ(o.result, 100);
        EXPECT_TRUE(o.answers.empty());
    }
    EXPECT_TRUE(home_.logHas("(GetReply) Failed to Receive Data Packet"));
}

}  // namespace
}  // namespace tavik::restore
