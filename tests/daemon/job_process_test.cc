// The job process and the identity switch, run in forked processes over a
// real socket pair: chuid's order and its check that root cannot come back,
// the refusal codes of the preparation step that no login can reach end to
// end, and who may keep the agent's identity. Logins, passwords and the
// other refusal codes are driven on the real daemon by
// JobSessionTest.EveryAdmissionAndRefusalCode; a failed switch, answered
// 119, by RestoreTest.FilesDirectoriesModesOwnersAndTimesComeBackExactlyWhereTheLoginMayWrite
// and BrowseTest.ClosedDirectoryAnswers101AndAFailedIdentitySwitchClosesWithoutAnswer.
#include <fcntl.h>
#include <sys/stat.h>
#include <pwd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <array>
#include <fstream>
#include <string>

#include "daemon/job_session.h"
#include "daemon/login.h"
#include "daemon/scratch_home.h"
#include "daemon/trust.h"
#include "request/job_context.h"

namespace {

using namespace tavik;

constexpr uid_t kNobody = 65534;

class JobProcessTest : public ::testing::Test {
protected:
    void SetUp() override {
        startupSettings() = Settings{};
        publishSettings();
        ::chmod(paths().logDir.c_str(), 0777);
        // The job processes below write the log as an unprivileged user.
        int fd = ::open(paths().logPath.c_str(), O_WRONLY | O_CREAT, 0666);
        ::fchmod(fd, 0666);
        ::close(fd);
        prepareJob(ctx_);
        ctx_.jobUser = JobUser{true, "nobody", kNobody, kNobody};
    }
    // Runs the job process in a child; returns the first answer code, or -1
    // when the connection closed without one.
    int serve(uint8_t opMode, const std::string& root) {
        ctx_.request.raw[protocol::request_layout::kOpModeAt] = opMode;
        ctx_.jobRoot = root;
        tavik::testing::SocketPair sp;
        pid_t child = ::fork();
        if (child == 0) {
            sp.closeServer();
            listener().jobSocket = sp.agent;
            static_cast<void>(serveJob(job_));
            _exit(0);
        }
        sp.closeAgent();
        std::array<uint8_t, 8> h{};
        ssize_t n = ::recv(sp.server, h.data(), h.size(), MSG_WAITALL);
        sp.closeServer();  // the job waits for its parameters: end it
        tavik::testing::exitStatusOf(child);
        return n == 8 ? h[2] : -1;
    }
    tavik::testing::ScratchHome home_;
    JobProcess job_;
    JobContext& ctx_ = job_.ctx;
};

TEST_F(JobProcessTest, ChuidSwitchesGroupsGidUidAndRootCannotComeBack) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root: switches to another user id";
    pid_t child = ::fork();
    if (child == 0) {
        if (chuid("nobody", kNobody, kNobody) != 0) _exit(1);
        if (::getuid() != kNobody || ::geteuid() != kNobody || ::getgid() != kNobody) _exit(2);
        gid_t groups[64];
        int n = ::getgroups(64, groups);
        for (int i = 0; i < n; ++i)
            if (groups[i] == 0) _exit(3);  // root's groups are gone
        if (::setuid(0) == 0) _exit(4);
        _exit(0);
    }
    EXPECT_EQ(tavik::testing::exitStatusOf(child), 0);
}

TEST_F(JobProcessTest, SingleUserModeAndPreparationRefusals) {
    startupSettings().singleUser = true;
    publishSettings();
    EXPECT_EQ(serve(protocol::kOpBackup, ""), 116);
    EXPECT_EQ(serve(protocol::kOpBackup, "/no/%s%d"), 118);
    // A restore makes its root; one below a regular file cannot be made.
    std::string underFile = home_.dir() + "/file/dir";
    std::ofstream(home_.dir() + "/file") << "x";
    EXPECT_EQ(serve(protocol::kOpRestore, underFile), 105);
    EXPECT_EQ(serve(7, "/no/such/dir"), 105);
    EXPECT_EQ(serve(7, "/tmp"), 4);
    EXPECT_TRUE(home_.logHas("Start Backup Job From (), Source = /no/%s%d")) << "percent signs kept";
    EXPECT_TRUE(home_.logHas("(make_dir) Failed to get the attributes (stat) of " + underFile + "/ (Not a directory)"));
    EXPECT_TRUE(home_.logHas("Failed to change directory to /no/such/dir/ (No such file or directory), Job Abort"));
}

// Who may keep the agent's identity: a trusted login that asks (servers
// above 51), and every caller in single-user mode. trust.cntl counts only
// when root alone may write it.
TEST_F(JobProcessTest, OnlyTrustedLoginsKeepTheAgentsIdentity) {
    const std::string& file = paths().trustPath;
    struct Row {
        const char* what;
        JobUser user;
        std::string trustFile;  // empty: none
        mode_t mode = 0644;
        int8_t version = '4';
        uint8_t bit = 0x80;
        bool trusted, keep, browseKeeps = false;
        std::string line = "";
    };
    const JobUser nobody{true, "nobody", kNobody, kNobody}, root{true, "root", 0, 0};
    const std::string ignored = "The request to run without switching to login nobody is ignored";
    const Row rows[] = {
        {"root asks", root, "", 0644, '4', 0x80, true, true},
        {"root does not ask", root, "", 0644, '4', 0, true, false},
        {"root's bit from version 51 is no request", root, "", 0644, '3', 0x80, true, false},
        {"a login not listed", nobody, "", 0644, '4', 0x80, false, false, false, ignored},
        {"a listed login", nobody, "# operators\n\n  nobody \n", 0644, '4', 0x80, true, true},
        {"a file others may write is ignored", nobody, "nobody\n", 0646, '4', 0x80, false, false, false,
         "(trust_cntl) " + file + " is ignored"},
        {"a file its group may write is ignored", nobody, "nobody\n", 0664, '4', 0x80, false, false},
        {"a name inside a longer one does not count", nobody, "nobodyelse\n#nobody\n", 0644, '4', 0x80, false,
         false},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.what);
        ::unlink(file.c_str());
        if (!row.trustFile.empty()) {
            std::ofstream(file) << row.trustFile;
            ::chmod(file.c_str(), row.mode);
        }
        for (uint8_t op : {protocol::kOpBackup, protocol::kOpBrowse}) {
            JobContext ctx;
            prepareJob(ctx);
            ctx.jobUser = row.user;
            ctx.serverVersion = row.version;
            ctx.request.raw[protocol::request_layout::kNoSwitchAt] = row.bit;
            ctx.request.raw[protocol::request_layout::kOpModeAt] = op;
            decideTrust(ctx);
            EXPECT_EQ(ctx.trusted, row.trusted);
            EXPECT_EQ(identitySwitchExempt(ctx, op == protocol::kOpBrowse), op == protocol::kOpBrowse ? row.browseKeeps : row.keep);
        }
        if (!row.line.empty()) {
            EXPECT_TRUE(home_.logHas(row.line));
        }
    }
    ::unlink(file.c_str());
    startupSettings().singleUser = true;
    publishSettings();
    JobContext ctx;
    prepareJob(ctx);
    decideTrust(ctx);
    EXPECT_TRUE(ctx.trusted);
    EXPECT_TRUE(identitySwitchExempt(ctx, true));
}

}  // namespace
