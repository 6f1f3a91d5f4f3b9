#include "platform/uname.h"

#include <sys/utsname.h>

#include <cstring>

namespace tavik::platform {
namespace {

void copyField(char (&to)[kUnameFieldSize], const char* from, size_t fromSize) {
    size_t len = strnlen(from, fromSize);
    if (len >= kUnameFieldSize) len = kUnameFieldSize - 1;
    std::memcpy(to, from, len);
}

}  // namespace

int nuname(MachineName& out) {
    std::memset(&out, 0, sizeof out);
    struct utsname u;
    if (::uname(&u) != 0) return -1;
    copyField(out.sysname, u.sysname, sizeof u.sysname);
    copyField(out.nodename, u.nodename, sizeof u.nodename);
    copyField(out.release, u.release, sizeof u.release);
    copyField(out.version, u.version, sizeof u.version);
    copyField(out.machine, u.machine, sizeof u.machine);
    return 0;
}

}  // namespace tavik::platform
