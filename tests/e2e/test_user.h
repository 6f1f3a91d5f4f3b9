// A login made for one test and removed afterwards (useradd, chpasswd,
// userdel), for end-to-end tests that need a real identity to switch to.
#pragma once

#include <grp.h>
#include <pwd.h>
#include <shadow.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <string>

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

// A login made for one test and removed afterwards, with a home directory
// of its own and optionally a supplementary group.
class TestUser {
public:
    explicit TestUser(const std::string& method = "", bool withGroup = false) {
        static int made = 0;
        name_ = "tvk" + std::to_string(getpid()) + "x" + std::to_string(++made);
        char tmpl[] = "/tmp/tavik-e2e-user-XXXXXX";
        if (!mkdtemp(tmpl)) return;
        home_ = tmpl;
        chmod(home_.c_str(), 0755);
        std::string groups;
        if (withGroup) {
            group_ = name_ + "g";
            if (!runQuietly("groupadd " + group_)) return;
            groups = " -G " + group_;
        }
        if (!runQuietly("useradd -M -d " + home_ + " -s /bin/sh" + groups + " " + name_)) return;
        std::string c = method.empty() ? "" : " -c " + method;
        if (!runQuietly("echo '" + name_ + ":" + kPassword + "' | chpasswd" + c)) return;
        const passwd* pw = getpwnam(name_.c_str());
        if (!pw) return;
        uid_ = pw->pw_uid;
        gid_ = pw->pw_gid;
        chown(home_.c_str(), uid_, gid_);
        ok_ = true;
    }
    ~TestUser() {
        if (!hiddenShadowLine_.empty()) editShadow(hiddenShadowLine_);
        // Forced: a job process of the login may still be ending.
        runQuietly("userdel -f " + name_);
        if (!group_.empty()) runQuietly("groupdel " + group_);
        if (!home_.empty()) std::system(("rm -rf '" + home_ + "'").c_str());
    }
    bool ok() const { return ok_; }
    const std::string& name() const { return name_; }
    const std::string& home() const { return home_; }
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
        std::string path = home_ + "/.rhosts";
        std::ofstream(path) << host << " " << name_ << "\n";
        chown(path.c_str(), uid_, gid_);
        chmod(path.c_str(), 0600);
    }

    // Takes the login's line out of the shadow file (the password file keeps
    // it), under the account files' lock; the destructor puts it back.
    bool hideFromShadow() { return editShadow(""); }

    // Gives the login's password-file line the group id `gid` (such as
    // "4294967295", which no process can take), under the account files'
    // lock; userdel removes the line afterwards.
    bool setPasswdGroupId(const std::string& gid) {
        if (lckpwdf() != 0) return false;
        std::ifstream in("/etc/passwd");
        std::string text, line;
        bool found = false;
        while (std::getline(in, line)) {
            if (line.rfind(name_ + ":", 0) == 0) {
                // name:x:uid:gid:...
                size_t at = 0;
                for (int field = 0; field < 3 && at != std::string::npos; ++field) at = line.find(':', at + 1);
                size_t end = at == std::string::npos ? at : line.find(':', at + 1);
                if (end != std::string::npos) {
                    line = line.substr(0, at + 1) + gid + line.substr(end);
                    found = true;
                }
            }
            text += line + "\n";
        }
        std::string tmp = "/etc/passwd.tavik-test";
        bool ok = found && static_cast<bool>(std::ofstream(tmp) << text) && chmod(tmp.c_str(), 0644) == 0 &&
                  rename(tmp.c_str(), "/etc/passwd") == 0;
        ulckpwdf();
        return ok;
    }

private:
    // Without `restore`: removes the login's line. With it: appends it.
    bool editShadow(const std::string& restore) {
        if (lckpwdf() != 0) return false;
        std::ifstream in("/etc/shadow");
        std::string text, line;
        while (std::getline(in, line)) {
            if (restore.empty() && line.rfind(name_ + ":", 0) == 0) {
                hiddenShadowLine_ = line;
                continue;
            }
            text += line + "\n";
        }
        if (!restore.empty()) {
            text += restore + "\n";
            hiddenShadowLine_.clear();
        }
        std::string tmp = "/etc/shadow.tavik-test";
        bool ok = static_cast<bool>(std::ofstream(tmp) << text) && chmod(tmp.c_str(), 0640) == 0;
        const group* shadowGroup = getgrnam("shadow");
        if (shadowGroup) ok = ok && chown(tmp.c_str(), 0, shadowGroup->gr_gid) == 0;
        ok = ok && rename(tmp.c_str(), "/etc/shadow") == 0;
        ulckpwdf();
        return ok;
    }

    std::string hiddenShadowLine_;
    std::string name_, group_, home_;
    uid_t uid_ = 0;
    gid_t gid_ = 0;
    bool ok_ = false;
};

}  // namespace tavik::test
