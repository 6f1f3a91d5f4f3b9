#include "daemon/login.h"

#include <crypt.h>
#include <grp.h>
#include <netdb.h>
#include <pwd.h>
#include <shadow.h>
#include <unistd.h>

#include <cstring>

#include "daemon/state.h"
#include "log/ulog.h"
#include "transport/packet.h"

namespace tavik {
namespace {

constexpr const char* kPasswordPrefix = "(ckpasswd) ";
constexpr const char* kChuidPrefix = "(chuid) ";

void lookupUser(JobUser& user, const char* login) {
    user = JobUser{};
    if (const passwd* pw = ::getpwnam(login)) {
        user.present = true;
        user.name = pw->pw_name;
        user.uid = pw->pw_uid;
        user.gid = pw->pw_gid;
    }
    ::endpwent();
}

}  // namespace

int isSuperuser(JobUser& user, const char* login) {
    lookupUser(user, login);
    return user.present && user.uid == 0 ? 1 : 0;
}

int ckpasswd(JobUser& user, const char* login, const char* plain) {
    lookupUser(user, login);
    if (!user.present) {
        ulog(MSG_USER_NOT_DEFINED_PASSWORD, kPasswordPrefix, login ? login : "(null)");
        return -2;
    }
    const spwd* shadow = ::getspnam(login);
    if (!shadow || !shadow->sp_pwdp) {
        ::endspent();
        ulog(MSG_USER_NOT_DEFINED_SHADOW, kPasswordPrefix, login);
        return -2;
    }
    // The stored hash is its own salt; crypt_r keeps the result off static
    // storage so that it can be wiped.
    crypt_data data{};
    const char* hashed = ::crypt_r(plain, shadow->sp_pwdp, &data);
    bool equal = hashed && hashed[0] != '*' && std::strcmp(hashed, shadow->sp_pwdp) == 0;
    ::endspent();
    wipeSecret(&data, sizeof data);
    if (!equal) {
        ulog(MSG_INCORRECT_PASSWORD, kPasswordPrefix);
        return -1;
    }
    return 0;
}

int checkLogin(JobContext& ctx) {
    char plain[kPasswordSize];
    descramblePassword(plain, ctx.request.paswd());
    std::string login = ctx.request.loginID();
    int r = ckpasswd(ctx.jobUser, login.c_str(), plain);
    wipeSecret(plain, sizeof plain);
    if (r == 0) return 0;
    Listener& l = listener();
    int8_t refusal = (ctx.serverVersion >= transport::kNewServerVersion && r == -2) ? transport::code::kUnknownUser
                                                                                    : transport::code::kLoginFailed;
    if (transport::syncSendCode(l.jobSocket, refusal) != 0) {
        // Logged by the sender; the caller is refused either way.
    }
    ::close(l.jobSocket);
    l.jobSocket = -1;
    return -1;
}

int admitCaller(JobContext& ctx) {
    if (settings().singleUser) return 0;
    Listener& l = listener();
    std::string login = ctx.request.loginID();
    if (ctx.request.acceptEA() != 'e' && l.peerKnown) {
        int super = isSuperuser(ctx.jobUser, login.c_str());
        if (::ruserok(l.peerName.c_str(), super, login.c_str(), login.c_str()) == 0) return 0;
    }
    return checkLogin(ctx);
}

int chuid(const char* name, uid_t uid, gid_t gid) {
    int result = 0;
    if (::initgroups(name, gid) != 0) {
        ulog(MSG_FAILED_INITIALIZE_GROUP_ACCESS_LIST, kChuidPrefix, name, static_cast<int>(gid), errText());
        result = -1;
    }
    if (::setgid(gid) != 0) {
        ulog(MSG_FAILED_SET_GROUP_ID, kChuidPrefix, static_cast<int>(gid), errText());
        result = -1;
    }
    if (::setuid(uid) != 0) {
        ulog(MSG_FAILED_SET_USER_ID, kChuidPrefix, static_cast<int>(uid), errText());
        return -1;
    }
    // A login other than root must not be able to become root again.
    if (uid != 0 && (::setuid(0) == 0 || ::seteuid(0) == 0)) {
        ulog("%sRoot privileges could be regained after switching to user id %d", kChuidPrefix,
             static_cast<int>(uid));
        return -1;
    }
    return result;
}

}  // namespace tavik
