#include "daemon/trust.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string_view>

#include "daemon/state.h"
#include "log/ulog.h"
#include "platform/fd.h"
#include "platform/whole_io.h"

namespace tavik {
namespace {

constexpr const char* kPrefix = "(trust_cntl) ";
// A list of logins; a longer file is read no further.
constexpr size_t kMaxTrustFile = 64 * 1024;

std::string_view trimmed(std::string_view line) {
    constexpr std::string_view kBlanks = " \t\r";
    size_t first = line.find_first_not_of(kBlanks);
    if (first == std::string_view::npos) return {};
    return line.substr(first, line.find_last_not_of(kBlanks) - first + 1);
}

}  // namespace

bool listedAsTrusted(const std::string& path, const std::string& login) {
    platform::UniqueFd fd(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!fd) {
        if (errno != ENOENT) ulog(MSG_FAIED_OPEN, kPrefix, path.c_str(), errText());
        return false;
    }
    struct stat st {};
    if (::fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode) || st.st_uid != 0 ||
        (st.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
        ulog("%s%s is ignored: it must be a regular file owned by root that only root may write", kPrefix,
             path.c_str());
        return false;
    }
    std::string text(kMaxTrustFile, '\0');
    ssize_t filled = platform::readAll(fd.get(), text.data(), text.size());
    if (filled < 0) {
        ulog(MSG_FAILED_READING, kPrefix, path.c_str(), errText());
        return false;
    }
    std::string_view rest(text.data(), size_t(filled));
    while (!rest.empty()) {
        size_t end = rest.find('\n');
        std::string_view line = trimmed(rest.substr(0, end));
        rest = end == std::string_view::npos ? std::string_view() : rest.substr(end + 1);
        if (line.empty() || line.front() == '#') continue;
        if (line == login) return true;
    }
    return false;
}

void decideTrust(JobContext& ctx) {
    if (settings().singleUser) {
        ctx.trusted = true;
        ctx.keepIdentity = true;
        return;
    }
    const JobUser& user = ctx.jobUser;
    ctx.trusted = user.present && (user.uid == 0 || listedAsTrusted(paths().trustPath, user.name));
    bool asked = ctx.serverVersion > 51 && ctx.request.noSwitchBit() && ctx.request.opMode() != protocol::kOpBrowse;
    ctx.keepIdentity = asked && ctx.trusted;
    if (asked && !ctx.trusted)
        ulog("The request to run without switching to login %s is ignored: the login is not trusted",
             user.name.c_str());
}

}  // namespace tavik
