// A login made for one test and removed afterwards (useradd, chpasswd,
// userdel), for end-to-end tests that need a real identity to switch to; and
// a fixture that runs jobs as such a login on a daemon with shortened
// time-outs.
#pragma once

#include <grp.h>
#include <pwd.h>
#include <shadow.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <regex>
#include <string>

#include "e2e/daemon_fixture.h"
#include "frontend/job_client.h"

namespace tavik::test {

inline constexpr const char* kPassword = "Pw0rd-42";

inline bool runQuietly(const std::string& command) {
    // useradd and friends refuse while another process holds the account
    // files' lock: try a few times.
    for (int attempt = 0; attempt < 20; ++attempt) {
        if (std::system((command + " >/dev/null 2>&1").c_str()) == 0) return true;
        usleep(100000);
    }
    return false;
}

// Rewrites an account file under the account files' lock: `edit` may change
// a line or drop it (false); `extra` is appended.
inline bool rewriteAccountFile(const std::string& path, mode_t mode, const char* group,
                               const std::function<bool(std::string&)>& edit, const std::string& extra = "") {
    if (lckpwdf() != 0) return false;
    std::ifstream in(path);
    std::string text;
    for (std::string line; std::getline(in, line);)
        if (edit(line)) text += line + "\n";
    text += extra;
    std::string tmp = path + ".tavik-test";
    bool ok = static_cast<bool>(std::ofstream(tmp) << text) && chmod(tmp.c_str(), mode) == 0;
    const struct group* g = getgrnam(group);
    ok = ok && g && chown(tmp.c_str(), 0, g->gr_gid) == 0 && rename(tmp.c_str(), path.c_str()) == 0;
    ulckpwdf();
    return ok;
}

// A login with a home directory of its own and optionally a supplementary
// group; `method` is chpasswd's hash method (empty: the system's default).
class TestUser {
public:
    explicit TestUser(const std::string& method = "", bool withGroup = false) {
        static int made = 0;
        name_ = "tvk" + std::to_string(getpid()) + "x" + std::to_string(++made);
        std::string groups;
        if (withGroup) {
            group_ = name_ + "g";
            if (!runQuietly("groupadd " + group_)) return;
            groups = " -G " + group_;
        }
        if (!runQuietly("useradd -M -d " + home() + " -s /bin/sh" + groups + " " + name_)) return;
        std::string c = method.empty() ? "" : " -c " + method;
        if (!runQuietly("echo '" + name_ + ":" + kPassword + "' | chpasswd" + c)) return;
        const passwd* pw = getpwnam(name_.c_str());
        if (!pw) return;
        uid_ = pw->pw_uid;
        gid_ = pw->pw_gid;
        chown(home().c_str(), uid_, gid_);
        ok_ = true;
    }
    ~TestUser() {
        auto keep = [](std::string&) { return true; };
        if (!hiddenShadowLine_.empty())
            rewriteAccountFile("/etc/shadow", 0640, "shadow", keep, hiddenShadowLine_ + "\n");
        // Forced: a job process of the login may still be ending.
        runQuietly("userdel -f " + name_);
        if (!group_.empty()) runQuietly("groupdel " + group_);
        // Left behind by userdel when the password file's group id was changed.
        std::system(("groupdel " + name_ + " >/dev/null 2>&1").c_str());
    }
    bool ok() const { return ok_; }
    const std::string& name() const { return name_; }
    const std::string& home() const { return home_.dir(); }
    uid_t uid() const { return uid_; }
    gid_t gid() const { return gid_; }
    gid_t groupId() const {
        const group* g = getgrnam(group_.c_str());
        return g ? g->gr_gid : 0;
    }
    std::string shadowHash() const {
        const spwd* s = getspnam(name_.c_str());
        return s && s->sp_pwdp ? s->sp_pwdp : "";
    }
    // Host equivalence for this login from `host`.
    void trustHost(const std::string& host) const {
        std::string path = home_.path(".rhosts");
        std::ofstream(path) << host << " " << name_ << "\n";
        chown(path.c_str(), uid_, gid_);
        chmod(path.c_str(), 0600);
    }
    // Takes the login's line out of the shadow file (the password file keeps
    // it); the destructor puts it back.
    bool hideFromShadow() {
        return rewriteAccountFile("/etc/shadow", 0640, "shadow", [&](std::string& line) {
            if (line.rfind(name_ + ":", 0) != 0) return true;
            hiddenShadowLine_ = line;
            return false;
        });
    }
    // Gives the login's password-file line the group id `gid` (such as
    // "4294967295", which no process can take); userdel removes the line.
    bool setPasswdGroupId(const std::string& gid) {
        return rewriteAccountFile("/etc/passwd", 0644, "root", [&](std::string& line) {
            static const std::regex fourthField("^([^:]*:[^:]*:[^:]*:)[^:]*");  // name:x:uid:gid:...
            std::smatch m;
            if (line.rfind(name_ + ":", 0) == 0 && std::regex_search(line, m, fourthField))
                line = m[1].str() + gid + m.suffix().str();
            return true;
        });
    }

private:
    std::string hiddenShadowLine_;
    std::string name_, group_;
    Tree home_{"/tmp/tavik-e2e-user-XXXXXX"};
    uid_t uid_ = 0;
    gid_t gid_ = 0;
    bool ok_ = false;
};

// Jobs as a test login on a daemon whose time-outs are divided by 1000;
// `work_` is a directory of the login's in its home.
class LoginJobTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (geteuid() != 0) GTEST_SKIP() << "needs root: creates a test login, device nodes and owners";
        ASSERT_TRUE(user_.ok());
        work_ = user_.home() + "/work";
        mkdir(work_.c_str(), 0755);
        chown(work_.c_str(), user_.uid(), user_.gid());
    }
    bool startDaemon(const std::vector<std::string>& args = {"-v"}) { return daemon_.start(args); }
    // Names `login` in the daemon's trust.cntl (root's, 0644): its jobs may
    // keep root's identity, and its restores run as root.
    void trust(const std::string& login) const {
        std::string path = daemon_.home() + "trust.cntl";
        std::ofstream(path, std::ios::app) << login << "\n";
        chmod(path.c_str(), 0644);
    }
    // A request of the login for `root` (password checked even from an
    // equivalent host).
    frontend::RequestFields fields(const std::string& root, uint8_t opMode) const {
        return {.root = root, .login = user_.name(), .password = kPassword, .opMode = opMode, .acceptEA = 'e'};
    }
    // Connects and sends the request; the answer.
    int ask(const frontend::RequestFields& f) {
        client_.close();
        if (!client_.connect("127.0.0.1", daemon_.port())) return frontend::kNoAnswer;
        return client_.request(f);
    }
    // The request, the OPTION record and the GROOMING record when given, the
    // start command: the stream may begin. The answer to the request (4 when
    // the job goes on).
    int begin(const frontend::RequestFields& f, const std::vector<uint8_t>& options = {}, uint16_t ack = 0,
              const std::vector<uint8_t>& groom = {}) {
        int answer = ask(f);
        if (answer != 4) return answer;
        if (!options.empty() && client_.option(options) != 4) return frontend::kNoAnswer;
        if (!groom.empty() && client_.grooming(groom, std::array<uint8_t, 63>{}) != 4) return frontend::kNoAnswer;
        return client_.start(ack) ? 4 : frontend::kNoAnswer;
    }
    std::string at(const std::string& rel) const { return work_ + "/" + rel; }
    // After the last answer the job process ends and closes the connection.
    bool agentCloses() { return client_.readAnswer() == frontend::kNoAnswer; }
    bool logHas(const std::string& text) const { return daemon_.log().find(text) != std::string::npos; }

    TestUser user_;
    std::string work_;
    Daemon daemon_;
    frontend::JobClient client_;
};

}  // namespace tavik::test
