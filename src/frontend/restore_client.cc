#include "frontend/restore_client.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <time.h>

#include <cerrno>
#include <cstring>

#include "protocol/packet.h"
#include "protocol/request.h"
#include "protocol/restore_record.h"
#include "wire/bytes.h"

namespace tavik::frontend {
namespace {

constexpr size_t kAnswerSize = 8;
constexpr size_t kAnswerCodeAt = 2;
constexpr size_t kAnswerLengthAt = 6;
constexpr size_t kReadSize = 64 * 1024;

int64_t nowMs() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return int64_t(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

std::string trimSlashes(const std::string& text) {
    size_t first = text.find_first_not_of('/');
    if (first == std::string::npos) return {};
    size_t last = text.find_last_not_of('/');
    return text.substr(first, last - first + 1);
}

bool below(const std::string& path, const std::string& top) {
    return path.size() > top.size() && path[top.size()] == '/' && path.compare(0, top.size(), top) == 0;
}

}  // namespace

bool parseConflictPolicy(const std::string& word, uint8_t& out) {
    if (word == "skip") out = protocol::conflict_policy::kSkip;
    else if (word == "rename") out = protocol::conflict_policy::kRename;
    else if (word == "overwrite") out = protocol::conflict_policy::kOverwrite;
    else if (word == "newer") out = protocol::conflict_policy::kNewer;
    else return false;
    return true;
}

std::string restoreStatusWords(uint8_t status) {
    namespace s = protocol::status;
    switch (status) {
    case s::kRestored: return "restored";
    case s::kNoSpace: return "no space left on the agent's file system (the job ended)";
    case s::kCannotCreate: return "cannot be created, or a directory of that name is in the way";
    case s::kOwnerOrMode: return "owner or mode could not be set";
    case s::kTimes: return "times could not be set";
    case s::kWriteFailed: return "a write failed";
    case s::kLinkFailed: return "the hard link could not be made";
    case s::kSpecialRefused: return "special file refused or not created (only the super-user may make one)";
    case s::kCannotOpen: return "the file could not be opened";
    case s::kLockTestFailed: return "the lock test failed";
    case s::kLocked: return "locked by another process";
    case s::kSkipped: return "skipped by the conflict policy";
    default: return "unknown status " + std::to_string(status);
    }
}

size_t splitAnswers(std::span<const uint8_t> bytes, const std::function<void(uint8_t code)>& each) {
    size_t used = 0;
    while (bytes.size() - used >= kAnswerSize) {
        const uint8_t* h = bytes.data() + used;
        size_t length = wire::loadLe16(h + kAnswerLengthAt);
        if (bytes.size() - used - kAnswerSize < length) break;
        each(h[kAnswerCodeAt]);
        used += kAnswerSize + length;
    }
    return used;
}

bool openRestoreJob(JobClient& client, const RestoreJobSpec& job, std::string& error) {
    client.setTimeoutMs(job.timeoutMs);
    if (!client.connect(job.host, job.port)) {
        error = client.lastError();
        return false;
    }
    RequestFields fields = loginRequest(job.login, job.destination, protocol::kOpRestore);
    fields.conflict = job.conflict;
    int answer = client.request(fields);
    if (answer != protocol::code::kReady) {
        std::string why = answer == kNoAnswer ? client.lastError() : "unexpected answer " + std::to_string(answer);
        switch (answer) {
        case protocol::code::kPathFailed: why = "the destination could not be made or entered (105)"; break;
        case protocol::code::kLoginFailed: why = "login failed (113)"; break;
        case protocol::code::kUnknownUser: why = "unknown user (115)"; break;
        case protocol::code::kNotAbsolute: why = "the destination is not absolute (116)"; break;
        case protocol::code::kIdentityFailed: why = "the agent could not switch to the user's identity (119)"; break;
        default: break;
        }
        error = "job refused: " + why;
        return false;
    }
    // No acknowledgements: the stream flows without waiting.
    if (!client.start(0)) {
        error = client.lastError();
        return false;
    }
    return true;
}

bool RestoreSelection::add(const std::string& argument, const std::string& source, std::string& error) {
    std::string path = argument;
    std::string base = trimSlashes(source);
    std::string trimmed = trimSlashes(path);
    if (!argument.empty() && argument[0] == '/') {
        // An absolute argument names a path of the backed-up machine.
        if (trimmed == base) trimmed.clear();
        else if (below(trimmed, base) && !base.empty()) trimmed = trimmed.substr(base.size() + 1);
        else if (!base.empty()) {
            error = "'" + argument + "' is not below the archive's source " + source;
            return false;
        }
    }
    for (size_t at = 0; at <= trimmed.size();) {
        size_t slash = trimmed.find('/', at);
        std::string part = trimmed.substr(at, slash == std::string::npos ? std::string::npos : slash - at);
        if (!trimmed.empty() && (part.empty() || part == "." || part == "..")) {
            error = "'" + argument + "' holds an empty, '.' or '..' component";
            return false;
        }
        if (slash == std::string::npos) break;
        at = slash + 1;
    }
    paths_.push_back(trimmed);
    met_.push_back(false);
    return true;
}

bool RestoreSelection::selects(const std::string& path) const {
    if (paths_.empty()) return true;
    for (const std::string& p : paths_)
        if (p.empty() || path == p || below(path, p)) return true;
    return false;
}

bool RestoreSelection::isAbove(const std::string& path) const {
    for (const std::string& p : paths_)
        if (path.empty() ? !p.empty() : below(p, path)) return true;
    return false;
}

void RestoreSelection::met(const std::string& path) {
    for (size_t i = 0; i < paths_.size(); ++i)
        if (paths_[i] == path) met_[i] = true;
}

std::vector<std::string> RestoreSelection::unmet() const {
    std::vector<std::string> out;
    for (size_t i = 0; i < paths_.size(); ++i)
        if (!met_[i]) out.push_back(paths_[i]);
    return out;
}

RestoreSender::RestoreSender(platform::UniqueFd connection, std::string destination, int timeoutMs)
    : fd_(std::move(connection)),
      destination_(std::move(destination)),
      timeoutMs_(timeoutMs),
      encoder_([this](std::span<const uint8_t> packet) { return append(packet); }) {
    int flags = ::fcntl(fd_.get(), F_GETFL);
    if (flags >= 0) ::fcntl(fd_.get(), F_SETFL, flags | O_NONBLOCK);
    out_.reserve(kWriteSize + kAnswerSize + protocol::kMaxRecordSize + protocol::kMaxDataPayload);
    startMs_ = nowMs();
}

void RestoreSender::fail(const std::string& path, uint8_t status, const std::string& words) {
    ++stats_.failureCount;
    if (stats_.failures.size() < kMaxFailures) stats_.failures.push_back({path, status, words});
}

bool RestoreSender::broken(const std::string& why) {
    if (error_.empty()) error_ = why;
    closed_ = true;
    return false;
}

void RestoreSender::tick() {
    if (!progress_) return;
    int64_t now = nowMs();
    if (now - lastProgressMs_ < progressMs_) return;
    lastProgressMs_ = now;
    stats_.seconds = double(now - startMs_) / 1000.0;
    progress_(stats_);
}

bool RestoreSender::append(std::span<const uint8_t> packet) {
    if (closed_) return false;
    out_.insert(out_.end(), packet.begin(), packet.end());
    stats_.bytesSent += packet.size();
    if (out_.size() >= kWriteSize) return flush();
    return true;
}

void RestoreSender::answer(uint8_t code) {
    ++stats_.answers;
    if (pending_.empty()) {
        if (endSent_ && code == static_cast<uint8_t>(protocol::code::kEnd)) {
            stats_.ended = true;
        } else {
            broken("an answer (" + std::to_string(code) + ") for no file");
        }
        return;
    }
    Pending done = std::move(pending_.front());
    pending_.pop_front();
    const std::string& path = done.path;
    if (code == protocol::status::kSkipped) {
        ++stats_.skipped;
    } else if (!done.dropWords.empty()) {
        fail(path, code, done.dropWords);
    } else if (code == protocol::status::kRestored) {
        ++stats_.restored;
    } else {
        fail(path, code, restoreStatusWords(code));
    }
}

bool RestoreSender::readAnswers() {
    for (;;) {
        size_t had = in_.size();
        in_.resize(had + kReadSize);
        ssize_t n = ::recv(fd_.get(), in_.data() + had, kReadSize, 0);
        in_.resize(had + (n > 0 ? size_t(n) : 0));
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) break;
        if (n <= 0) {
            // The agent closed (or reset) the connection: it ends the job
            // after END and after a "no space" status.
            closed_ = true;
            break;
        }
    }
    size_t used = splitAnswers(in_, [this](uint8_t code) { answer(code); });
    in_.erase(in_.begin(), in_.begin() + static_cast<std::ptrdiff_t>(used));
    return !closed_;
}

bool RestoreSender::flush() {
    size_t sent = 0;
    while (sent < out_.size()) {
        pollfd p{fd_.get(), POLLIN | POLLOUT, 0};
        int ready = ::poll(&p, 1, timeoutMs_);
        if (ready < 0 && errno == EINTR) continue;
        if (ready < 0) return broken(std::string("poll failed: ") + std::strerror(errno));
        if (ready == 0) return broken("the agent took no data for " + std::to_string(timeoutMs_ / 1000) + " s");
        if (p.revents & (POLLIN | POLLHUP | POLLERR)) {
            if (!readAnswers()) {
                out_.clear();
                return broken("the agent closed the connection");
            }
        }
        if (p.revents & POLLOUT) {
            ssize_t n = ::send(fd_.get(), out_.data() + sent, out_.size() - sent, MSG_NOSIGNAL);
            if (n < 0 && (errno == EINTR || errno == EAGAIN || errno == EWOULDBLOCK)) continue;
            if (n <= 0) {
                std::string why = std::string("send failed: ") + std::strerror(errno);
                out_.clear();
                readAnswers();  // what the agent said before it went
                return broken(why);
            }
            sent += size_t(n);
        }
    }
    out_.clear();
    tick();
    return true;
}

bool RestoreSender::directory(const std::string& path, const protocol::BackupAttributes& attributes) {
    std::string full = restorePathFor(destination_, path);
    if (full.size() > protocol::kMaxNameLength) {
        notSent(path, "the name is longer than the agent takes (1023 bytes)");
        return !closed_;
    }
    if (!encoder_.directory(attributes, full)) return closed_ ? false : broken("cannot encode directory " + path);
    ++stats_.directories;
    return true;
}

bool RestoreSender::beginFile(const std::string& path, const protocol::BackupAttributes& attributes) {
    std::string full = restorePathFor(destination_, path);
    if (full.size() > protocol::kMaxNameLength) {
        notSent(path, "the name is longer than the agent takes (1023 bytes)");
        return !closed_;
    }
    if (!encoder_.beginFile(attributes, full)) return closed_ ? false : broken("cannot encode file " + path);
    currentPath_ = path;
    inFile_ = true;
    ++stats_.files;
    return true;
}

bool RestoreSender::data(std::span<const uint8_t> bytes) {
    if (!inFile_) return !closed_;
    stats_.dataBytes += bytes.size();
    return encoder_.data(bytes);
}

bool RestoreSender::endFile() {
    if (!inFile_) return !closed_;
    inFile_ = false;
    pending_.push_back({std::move(currentPath_), {}});
    return encoder_.endFile();
}

bool RestoreSender::dropFile(const std::string& words) {
    if (!inFile_) return !closed_;
    inFile_ = false;
    pending_.push_back({std::move(currentPath_), "the backup could not read all of its data (" + words +
                                                     "); removed again"});
    if (!encoder_.endFile()) return false;
    return append(buildCommand(protocol::code::kUnlink, 0, {}));
}

void RestoreSender::notSent(const std::string& path, const std::string& words) { fail(path, 0, words); }

bool RestoreSender::finish() {
    // A file left open (the archive broke off inside it) is ended and
    // removed first: END is refused inside a file. A failure here leaves
    // the sender closed, which the wait below sees.
    if (inFile_ && !dropFile("the archive breaks off inside it")) closed_ = true;
    if (!closed_) {
        endSent_ = true;
        if (!encoder_.end() || !flush()) closed_ = true;  // what the agent answered is collected below
    }
    int64_t deadline = nowMs() + timeoutMs_;
    while (!stats_.ended && !closed_) {
        int64_t left = deadline - nowMs();
        if (left <= 0) {
            broken("no answer to END from the agent");
            break;
        }
        pollfd p{fd_.get(), POLLIN, 0};
        int ready = ::poll(&p, 1, int(left));
        if (ready < 0 && errno == EINTR) continue;
        if (ready < 0) {
            broken(std::string("poll failed: ") + std::strerror(errno));
            break;
        }
        if (ready > 0) readAnswers();
    }
    stats_.seconds = double(nowMs() - startMs_) / 1000.0;
    bool stoppedForSpace = false;
    for (const RestoreFailure& f : stats_.failures)
        if (f.status == protocol::status::kNoSpace) stoppedForSpace = true;
    while (!pending_.empty()) {
        std::string path = std::move(pending_.front().path);
        pending_.pop_front();
        fail(path, 0,
             stoppedForSpace ? "not restored: the agent ended the job for lack of space"
                             : "no status from the agent: " + (error_.empty() ? std::string("job ended") : error_));
    }
    if (!stats_.ended && error_.empty()) error_ = "the agent ended the job before END";
    fd_.reset();
    return stats_.ended;
}

bool replayArchive(ArchiveWalker& walker, RestoreSelection& selection, RestoreSender& sender, std::string& error) {
    TreeEvent e;
    bool groomData = false;
    for (;;) {
        switch (walker.next(e)) {
        case ArchiveWalker::Next::kError:
            error = walker.error();
            return false;
        case ArchiveWalker::Next::kEnd:
            return true;
        case ArchiveWalker::Next::kEvent:
            break;
        }
        bool ok = true;
        switch (e.type) {
        case TreeEvent::Type::kEntry:
            groomData = false;
            if (sender.inFile()) ok = sender.dropFile("its data end early");
            selection.met(e.path);
            if (e.isDirectory) {
                // The destination itself is made by the agent before the job.
                if (!e.path.empty() && (selection.selects(e.path) || selection.isAbove(e.path)))
                    ok = ok && sender.directory(e.path, e.attributes);
            } else if (selection.selects(e.path)) {
                ok = ok && sender.beginFile(e.path, e.attributes);
            }
            break;
        case TreeEvent::Type::kData:
            if (groomData || !sender.inFile()) break;
            ok = sender.data(e.data) && (!e.last || sender.endFile());
            break;
        case TreeEvent::Type::kProblem:
            selection.met(e.path);
            if (sender.inFile()) {
                ok = sender.dropFile(statusWords(e.code));
            } else if (selection.selects(e.path)) {
                sender.notSent(e.path, std::string("not in the archive: ") + statusName(e.code) + ", " +
                                           statusWords(e.code));
            }
            break;
        case TreeEvent::Type::kGroomCount:
            groomData = true;
            break;
        case TreeEvent::Type::kDirClose:
        case TreeEvent::Type::kEnd:
            break;
        }
        if (!ok) {
            error = sender.error();
            return false;
        }
    }
}

}  // namespace tavik::frontend
