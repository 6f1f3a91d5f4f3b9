// Jobs on a real daemon, driven by the front-end's job client: real logins
// (a test user made with useradd and chpasswd), host equivalence, single-user
// mode, the identity the job process runs with, every refusal code the
// daemon answers, the whole command phase, and callers that break off.
#include <grp.h>
#include <pwd.h>
#include <shadow.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "e2e/backup_stream_reader.h"
#include "e2e/daemon_fixture.h"
#include "e2e/test_user.h"
#include "frontend/job_client.h"

namespace {

using tavik::frontend::JobClient;
using tavik::frontend::RequestFields;
using tavik::frontend::kNoAnswer;
using tavik::test::Daemon;

using tavik::test::kPassword;
using tavik::test::TestUser;

// A directory tree for job roots, readable by everyone down to its top.
class Scratch {
public:
    Scratch() {
        char tmpl[] = "/tmp/tavik-e2e-root-XXXXXX";
        if (mkdtemp(tmpl)) dir_ = tmpl;
        chmod(dir_.c_str(), 0755);
    }
    ~Scratch() { std::system(("rm -rf '" + dir_ + "'").c_str()); }
    std::string make(const std::string& name, mode_t mode, gid_t gid = 0) const {
        std::string path = dir_ + "/" + name;
        mkdir(path.c_str(), 0700);
        chown(path.c_str(), 0, gid);
        chmod(path.c_str(), mode);
        return path;
    }
    const std::string& dir() const { return dir_; }

private:
    std::string dir_;
};

#define REQUIRE_ROOT()                                                            \
    do {                                                                          \
        if (geteuid() != 0) GTEST_SKIP() << "needs root: creates a test login"; \
    } while (0)

class JobSessionTest : public ::testing::Test {
protected:
    bool startDaemon(std::vector<std::string> args = {"-v"}) {
        if (!daemon_.start(args, {{"TAVIK_TIME_DIVISOR", "1000"}})) return false;
        // Job processes run as the login and still write the shared log.
        chmod(daemon_.home().c_str(), 0755);
        return true;
    }
    RequestFields fields(const TestUser& user, const std::string& root, uint8_t opMode = 2) const {
        RequestFields s;
        s.root = root;
        s.login = user.name();
        s.password = kPassword;
        s.opMode = opMode;
        s.acceptEA = 'e';  // password check even from an equivalent host
        return s;
    }
    int ask(const RequestFields& s) {
        client_.close();
        if (!client_.connect("127.0.0.1", daemon_.port())) return kNoAnswer;
        return client_.request(s);
    }
    // After the last answer the job process ends and closes the connection.
    bool agentCloses() { return client_.readAnswer() == kNoAnswer; }

