// The restore job's preparation in a job process of its own: the path child
// that cannot take the login's identity is answered 119 for servers of
// version 50 or more and 105 for older ones; a root that can be made is made
// by the login and answered 4.
#include <fcntl.h>
#include <grp.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <array>
#include <string>

#include "daemon/job_session.h"
#include "daemon/scratch_home.h"
#include "request/job_context.h"

namespace tavik {
namespace {

constexpr uid_t kNobody = 65534;

class RestoreJobTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (geteuid() != 0) GTEST_SKIP() << "needs root: switches to another user id";
        settings() = Settings{};
        ::chmod(home_.dir().c_str(), 0777);
        ::chmod(paths().logDir.c_str(), 0777);
        int fd = ::open(paths().logPath.c_str(), O_WRONLY | O_CREAT, 0666);
        ::fchmod(fd, 0666);
        ::close(fd);
        prepareForConnection(ctx_);
        ctx_.request.raw[request_layout::kOpModeAt] = kOpRestore;
        ctx_.jobUser = JobUser{true, "nobody", kNobody, kNobody};
    }
    // The first answer of a restore job process that runs as `asUser`.
    int serve(int version, uid_t asUser) {
        ctx_.serverVersion = static_cast<int8_t>(version);
        ctx_.jobRoot = home_.dir() + "/dest";
        testing::SocketPair sp;
        ::signal(SIGCHLD, SIG_DFL);
        pid_t child = ::fork();
        if (child == 0) {
            if (asUser != 0 && (::setgroups(0, nullptr) != 0 || ::setgid(asUser) != 0 || ::setuid(asUser) != 0)) _exit(3);
            sp.closeServer();
            listener().jobSocket = sp.agent;
            serveJob(ctx_);
            _exit(0);
        }
        sp.closeAgent();
        std::array<uint8_t, 8> h{};
        ssize_t n = ::recv(sp.server, h.data(), h.size(), MSG_WAITALL);
        sp.closeServer();
        int status = 0;
        ::waitpid(child, &status, 0);
        return n == 8 ? h[2] : -1;
    }

    testing::ScratchHome home_;
    JobContext ctx_;
};

TEST_F(RestoreJobTest, APathChildThatCannotSwitchGets119FromNewServersAnd105FromOld) {
    // An unprivileged job process's child cannot set its group list.
    EXPECT_EQ(serve(50, kNobody), 119);
    EXPECT_EQ(serve(52, kNobody), 119);
    EXPECT_EQ(serve(49, kNobody), 105);
    EXPECT_TRUE(home_.logHas("(chuid) Failed to initialize the group access list in initgroups(nobody,65534) ("));
    struct stat st {};
    EXPECT_NE(::stat((home_.dir() + "/dest").c_str(), &st), 0);
}

TEST_F(RestoreJobTest, TheLoginMakesTheRootAndTheJobIsReady) {
    EXPECT_EQ(serve(52, 0), 4);
    struct stat st {};
    ASSERT_EQ(::stat((home_.dir() + "/dest").c_str(), &st), 0);
    EXPECT_EQ(st.st_uid, kNobody);
    EXPECT_TRUE(home_.logHas("Start Restore Job From (), Destination = " + home_.dir() + "/dest"));
}

}  // namespace
}  // namespace tavik
