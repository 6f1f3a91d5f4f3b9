#include "daemon/login.h"

#include <arpa/inet.h>
#include <crypt.h>
#include <grp.h>
#include <netdb.h>
#include <pwd.h>
#include <security/pam_appl.h>
#include <shadow.h>
#include <unistd.h>

#include <cstring>
#include <ctime>

#include "daemon/state.h"
#include "log/ulog.h"
#include "transport/packet.h"

namespace tavik {
namespace {

constexpr const char* kPasswordPrefix = "(ckpasswd) ";
constexpr const char* kAccountPrefix = "(ckaccount) ";
constexpr const char* kChuidPrefix = "(chuid) ";
// The PAM service whose account rules apply (PAM's "other" without a file
// of its own).
constexpr const char* kPamService = "tavikd";

// A stored hash that no password can match: none, or locked ("!...", "*").
bool usableHash(const char* stored) { return stored && stored[0] != '\0' && stored[0] != '!' && stored[0] != '*'; }

// Hashes the password once in vain, with a new setting of the system's
// default scheme, for a login that has no hash to compare with: a refusal
// then costs what a check costs, and its time tells nothing about the login.
void hashInVain(const char* plain) {
    char setting[CRYPT_GENSALT_OUTPUT_SIZE];
    if (!::crypt_gensalt_rn(nullptr, 0, nullptr, 0, setting, sizeof setting)) return;
    crypt_data data{};
    ::crypt_r(plain, setting, &data);
    platform::wipeSecret(&data, sizeof data);
}

// The system's account management for `login`: PAM's account check, with
// no conversation (nothing can be asked of a network caller).
int pamAccount(const char* login, const char* peerAddress) {
    pam_conv conv{[](int, const pam_message**, pam_response**, void*) { return static_cast<int>(PAM_CONV_ERR); },
                  nullptr};
    pam_handle_t* handle = nullptr;
    int r = ::pam_start(kPamService, login, &conv, &handle);
    if (r == PAM_SUCCESS) {
        ::pam_set_item(handle, PAM_RHOST, peerAddress);
        ::pam_set_item(handle, PAM_RUSER, login);
        r = ::pam_acct_mgmt(handle, PAM_SILENT);
    }
    if (handle) ::pam_end(handle, r);
    return r;
}

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
        hashInVain(plain);
        ulog(MSG_USER_NOT_DEFINED_PASSWORD, kPasswordPrefix, login ? login : "(null)");
        return -2;
    }
    const spwd* shadow = ::getspnam(login);
    if (!shadow || !shadow->sp_pwdp) {
        ::endspent();
        hashInVain(plain);
        ulog(MSG_USER_NOT_DEFINED_SHADOW, kPasswordPrefix, login);
        return -2;
    }
    bool equal = false;
    if (!usableHash(shadow->sp_pwdp)) {
        hashInVain(plain);
    } else {
        // The stored hash is its own salt; crypt_r keeps the result off
        // static storage so that it can be wiped.
        crypt_data data{};
        const char* hashed = ::crypt_r(plain, shadow->sp_pwdp, &data);
        equal = hashed && hashed[0] != '*' && std::strcmp(hashed, shadow->sp_pwdp) == 0;
        platform::wipeSecret(&data, sizeof data);
    }
    ::endspent();
    if (!equal) {
        ulog(MSG_INCORRECT_PASSWORD, kPasswordPrefix);
        return -1;
    }
    return 0;
}

int accountUsable(const char* login, const char* peerAddress) {
    const spwd* shadow = ::getspnam(login);
    long expires = shadow ? shadow->sp_expire : -1;
    ::endspent();
    long today = static_cast<long>(std::time(nullptr) / 86400);
    if (expires != -1 && today >= expires) {
        ulog("%sThe account %s has expired", kAccountPrefix, login);
        return -1;
    }
    int r = pamAccount(login, peerAddress);
    if (r != PAM_SUCCESS) {
        ulog("%sThe account %s may not be used now (%s)", kAccountPrefix, login, ::pam_strerror(nullptr, r));
        return -1;
    }
    return 0;
}

int checkLogin(JobContext& ctx) {
    Listener& l = listener();
    char plain[protocol::kPasswordSize];
    protocol::descramblePassword(plain, ctx.request.paswd());
    std::string login = ctx.request.loginID();
    int r = ckpasswd(ctx.jobUser, login.c_str(), plain);
    platform::wipeSecret(plain, sizeof plain);
    // An expired or locked account is refused like a wrong password.
    if (r == 0 && accountUsable(login.c_str(), l.peerAddress) != 0) r = -1;
    if (r == 0) return 0;
    int8_t refusal = (ctx.serverVersion >= protocol::kNewServerVersion && r == -2) ? protocol::code::kUnknownUser
                                                                                    : protocol::code::kLoginFailed;
    if (transport::syncSendCode(ctx.link, l.jobSocket, refusal) != 0) {
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
        // Equivalence is decided by the caller's address, which the caller
        // cannot choose the way it chooses its reverse-lookup name.
        int super = isSuperuser(ctx.jobUser, login.c_str());
        in_addr address{};
        if (::inet_pton(AF_INET, l.peerAddress, &address) == 1 &&
            ::iruserok_af(&address, super, login.c_str(), login.c_str(), AF_INET) == 0 &&
            accountUsable(login.c_str(), l.peerAddress) == 0)
            return 0;
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