    Daemon daemon_;
    JobClient client_;
};

TEST_F(JobSessionTest, RightPasswordReachesReadyAndTheStartCommand) {
    REQUIRE_ROOT();
    TestUser user;
    ASSERT_TRUE(user.ok());
    EXPECT_EQ(user.shadowHash().rfind("$y$", 0), 0u) << "Debian's default hash is yescrypt";
    ASSERT_TRUE(startDaemon({"-v", "-a", "10"}));
    RequestFields s = fields(user, user.home(), 7);
    ASSERT_EQ(ask(s), 4) << client_.lastError();
    EXPECT_EQ(client_.lastVersion(), 52);
    EXPECT_EQ(client_.lastValue(), 10);  // the -a interval is offered
    ASSERT_TRUE(client_.start(3));
    EXPECT_TRUE(agentCloses());
    EXPECT_TRUE(daemon_.waitForLog("RCV_OK: AckCount=3"));
    std::string log = daemon_.log();
    EXPECT_NE(log.find("Start Compare Job From localhost(" + user.name() + "), Destination = " + user.home()),
              std::string::npos);
    EXPECT_EQ(log.find(kPassword), std::string::npos);
}

TEST_F(JobSessionTest, NonBlockingIoServesTheWholeExchange) {
    REQUIRE_ROOT();
    TestUser user;
    ASSERT_TRUE(user.ok());
    ASSERT_TRUE(startDaemon({"-v", "-s", "nonblocking"}));
    ASSERT_EQ(ask(fields(user, user.home(), 0)), 4);
    std::array<uint8_t, 512> options{};
    ASSERT_TRUE(client_.sendRaw(options));
    EXPECT_EQ(client_.diskItem({"a"}), 4);
    ASSERT_TRUE(client_.start(2));
    // The backup of the login's home runs and ends with END.
    tavik::test::BackupStreamReader reader(dup(client_.fd()));
    client_.close();
    reader.acknowledgeEvery(2);
    EXPECT_TRUE(reader.readUntilEnd()) << reader.error();
    EXPECT_TRUE(daemon_.waitForLog("RCV_OK: AckCount=2"));
    // The non-blocking receive traces every call on standard output.
    EXPECT_NE(tavik::test::readFile(daemon_.home() + "launcher.out").find("(nonblockRecv)  connfd="),
              std::string::npos);
}

TEST_F(JobSessionTest, Sha512PasswordsWorkToo) {
    REQUIRE_ROOT();
    TestUser user("SHA512");
    ASSERT_TRUE(user.ok());
    EXPECT_EQ(user.shadowHash().rfind("$6$", 0), 0u);
    ASSERT_TRUE(startDaemon());
    EXPECT_EQ(ask(fields(user, user.home())), 4);
}

TEST_F(JobSessionTest, WrongPasswordGets113) {
    REQUIRE_ROOT();
    TestUser user;
    ASSERT_TRUE(user.ok());
    ASSERT_TRUE(startDaemon());
    RequestFields s = fields(user, user.home());
    s.password = "wrong";
    EXPECT_EQ(ask(s), 113);
    EXPECT_TRUE(agentCloses());
    EXPECT_TRUE(daemon_.waitForLog("(ckpasswd) Incorrect password"));
    // The daemon goes on serving: the right password is admitted.
    EXPECT_EQ(ask(fields(user, user.home())), 4);
}

TEST_F(JobSessionTest, UnknownUserGets115FromNewServersAnd113FromOld) {
    REQUIRE_ROOT();
    ASSERT_TRUE(startDaemon());
    RequestFields s;
    s.root = "/tmp";
    s.login = "tvk-nobody-here";
    s.password = "x";
    s.serverVersion = 50;  // the digit "2"
    EXPECT_EQ(ask(s), 115);
    s.serverVersion = 49;  // the digit "1"
    EXPECT_EQ(ask(s), 113);
    EXPECT_TRUE(daemon_.waitForLog("(ckpasswd) User tvk-nobody-here is not defined in the password file"));
}

TEST_F(JobSessionTest, LoginMissingFromTheShadowFileGets115Or113) {
    REQUIRE_ROOT();
    TestUser user;
    ASSERT_TRUE(user.ok());
    ASSERT_TRUE(user.hideFromShadow());
    ASSERT_TRUE(startDaemon());
    RequestFields s = fields(user, user.home());
    s.serverVersion = 50;
    EXPECT_EQ(ask(s), 115);
    s.serverVersion = 49;
    EXPECT_EQ(ask(s), 113);
    EXPECT_TRUE(daemon_.waitForLog("(ckpasswd) User " + user.name() + " is not defined in the shadow file"));
}

TEST_F(JobSessionTest, HostEquivalenceAdmitsWithoutPasswordUnlessAcceptEaIsE) {
    REQUIRE_ROOT();
    TestUser user;
    ASSERT_TRUE(user.ok());
    user.trustHost("localhost");
    ASSERT_TRUE(startDaemon());
    RequestFields s = fields(user, user.home());
    s.password = "wrong";
    s.acceptEA = 0;
    EXPECT_EQ(ask(s), 4);
    s.acceptEA = 'e';
    EXPECT_EQ(ask(s), 113);
}

TEST_F(JobSessionTest, SingleUserModeAdmitsAnyoneAndRunsAsTheDaemonsUser) {
    REQUIRE_ROOT();
    Scratch scratch;
    std::string rootOnly = scratch.make("rootonly", 0700);
    ASSERT_TRUE(startDaemon({"-v", "-S"}));
    RequestFields s;
    s.root = rootOnly;
    s.login = "tvk-nobody-here";
    s.password = "anything";
    s.opMode = 2;
    EXPECT_EQ(ask(s), 4);  // a login's job could not enter a root-only directory
    EXPECT_TRUE(daemon_.waitForLog("Will operate in single user mode"));
}

TEST_F(JobSessionTest, JobRunsWithTheLoginsUidGidAndGroups) {
    REQUIRE_ROOT();
    TestUser user("", true);
    ASSERT_TRUE(user.ok());
    Scratch scratch;
    std::string rootOnly = scratch.make("rootonly", 0700);
    std::string viaPrimary = scratch.make("primary", 0750, user.gid());
    std::string viaGroup = scratch.make("group", 0750, user.groupId());
    ASSERT_TRUE(startDaemon());

    // Backup: root could read it, the login cannot.
    EXPECT_EQ(ask(fields(user, rootOnly, 0)), 118);
    EXPECT_TRUE(daemon_.waitForLog("Failed to Access Directory [" + rootOnly + "/] (Permission denied)"));
    // Compare: the login cannot enter it.
    EXPECT_EQ(ask(fields(user, rootOnly, 2)), 105);
    EXPECT_TRUE(daemon_.waitForLog("Failed to change directory to " + rootOnly + "/ (Permission denied), Job Abort"));
    // The primary group and the supplementary group both count.
    EXPECT_EQ(ask(fields(user, viaPrimary, 2)), 4);
    EXPECT_EQ(ask(fields(user, viaGroup, 2)), 4);
    EXPECT_EQ(ask(fields(user, viaGroup, 0)), 4);
}

TEST_F(JobSessionTest, NewestServerMayRunTheJobUnswitched) {
    REQUIRE_ROOT();
    TestUser user;
    ASSERT_TRUE(user.ok());
    Scratch scratch;
    std::string rootOnly = scratch.make("rootonly", 0700);
    ASSERT_TRUE(startDaemon());
    RequestFields s = fields(user, rootOnly, 2);
    s.runUnswitched = true;
    EXPECT_EQ(ask(s), 4);  // version 52: the bit is honoured
    s.serverVersion = 51;
    EXPECT_EQ(ask(s), 105);  // version 51: ignored
}

TEST_F(JobSessionTest, RelativeRootGets116) {
    REQUIRE_ROOT();
    TestUser user;
    ASSERT_TRUE(user.ok());
    ASSERT_TRUE(startDaemon());
    EXPECT_EQ(ask(fields(user, "usr/lib", 0)), 116);
    EXPECT_TRUE(daemon_.waitForLog("Invalid Unix Path, Job Abort"));
}

TEST_F(JobSessionTest, ProtectedBackupRootGets114) {
    REQUIRE_ROOT();
    TestUser user;
    ASSERT_TRUE(user.ok());
    ASSERT_TRUE(startDaemon());
    std::ofstream(daemon_.home() + "tvk.cntl") << "# protected\n" << user.home() << "\n";
    EXPECT_EQ(ask(fields(user, user.home(), 0)), 114);
    EXPECT_TRUE(daemon_.waitForLog("Protected Directory [" + user.home() + "/] in " + daemon_.home() + "tvk.cntl"));
    // A compare of the same root is not a backup: no protection applies.
    EXPECT_EQ(ask(fields(user, user.home(), 2)), 4);
}

TEST_F(JobSessionTest, EveryCommandOfTheParameterPhase) {
    REQUIRE_ROOT();
    TestUser user;
    ASSERT_TRUE(user.ok());
    ASSERT_TRUE(startDaemon());
    RequestFields s = fields(user, user.home(), 0);
    s.tpSize = 1;
    ASSERT_EQ(ask(s), 4);
    // Backup: the options record and one filter item, unanswered.
    std::array<uint8_t, 512> options{};
    options[4] = 0x69;
    ASSERT_TRUE(client_.sendRaw(options));
    std::array<uint8_t, 32 + 4> item{};
    item[0] = 2;
    item[4] = 1;
    item[12] = 4;
    std::memcpy(&item[32], "*.c", 4);
    ASSERT_TRUE(client_.sendRaw(item));

    EXPECT_EQ(client_.option(options), 4);
    EXPECT_EQ(client_.diskItem({"etc", "home"}), 4);
    std::array<uint8_t, 24> groom{};
    groom[12] = 2;
    std::memcpy(&groom[16], "DAILY", 5);
    std::array<uint8_t, 63> tape{};
    EXPECT_EQ(client_.grooming(groom, tape), 4);
    std::array<uint8_t, 12> db{};
    db[4] = 'd';
    EXPECT_EQ(client_.dbFile(db), 4);
    EXPECT_EQ(client_.continueAt(0, "etc/passwd"), 4);
    EXPECT_EQ(client_.command(7, {}), 5);
    EXPECT_EQ(client_.command(static_cast<int8_t>(200), {}), 5);
    ASSERT_TRUE(client_.start(0));
    EXPECT_TRUE(agentCloses());
    EXPECT_TRUE(daemon_.waitForLog("RCV_OK: AckCount=0"));
    std::string log = daemon_.log();
    EXPECT_NE(log.find("* NFS directories will be traversed"), std::string::npos);
    EXPECT_NE(log.find("(GetPattern) asnode.nFilterItems=1"), std::string::npos);
    EXPECT_NE(log.find("flist_tbl[1]=[home]"), std::string::npos);
    EXPECT_NE(log.find("GROOMSET=[DAILY]"), std::string::npos);
    EXPECT_NE(log.find("DB_FILE: filelist_len=12"), std::string::npos);
    EXPECT_NE(log.find("(GetCommands) Continue on file next to etc/passwd"), std::string::npos);
    EXPECT_NE(log.find("(GetCommands) Unsupported command 7 is rejected"), std::string::npos);
    EXPECT_NE(log.find("(GetCommands) Unsupported command -56 is rejected"), std::string::npos);
}

TEST_F(JobSessionTest, BrokenCallersEndTheirConnectionAndTheNextIsServed) {
    REQUIRE_ROOT();
    TestUser user;
    ASSERT_TRUE(user.ok());
    ASSERT_TRUE(startDaemon());

    // One byte of a header, then a close.
    ASSERT_TRUE(client_.connect("127.0.0.1", daemon_.port()));
    ASSERT_TRUE(client_.sendRaw(std::array<uint8_t, 1>{0}));
    client_.close();
    EXPECT_TRUE(daemon_.waitForLog("(GetRequest) Failed to Receive Header Packet"));
    EXPECT_TRUE(daemon_.waitForLog("Failed to get Request Packet, Job Abort"));

    // A request that stops half way.
    std::vector<uint8_t> packet = tavik::frontend::buildRequestPacket(fields(user, user.home()));
    ASSERT_TRUE(client_.connect("127.0.0.1", daemon_.port()));
    ASSERT_TRUE(client_.sendRaw(std::span<const uint8_t>(packet.data(), 300)));
    client_.close();
    EXPECT_TRUE(daemon_.waitForLog("(GetRequest) Failed to Receive Data Packet"));

    // A caller that sends nothing: the 120 s receive time-out (divided).
    ASSERT_TRUE(client_.connect("127.0.0.1", daemon_.port()));
    EXPECT_TRUE(agentCloses());
    EXPECT_TRUE(daemon_.waitForLog("(blockRecv) Timed out in Receive, expected = 8 rcved = 0"));

    EXPECT_EQ(ask(fields(user, user.home())), 4);
    EXPECT_TRUE(daemon_.alive());
}

}  // namespace
