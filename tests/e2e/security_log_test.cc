// Attacks on the agent's log from the same machine and from the network:
// names planted in LOG/ by a login are never written through, LOG/ is
// sticky, and no caller's text can start a line of the log.
#include "e2e/test_user.h"

namespace {

using namespace tavik::test;
using tavik::frontend::JobClient;
using tavik::frontend::RequestFields;

// One job of `user` on `d`, from the request to the agent's close: of a type
// (7) that the agent does not run, so the command exchange is the whole job.
bool runJob(const Daemon& d, const TestUser& user) {
    JobClient client;
    RequestFields f{.root = user.home(), .login = user.name(), .password = kPassword, .opMode = 7, .acceptEA = 'e'};
    return client.connect("127.0.0.1", d.port()) && client.request(f) == 4 && client.start(0) &&
           client.readAnswer() == tavik::frontend::kNoAnswer;
}

// LOG/ as an older agent left it (mode 0777), where a login replaced each
// file's name with its own link to a file of root's (mode 0600). The agent
// starts and serves a job; root's files keep their bytes, the pid file is
// made afresh, LOG/ becomes sticky, and the lines the log refused went to
// standard output.
TEST(SecurityTest, LinksPlantedInLogAreNotWrittenThrough) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root: a test login and files of root's";
    TestUser user;
    ASSERT_TRUE(user.ok());
    Daemon d;
    Tree roots;
    const std::string log = d.home() + "LOG/";
    ASSERT_EQ(mkdir(log.c_str(), 0777), 0);
    ASSERT_EQ(chmod(log.c_str(), 0777), 0);
    const char* names[] = {"tvk.log", "tvk.log.old", "tvk.ipc", "tavikd.pid"};
    for (const char* name : names) {
        roots.file(name, "root's own\n", 0600);
        ASSERT_EQ(symlink(roots.path(name).c_str(), (log + name).c_str()), 0);
        ASSERT_EQ(lchown((log + name).c_str(), user.uid(), user.gid()), 0);
    }
    ASSERT_TRUE(d.start()) << d.launcher().output;
    ASSERT_TRUE(runJob(d, user));
    for (const char* name : names) {
        SCOPED_TRACE(name);
        EXPECT_EQ(readFile(roots.path(name)), "root's own\n");
        EXPECT_EQ(statOf(roots.path(name)).st_mode, mode_t(0100600));
    }
    EXPECT_EQ(statOf(d.pidPath()).st_mode, mode_t(0100644));
    EXPECT_EQ(readFile(d.pidPath()), std::to_string(d.pid()) + "\n");
    EXPECT_EQ(statOf(log).st_mode, mode_t(041777));
    std::string out = readFile(d.home() + "launcher.out");
    EXPECT_TRUE(has(out, "(ulog) Faied to open " + log + "tvk.log (Too many levels of symbolic links)")) << out;
    EXPECT_TRUE(has(out, "Start Compare Job From ")) << out;
}

// A LOG that is a link to a directory elsewhere, or a file: the agent does
// not start and writes nothing there.
TEST(SecurityTest, LogThatIsNotARealDirectoryStopsTheStart) {
    Tree elsewhere;
    for (bool asLink : {true, false}) {
        SCOPED_TRACE(asLink ? "link" : "file");
        Daemon d;
        const std::string log = d.home() + "LOG";
        if (asLink)
            ASSERT_EQ(symlink(elsewhere.dir().c_str(), log.c_str()), 0);
        else
            writeFile(log, "");
        LaunchResult r = d.launch({"-p", std::to_string(freePort())});
        EXPECT_EQ(r.status, 255);
        EXPECT_TRUE(has(r.output, "Failed to make directory <" + log + "> (Not a directory)")) << r.output;
        EXPECT_TRUE(elsewhere.order().empty());
    }
}

// A refused caller whose login holds newlines: its text is in the log with
// the newlines escaped, and no line of the log begins with what followed them.
TEST(SecurityTest, CallerTextCannotStartALogLine) {
    Daemon d;
    ASSERT_TRUE(d.start());
    const std::string forged = "EVIL::0:0::/:/bin/sh";
    JobClient client;
    ASSERT_TRUE(client.connect("127.0.0.1", d.port()));
    RequestFields f{.root = "/tmp", .login = "x\n" + forged + "\n", .password = "x", .opMode = 2, .acceptEA = 'e'};
    EXPECT_EQ(client.request(f), 115);  // unknown user
    EXPECT_TRUE(d.waitForLog("(ckpasswd) User x\\012" + forged + "\\012 is not defined in the password file"));
    EXPECT_TRUE(has(d.log(), "loginID=x\\012" + forged + "\\012 "));
    for (const std::string& line : lines(d.log())) EXPECT_NE(line.rfind("EVIL", 0), 0u) << line;
}

}  // namespace
