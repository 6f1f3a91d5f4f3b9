// Jobs on a real daemon, driven by the front-end's job client: real logins
// (test users made with useradd and chpasswd), host equivalence, single-user
// mode, the identity the job process runs with, every refusal code the
// daemon answers, the whole command phase, and callers that break off.
#include "e2e/test_user.h"
#include "protocol/filter_items.h"

namespace {

using namespace tavik::test;
using tavik::frontend::RequestFields;
namespace protocol = tavik::protocol;

using JobSessionTest = LoginJobTest;

// One row per answer to a request: logins, passwords, host equivalence,
// roots, protection, groups and the unswitched bit of older servers. (The
// refusal of a protected root and of an unswitched job of a login that is
// not trusted are SecurityTest's.)
TEST_F(JobSessionTest, EveryAdmissionAndRefusalCode) {
    TestUser sha512("SHA512"), hidden, grouped("", true);
    ASSERT_TRUE(sha512.ok() && hidden.ok() && grouped.ok());
    EXPECT_EQ(user_.shadowHash().rfind("$y$", 0), 0u) << "Debian's default hash is yescrypt";
    EXPECT_EQ(sha512.shadowHash().rfind("$6$", 0), 0u);
    ASSERT_TRUE(hidden.hideFromShadow());
    user_.trustHost("localhost");
    Tree scratch;
    scratch.dir("rootonly", 0700);
    scratch.dir("primary", 0750);
    scratch.dir("group", 0750);
    chown(scratch.path("primary").c_str(), 0, grouped.gid());
    chown(scratch.path("group").c_str(), 0, grouped.groupId());
    std::string home = user_.home(), rootOnly = scratch.path("rootonly");
    ASSERT_TRUE(startDaemon({"-v", "-a", "10"}));
    std::ofstream(daemon_.home() + "tvk.cntl") << "# protected\n" << home << "\n";
    // Trusted, the login could keep root's identity if a server that may
    // ask for it did.
    trust(user_.name());

    // Admitted: the newest version answers, offering the -a interval; the
    // job then takes the start command and ends.
    ASSERT_EQ(ask(fields(home, 7)), 4) << client_.lastError();
    EXPECT_EQ(client_.lastVersion(), 52);
    EXPECT_EQ(client_.lastValue(), 10);
    ASSERT_TRUE(client_.start(3));
    EXPECT_TRUE(agentCloses());
    EXPECT_TRUE(daemon_.waitForLog("RCV_OK: AckCount=3"));
    EXPECT_TRUE(logHas("Start Compare Job From localhost(" + user_.name() + "), Destination = " + home));

    // A request (of the fixture's login, with its password, by the newest
    // server, unless a row says otherwise), its answer and the line then
    // logged (when not empty).
    struct Row {
        const char* what;
        std::string root;
        uint8_t opMode = 2;
        std::string login = "";
        std::string password = kPassword;
        int version = 52;  // 50 is the digit "2", 49 the digit "1"
        uint8_t acceptEA = 'e';
        bool unswitched = false;
        int answer = 4;
        std::string line = "";
    };
    const std::string nobody = "tvk-nobody-here";
    const Row rows[] = {
        {.what = "wrong password", .root = home, .password = "wrong", .answer = 113,
         .line = "(ckpasswd) Incorrect password"},
        {.what = "right password after a wrong one", .root = home},
        {.what = "SHA-512 password", .root = home, .login = sha512.name()},
        {.what = "equivalent host admits without password", .root = home, .password = "wrong", .acceptEA = 0},
        {.what = "unknown login, new server", .root = "/tmp", .login = nobody, .version = 50, .answer = 115},
        {.what = "unknown login, old server", .root = "/tmp", .login = nobody, .version = 49, .answer = 113,
         .line = "(ckpasswd) User tvk-nobody-here is not defined in the password file"},
        {.what = "no shadow line, new server", .root = home, .login = hidden.name(), .version = 50, .answer = 115},
        {.what = "no shadow line, old server", .root = home, .login = hidden.name(), .version = 49, .answer = 113,
         .line = "(ckpasswd) User " + hidden.name() + " is not defined in the shadow file"},
        {.what = "relative root", .root = "usr/lib", .opMode = 0, .answer = 116,
         .line = "Invalid Unix Path, Job Abort"},
        {.what = "a compare of a protected root", .root = home},
        {.what = "backup of what only root may read", .root = rootOnly, .opMode = 0, .answer = 118,
         .line = "Failed to Access Directory [" + rootOnly + "/] (Permission denied)"},
        {.what = "compare where only root may enter", .root = rootOnly, .answer = 105,
         .line = "Failed to change directory to " + rootOnly + "/ (Permission denied), Job Abort"},
        {.what = "unswitched bit of a trusted login ignored from version 51", .root = rootOnly, .version = 51,
         .unswitched = true, .answer = 105},
        {.what = "primary group", .root = scratch.path("primary"), .login = grouped.name()},
        {.what = "supplementary group, compare", .root = scratch.path("group"), .login = grouped.name()},
        {.what = "supplementary group, backup", .root = scratch.path("group"), .opMode = 0, .login = grouped.name()},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.what);
        EXPECT_EQ(ask({.root = row.root, .login = row.login.empty() ? user_.name() : row.login,
                       .password = row.password, .opMode = row.opMode, .serverVersion = row.version,
                       .acceptEA = row.acceptEA, .runUnswitched = row.unswitched}),
                  row.answer);
        // After a refusal the job process ends.
        EXPECT_TRUE(row.answer == 4 || agentCloses());
        EXPECT_TRUE(row.line.empty() || daemon_.waitForLog(row.line)) << row.line;
    }
    EXPECT_FALSE(logHas(kPassword));

