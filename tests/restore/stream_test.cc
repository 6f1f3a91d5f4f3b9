// ws_restore and the restore job process in a process of their own on one
// end of a socket pair: the test writes a whole command stream to the other
// end and reads every answer the agent sends, then the process's result.
// Covers what the end-to-end tests cannot arrange with a root daemon: a
// restore, and a job's path child, that are not run by root; links and
// devices that cannot be made; streams that break off.
#include <grp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "daemon/job_session.h"
#include "request/job_context.h"
#include "restore/agent_run.h"
#include "restore/ws_restore.h"

namespace tavik::restore {
namespace {

constexpr uid_t kNobody = 65534;
using Bytes = std::vector<uint8_t>;

// Drops root for `uid` (its group the same number), the group list first.
bool become(uid_t uid) { return ::setgroups(0, nullptr) == 0 && ::setgid(uid) == 0 && ::setuid(uid) == 0; }

protocol::RestoreAttributes attrs(const std::string& name, uint32_t mode, uint32_t uid = 0) {
    return {.mode = mode, .nlink = 1, .uid = uid, .gid = uid, .atime = 500000, .mtime = 600000, .name = name};
}

class StreamTest : public ::testing::Test {
protected:
    void SetUp() override {
        ::chmod(home_.dir().c_str(), 0777);  // for a restore run as another user
        ::chmod(paths().logDir.c_str(), 0777);
        ctx_.conflictPolicy = protocol::conflict_policy::kOverwrite;
        ctx_.serverVersion = 52;
    }
    std::string at(const std::string& name) const { return home_.dir() + "/" + name; }
    Bytes record(const std::string& name, uint32_t mode, uint32_t uid = 0) const {
        return protocol::encodeRestoreAttributes(attrs(at(name), mode, uid));
    }
    // ws_restore's result and answers, run as `asUser` (root when 0).
    testing::Run restore(const std::vector<testing::Packet>& stream, uid_t asUser = 0) {
        return testing::runAgent(testing::streamOf(stream), [&](int fd) {
            if (asUser != 0 && !become(asUser)) return 99;
            HardLinkTable links;
            links.reset();
            return ws_restore(fd, "/", ctx_, links, {::geteuid(), ::getegid()});
        });
    }

