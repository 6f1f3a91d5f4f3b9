// ws_restore and the restore job process in a process of their own on one
// end of a socket pair: the test writes a whole command stream to the other
// end and reads every answer the agent sends, then the process's result.
// Covers what the end-to-end tests cannot arrange with a root daemon: a
// restore, and a job's path child, that are not run by root.
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

class StreamTest : public ::testing::Test {
protected:
    void SetUp() override {
        testing::openToAnyone(home_);
        ctx_.conflictPolicy = kPolicyOverwrite;
        ctx_.serverVersion = 52;
    }
    std::string at(const std::string& name) const { return home_.dir() + "/" + name; }
    Bytes record(const std::string& name, uint32_t mode, uint32_t uid = 0) const {
        return encodeRestoreAttributes(attrs(at(name), mode, uid));
    }
    // ws_restore's result and answers, run as `asUser` (root when 0).
    testing::Run restore(const std::vector<testing::Packet>& stream, uid_t asUser = 0) {
        return testing::runAgent(testing::streamOf(stream), [&](int fd) {
            if (asUser != 0 && !testing::becomeUser(asUser)) return 99;
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
    testing::Run r = restore({{command::kOpenFile, record("fifo", 010644, kNobody)},
                              {command::kEndf},
                              {command::kOpenFile, record("dev", 020644, kNobody)},
                              {command::kMof, Bytes(100, 'z')},
                              {command::kEndf},
                              {command::kOpenFile, record("roots", 0100640, 0)},
                              {command::kEndf, Bytes(10, 'r')},
                              {command::kOpenFile, record("mine", 0104750, kNobody)},
                              {command::kEndf, Bytes(10, 'm')},
                              {command::kEnd}},
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
    EXPECT_TRUE(home_.logHas("(ws_restore[ENDF]) Failed to change owner for <" + at("roots") + "> (Operation not permitted)"));
}

TEST_F(StreamTest, EveryMofIsAcknowledgedWithIntervalOne) {
    ctx_.ackInterval = 1;
    std::vector<testing::Packet> s = {{command::kOpenFile, record("f", 0100600, geteuid())}};
    for (int i = 0; i < 3; ++i) s.push_back({command::kMof, Bytes(2048, static_cast<uint8_t>('a' + i))});
    s.push_back({command::kEndf, Bytes(5, 'e')});
    s.push_back({command::kEnd});
    testing::Run r = restore(s);
    EXPECT_EQ(r.result, 0);
    EXPECT_EQ(r.codes(), (std::vector<int>{0, 0, 0, 0, 3}));
    struct stat st {};
    ASSERT_EQ(::stat(at("f").c_str(), &st), 0);
    EXPECT_EQ(st.st_size, 3 * 2048 + 5);
}

TEST_F(StreamTest, LinksThatCannotBeMadeAndDevicesThatCannotBeOpened) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to make device nodes";
    RestoreAttributes first = attrs(at("first"), 0100600, 0);
    first.nlink = 2;
    first.ino = 5;
    RestoreAttributes second = first;
    second.name = at("second");
    // A character device of no driver cannot be opened for its raw data.
    RestoreAttributes dev = attrs(at("nodriver"), 020600, 0);
    dev.rdev = 240u << 18;  // major 240: reserved for local use, no driver here
    dev.size = 10;
    testing::Run r = restore({{command::kOpenFile, encodeRestoreAttributes(first)},
                              {command::kEndf, {'1'}},
                              {command::kUnlink},  // the first name goes again
                              {command::kOpenFile, encodeRestoreAttributes(second)},
                              {command::kEndf, {'2'}},
                              {command::kOpenFile, encodeRestoreAttributes(dev)},
                              {command::kEndf, Bytes(10, 'r')},
                              {command::kEnd}});
    EXPECT_EQ(r.result, 0);
    EXPECT_EQ(r.codes(), (std::vector<int>{0, 'o', 'x', 3}));
    struct stat st {};
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
        {"the connection ends without END", {{command::kOpenFile, record("g", 0100600, geteuid())}}},
        {"a record larger than any name could make it", {{command::kOpenFile, Bytes(48 + 4097, 'a')}}},
        {"a data payload above 2048 bytes",
         {{command::kOpenFile, record("h", 0100600, geteuid())}, {command::kEndf, Bytes(2049, 'x')}, {command::kEnd}}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        testing::Run r = restore(row.stream);
        EXPECT_EQ(r.result, 100);
        EXPECT_TRUE(r.packets.empty());
    }
    EXPECT_TRUE(home_.logHas("(GetReply) Failed to Receive Data Packet"));
}

// The restore job's preparation: the path child that cannot take the login's
// identity is answered 119 for servers of version 50 or more and 105 for
// older ones; a root that can be made is made by the login and answered 4.
TEST_F(StreamTest, TheJobsPathChildRunsAsTheLoginOrTheJobIsRefused) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root: switches to another user id";
    settings() = Settings{};
    JobContext job;
    prepareForConnection(job);
    job.request.raw[request_layout::kOpModeAt] = kOpRestore;
    job.jobUser = JobUser{true, "nobody", kNobody, kNobody};
    job.jobRoot = at("dest");
    // The first answer of a restore job process that runs as `asUser`.
    auto serve = [&](int version, uid_t asUser) {
        job.serverVersion = static_cast<int8_t>(version);
        testing::Run r = testing::runAgent({}, [&](int fd) {
            if (asUser != 0 && !testing::becomeUser(asUser)) return 3;
            listener().jobSocket = fd;
            serveJob(job);
            return 0;
        });
        return r.packets.empty() ? -1 : r.packets[0].code;
    };
    // An unprivileged job process's child cannot set its group list.
    EXPECT_EQ(serve(50, kNobody), 119);
    EXPECT_EQ(serve(52, kNobody), 119);
    EXPECT_EQ(serve(49, kNobody), 105);
    EXPECT_TRUE(home_.logHas("(chuid) Failed to initialize the group access list in initgroups(nobody,65534) ("));
    struct stat st {};
    EXPECT_NE(::stat(at("dest").c_str(), &st), 0);

    EXPECT_EQ(serve(52, 0), 4);
    ASSERT_EQ(::stat(at("dest").c_str(), &st), 0);
    EXPECT_EQ(st.st_uid, kNobody);
    EXPECT_TRUE(home_.logHas("Start Restore Job From (), Destination = " + at("dest")));
}

}  // namespace
}  // namespace tavik::restore
