// Admission of a job's caller and the job process's identity switch.
//
// The listener admits a caller by single-user mode, by host equivalence
// (the hosts.equiv and .rhosts test for the caller's address and the
// request's login) or by the login's password, which arrives scrambled in
// the request and is checked against the shadow file with the platform's
// crypt (any scheme it knows: yescrypt, SHA-512, DES). Either way the
// account must be usable: the system's account management (PAM's account
// check, so expiry, locks and site policies apply) and the shadow file's
// expiry date decide; an expired or locked account is refused like a wrong
// password. An unknown login, or one without a usable hash, costs the same
// hash as a known one. A refused caller gets 113 or 115 and its connection
// is closed here. The job process switches to the login's groups, group id
// and user id with chuid, which then checks that root cannot be regained.
// The descrambled password is wiped after use.
#pragma once

#include <sys/types.h>

#include <array>
#include <cstdint>

#include "request/job_context.h"
#include "protocol/request.h"
#include "platform/secret.h"

namespace tavik {

// 0 right password; -1 wrong, or the account is expired or locked; -2 login
// unknown in the password or shadow file. Sets `user`.
int ckpasswd(JobUser& user, const char* login, const char* plain);
// 1 when the login exists with user id 0. Sets `user`.
int isSuperuser(JobUser& user, const char* login);
// 0 when the account may be used now (the system's account check, and the
// shadow file's expiry date); -1 after a log line saying why not.
int accountUsable(const char* login, const char* peerAddress);
// 0 admitted; -1 refused: the refusal code was sent on listener().jobSocket,
// which is closed and set to -1.
int checkLogin(JobContext& ctx);
// The whole admission of the listener: single-user, host equivalence, password.
int admitCaller(JobContext& ctx);
// 0 when groups, group id and user id were all set; -1 otherwise (all three
// are tried). A process that was root and could get root back fails.
int chuid(const char* name, uid_t uid, gid_t gid);

}  // namespace tavik