    testing::ScratchHome home_;
    JobContext ctx_;
};

TEST_F(StreamTest, ALoginsRestoreRefusesSpecialFilesAndReportsOwnersItCannotSet) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to run the restore as another user";
    testing::Run r = restore({{protocol::code::kOpenFile, record("fifo", 010644, kNobody)}, {protocol::code::kEndf},
                              {protocol::code::kOpenFile, record("dev", 020644, kNobody)}, {protocol::code::kMof, Bytes(100, 'z')},
                              {protocol::code::kEndf},
                              {protocol::code::kOpenFile, record("roots", 0100640, 0)}, {protocol::code::kEndf, Bytes(10, 'r')},
                              {protocol::code::kOpenFile, record("mine", 0104750, kNobody)}, {protocol::code::kEndf, Bytes(10, 'm')},
                              {protocol::code::kEnd}},
                             kNobody);
    EXPECT_EQ(r.result, 0);
    EXPECT_EQ(r.codes(), (std::vector<int>{'p', 'p', 'k', 0, 3}));
    struct stat st {};
    EXPECT_NE(::lstat(at("fifo").c_str(), &st), 0);  // nothing was made
    EXPECT_NE(::lstat(at("dev").c_str(), &st), 0);
    ASSERT_EQ(::lstat(at("roots").c_str(), &st), 0);
    EXPECT_EQ(st.st_uid, kNobody);
    ASSERT_EQ(::lstat(at("mine").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode, static_cast<mode_t>(0104750));
    EXPECT_EQ(st.st_mtime, 600000);
    EXPECT_TRUE(home_.logHas("(ws_restore[OPENFILE]) Only system administrator can restore special file"));
    EXPECT_TRUE(
        home_.logHas("(ws_restore[ENDF]) Failed to change owner for <" + at("roots") + "> (Operation not permitted)"));
}

TEST_F(StreamTest, AcknowledgesEveryMofAndAnswersLinksAndDevicesItCannotMake) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to make device nodes";
    ctx_.ackInterval = 1;
    protocol::RestoreAttributes first = attrs(at("first"), 0100600, 0);
    first.nlink = 2;
    first.ino = 5;
    protocol::RestoreAttributes second = first;
    second.name = at("second");
    // A character device of no driver cannot be opened for its raw data.
    protocol::RestoreAttributes dev = attrs(at("nodriver"), 020600, 0);
    dev.rdev = 240u << 18;  // major 240: reserved for local use, no driver here
    dev.size = 10;
    testing::Run r = restore({{protocol::code::kOpenFile, protocol::encodeRestoreAttributes(first)}, {protocol::code::kEndf, {'1'}},
                              {protocol::code::kUnlink},  // the first name goes again
                              {protocol::code::kOpenFile, protocol::encodeRestoreAttributes(second)}, {protocol::code::kEndf, {'2'}},
                              {protocol::code::kOpenFile, protocol::encodeRestoreAttributes(dev)}, {protocol::code::kEndf, Bytes(10, 'r')},
                              {protocol::code::kOpenFile, record("f", 0100600)}, {protocol::code::kMof, Bytes(2048, 'a')},
                              {protocol::code::kMof, Bytes(2048, 'b')}, {protocol::code::kEndf, Bytes(5, 'e')},
                              {protocol::code::kEnd}});
    EXPECT_EQ(r.result, 0);
    EXPECT_EQ(r.codes(), (std::vector<int>{0, 'o', 'x', 0, 0, 0, 3}));
    struct stat st {};
    ASSERT_EQ(::stat(at("f").c_str(), &st), 0);
    EXPECT_EQ(st.st_size, 2 * 2048 + 5);
    EXPECT_NE(::lstat(at("first").c_str(), &st), 0);
    EXPECT_NE(::lstat(at("second").c_str(), &st), 0);
    EXPECT_TRUE(home_.logHas("(postml) Can't create hardlink for <" + at("first") + "> & <" + at("second") +
                             "> (No such file or directory)"));
    EXPECT_TRUE(home_.logHas("(ws_restore[OPENFILE]) Faied to open " + at("nodriver")));
}

TEST_F(StreamTest, BrokenStreamsEndTheJobWith100) {
    const struct {
        const char* what;
        std::vector<testing::Packet> stream;
    } rows[] = {
        {"the connection ends without END", {{protocol::code::kOpenFile, record("g", 0100600, geteuid())}}},
        {"a record larger than any name could make it", {{protocol::code::kOpenFile, Bytes(48 + 4097, 'a')}}},
        {"a data payload above 2048 bytes",
         {{protocol::code::kOpenFile, record("h", 0100600, geteuid())}, {protocol::code::kEndf, Bytes(2049, 'x')}, {protocol::code::kEnd}}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        testing::Run r = restore(row.stream);
        EXPECT_EQ(r.result, 100);
        EXPECT_TRUE(r.packets.empty());
    }
    EXPECT_TRUE(home_.logHas("(GetReply) Failed to Receive Data Packet"));
}

// The restore job's path child that cannot take the login's identity is
// answered 119 for servers of version 50 or more and 105 for older ones.
// (A root the login can make is checked end to end.)
TEST_F(StreamTest, AJobsPathChildThatCannotSwitchGets119FromNewServersAnd105FromOld) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root: switches to another user id";
    startupSettings() = Settings{};
    JobContext job;
    prepareForConnection(job);
    job.request.raw[protocol::request_layout::kOpModeAt] = protocol::kOpRestore;
    job.jobUser = JobUser{true, "nobody", kNobody, kNobody};
    job.jobRoot = at("dest");
    for (int version : {50, 52, 49}) {
        job.serverVersion = static_cast<int8_t>(version);
        // An unprivileged job process's child cannot set its group list.
        testing::Run r = testing::runAgent({}, [&](int fd) {
            if (!become(kNobody)) return 3;
            listener().jobSocket = fd;
            serveJob(job);
            return 0;
        });
        ASSERT_FALSE(r.packets.empty()) << version;
        EXPECT_EQ(r.packets[0].code, version >= 50 ? 119 : 105) << version;
    }
    struct stat st {};
    EXPECT_NE(::stat(at("dest").c_str(), &st), 0);
}

}  // namespace
}  // namespace tavik::restore