    // Single-user mode admits anyone and runs as the daemon's user.
    daemon_.stop();
    ASSERT_TRUE(startDaemon({"-v", "-S"}));
    EXPECT_EQ(ask({.root = rootOnly, .login = nobody, .password = "anything", .opMode = 2}), 4);
    EXPECT_TRUE(daemon_.waitForLog("Will operate in single user mode"));
}

// Callers that break off end their connections; the next is served, and
// takes every command of the parameter phase.
TEST_F(JobSessionTest, BrokenCallersThenEveryCommandOfTheParameterPhase) {
    ASSERT_TRUE(startDaemon());
    // One byte of a header or a request cut half way, then a close; or
    // nothing, until the agent closes at the 120 s receive time-out
    // (divided).
    std::vector<uint8_t> packet = tavik::frontend::buildRequestPacket(fields(user_.home(), 2));
    const std::pair<size_t, const char*> cuts[] = {
        {1, "(GetRequest) Failed to Receive Header Packet"},
        {300, "(GetRequest) Failed to Receive Data Packet"},
        {0, "(blockRecv) Timed out in Receive, expected = 8 rcved = 0"},
    };
    for (auto [length, line] : cuts) {
        ASSERT_TRUE(client_.connect("127.0.0.1", daemon_.port()));
        ASSERT_TRUE(client_.sendRaw(std::span<const uint8_t>(packet.data(), length)));
        EXPECT_TRUE(length != 0 || agentCloses());
        client_.close();
        EXPECT_TRUE(daemon_.waitForLog(line)) << line;
    }
    EXPECT_TRUE(daemon_.waitForLog("Failed to get Request Packet, Job Abort"));

    RequestFields s = fields(user_.home(), 0);
    s.tpSize = 1;
    ASSERT_EQ(ask(s), 4);
    // Backup: the options record and one filter item, unanswered.
    std::vector<uint8_t> options = optionsRecord(0, 0, 0x69);
    ASSERT_TRUE(client_.sendRaw(options));
    ASSERT_TRUE(client_.sendRaw(*protocol::encodeNamePatternItem(false, false, std::vector<std::string>{"*.c"})));

    EXPECT_EQ(client_.option(options), 4);
    EXPECT_EQ(client_.diskItem({"etc", "home"}), 4);
    EXPECT_EQ(client_.grooming(groomingRecord(2, 0, "DAILY"), std::array<uint8_t, 63>{}), 4);
    std::array<uint8_t, 12> db{};
    db[4] = 'd';
    EXPECT_EQ(client_.dbFile(db), 4);
    EXPECT_EQ(client_.continueAt(0, "etc/passwd"), 4);
    EXPECT_EQ(client_.command(7, {}), 5);
    EXPECT_EQ(client_.command(static_cast<int8_t>(200), {}), 5);
    ASSERT_TRUE(client_.start(0));
    EXPECT_TRUE(agentCloses());
    EXPECT_TRUE(daemon_.waitForLog("RCV_OK: AckCount=0"));
    EXPECT_TRUE(daemon_.alive());
    for (const char* line : {"* NFS directories will be traversed", "(GetPattern) asnode.nFilterItems=1",
                             "flist_tbl[1]=[home]", "GROOMSET=[DAILY]", "DB_FILE: filelist_len=12",
                             "(GetCommands) Continue on file next to etc/passwd",
                             "(GetCommands) Unsupported command 7 is rejected",
                             "(GetCommands) Unsupported command -56 is rejected"}) {
        EXPECT_TRUE(logHas(line)) << line;
    }
}

}  // namespace
