#include "frontend/backup_client.h"

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>

#include "platform/whole_io.h"
#include "protocol/commands.h"
#include "protocol/request.h"
#include "wire/bytes.h"

namespace tavik::frontend {
namespace {

namespace code = protocol::code;

int64_t nowMs() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return int64_t(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}


}  // namespace

std::vector<uint8_t> encodeJobOptions(const BackupJobSpec& job) {
    std::vector<uint8_t> record(kJobOptionsSize, 0);
    wire::storeLe16(&record[kOptRetryCountAt], job.retryCount);
    wire::storeLe16(&record[kOptRetryIntervalAt], job.retryInterval);
    record[kOptFlagsAt] = job.optionFlags;
    return record;
}

std::string refusalText(int answer) {
    switch (answer) {
    case kNoAnswer: return "no answer";
    case code::kPathFailed: return "the path could not be made or entered (105)";
    case code::kLoginFailed: return "login failed (113)";
    case code::kProtectedDir: return "the directory is protected (114)";
    case code::kUnknownUser: return "unknown user (115)";
    case code::kNotAbsolute: return "the path is not absolute (116)";
    case code::kNoAccess: return "the directory is not accessible (118)";
    case code::kIdentityFailed: return "the agent could not switch to the user's identity (119)";
    case code::kRejected: return "command rejected (5)";
    default: return "unexpected answer " + std::to_string(answer);
    }
}

bool openBackupJob(JobClient& client, const BackupJobSpec& job, std::string& error) {
    if (job.login.serverVersion < protocol::kNewServerVersion &&
        (!job.filterItems.empty() || job.optionFlags != 0)) {
        error = "filters and job options need server version 50 or more";
        return false;
    }
    if (job.filterItems.size() > 0xFFFF) {
        error = "too many filter items";
        return false;
    }
    client.setTimeoutMs(job.timeoutMs);
    if (!client.connect(job.host, job.port)) {
        error = client.lastError();
        return false;
    }
    RequestFields fields = loginRequest(job.login, job.source, protocol::kOpBackup);
    fields.follow = job.follow;
    fields.tpSize = uint16_t(job.filterItems.size());
    int answer = client.request(fields);
    if (answer != code::kReady) {
        error = "job refused: " + (answer == kNoAnswer ? client.lastError() : refusalText(answer));
        return false;
    }
    if (job.login.serverVersion < protocol::kNewServerVersion) return true;
    std::vector<uint8_t> raw = encodeJobOptions(job);
    for (const auto& item : job.filterItems) raw.insert(raw.end(), item.begin(), item.end());
    if (!client.sendRaw(raw)) {
        error = client.lastError();
        return false;
    }
    return true;
}

bool startBackupJob(JobClient& client, const BackupJobSpec& job, std::string& error) {
    if (!job.topNames.empty()) {
        int answer = client.diskItem(job.topNames);
        if (answer != code::kReady) {
            error = "DISK_ITEM: " + (answer == kNoAnswer ? client.lastError() : refusalText(answer));
            return false;
        }
    }
    if (!sendGrooming(client, job.groom, error)) return false;
    if (job.restart) {
        int answer = client.continueAt(job.restart->first, job.restart->second);
        if (answer != code::kReady) {
            error = "continue: " + (answer == kNoAnswer ? client.lastError() : refusalText(answer));
            return false;
        }
    }
    if (!client.start(job.ackInterval)) {
        error = client.lastError();
        return false;
    }
    return true;
}

bool estimateJob(JobClient& client, const BackupJobSpec& job, uint32_t& files, uint32_t& kilobytes,
                 std::string& error) {
    std::vector<uint8_t> payload(job.source.begin(), job.source.end());
    payload.push_back(0);
    for (const std::string& name : job.topNames) {
        payload.insert(payload.end(), name.begin(), name.end());
        payload.push_back(0);
    }
    int answer = client.command(protocol::command::kEstimate, payload);
    if (answer != code::kReady) {
        error = "ESTIMATE: " + (answer == kNoAnswer ? client.lastError() : refusalText(answer));
        return false;
    }
    std::array<uint8_t, protocol::kEstimateReplySize> reply{};
    if (!client.recvRaw(reply)) {
        error = "ESTIMATE: " + client.lastError();
        return false;
    }
    files = wire::loadLe32(&reply[0]);
    kilobytes = wire::loadLe32(&reply[4]);
    return true;
}

// ---- receiving the stream ----

bool StreamReceiver::acknowledge() {
    protocol::PacketHeader ack;  // code 0, header only
    protocol::HeaderBytes bytes = protocol::encodeHeader(ack);
    if (!platform::sendAll(fd_.get(), bytes.data(), bytes.size())) {
        error_ = std::string("cannot send an acknowledgement: ") + std::strerror(errno);
        return false;
    }
    ++stats_.acks;
    return true;
}

bool StreamReceiver::renew(uint16_t port) {
    sockaddr_in peer{};
    socklen_t len = sizeof peer;
    if (::getpeername(fd_.get(), reinterpret_cast<sockaddr*>(&peer), &len) != 0 || peer.sin_family != AF_INET) {
        error_ = std::string("renewal: cannot tell the agent's address: ") + std::strerror(errno);
        return false;
    }
    peer.sin_port = htons(port);
    platform::UniqueFd next(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!next || ::connect(next.get(), reinterpret_cast<const sockaddr*>(&peer), sizeof peer) != 0) {
        error_ = "renewal: cannot connect to port " + std::to_string(port) + ": " + std::strerror(errno);
        return false;
    }
    fd_ = std::move(next);
    ++stats_.renewals;
    renewed_ = true;
    return true;
}

bool StreamReceiver::handle(const protocol::PacketHeader& header, std::span<const uint8_t> payload) {
    const int8_t c = header.code;
    if (!treeBroken_) {
        TreeEvent event;
        switch (tree_.push(header, payload, event)) {
        case TreeWalker::Result::kError:
            treeBroken_ = true;
            stats_.structureError = tree_.error();
            break;
        case TreeWalker::Result::kSkip: break;
        case TreeWalker::Result::kEvent:
            if (event.type == TreeEvent::Type::kEntry) ++stats_.entries;
            if (event.type == TreeEvent::Type::kGroomCount) {
                stats_.groomed = true;
                stats_.groomCount = event.text;
            }
            if (event.type == TreeEvent::Type::kData && stats_.groomed)
                stats_.groomReport.append(event.data.begin(), event.data.end());
            if (event.type == TreeEvent::Type::kProblem) {
                if (c != code::kReadErr && c != code::kNoDir && !(c == code::kNoFile && event.path.empty()))
                    ++stats_.entries;
                if (stats_.problems.size() < kMaxProblems) stats_.problems.push_back({c, event.path});
                ++stats_.problemCount;
            }
            break;
        }
    }
    if (c == code::kMof || c == code::kEndf) stats_.dataBytes += payload.size();
    if (c == code::kEnd) stats_.complete = true;
    if (ackInterval_ != 0 && (c == code::kFileHeader || c == code::kMof || c == code::kEndf)) {
        bool due = ackInterval_ == 1;
        if (!due) {
            ackCounter_ = uint16_t((ackCounter_ + 1) % ackInterval_);
            due = ackCounter_ == 0;
        }
        if (due && !acknowledge()) return false;
    }
    if (c == code::kNewPort && !renew(header.value)) return false;
    return true;
}

bool StreamReceiver::flushParsed(std::vector<uint8_t>& buffer, size_t parsed) {
    if (parsed == 0) return true;
    if (writer_ && !writer_->writeBody({buffer.data(), parsed})) {
        error_ = writer_->error();
        return false;
    }
    return true;
}

void StreamReceiver::keepParsed(std::vector<uint8_t>& buffer, size_t parsed) {
    // On the way out after a failure: the archive keeps what arrived whole.
    std::string first = error_;
    if (!flushParsed(buffer, parsed)) error_ = first + "; " + error_;
    else error_ = first;
}

bool StreamReceiver::run(platform::UniqueFd connection) {
    fd_ = std::move(connection);
    std::vector<uint8_t> buffer(kReadBuffer);
    static_assert(kReadBuffer >= protocol::kHeaderSize + 0xFFFF, "a whole packet fits the buffer");
    size_t fill = 0;
    const int64_t started = nowMs();
    int64_t lastProgress = started;
    struct Clock {  // records the receive time on every way out
        ReceiveStats& stats;
        int64_t started;
        ~Clock() {
            if (stats.seconds == 0) stats.seconds = double(nowMs() - started) / 1000.0;
        }
    } clock{stats_, started};
    while (!stats_.complete) {
        size_t n = 0;
        switch (platform::recvSome(fd_.get(), buffer.data() + fill, buffer.size() - fill, timeoutMs_, n)) {
            case platform::Received::Data: break;
            case platform::Received::TimedOut:
                error_ = "the agent sent nothing for " + std::to_string(timeoutMs_ / 1000) + " s";
                return false;
            case platform::Received::Closed:
                error_ = "the agent closed the connection before the end of the backup";
                return false;
            case platform::Received::Failed:
                error_ = std::string("receive failed: ") + std::strerror(errno);
                return false;
        }
        fill += n;
        stats_.bytes += uint64_t(n);

        size_t parsed = 0;
        renewed_ = false;
        while (fill - parsed >= protocol::kHeaderSize && !stats_.complete && !renewed_) {
            protocol::HeaderBytes hb{};
            std::memcpy(hb.data(), buffer.data() + parsed, hb.size());
            protocol::PacketHeader h = protocol::decodeHeader(hb);
            size_t total = protocol::kHeaderSize + h.length;  // at most 65543: fits the buffer
            if (fill - parsed < total) break;
            ++stats_.packets;
            if (!handle(h, {buffer.data() + parsed + protocol::kHeaderSize, h.length})) {
                keepParsed(buffer, parsed + total);
                return false;
            }
            parsed += total;
        }
        if (renewed_ && parsed != fill) {
            error_ = "the agent sent more after announcing a new port";
            keepParsed(buffer, parsed);
            return false;
        }
        if (stats_.complete) fill = parsed;  // nothing belongs to the stream after END
        if (!flushParsed(buffer, parsed)) return false;
        std::memmove(buffer.data(), buffer.data() + parsed, fill - parsed);
        fill -= parsed;
        if (progress_) {
            int64_t now = nowMs();
            if (now - lastProgress >= progressMs_) {
                lastProgress = now;
                progress_(stats_);
            }
        }
    }
    stats_.seconds = double(nowMs() - started) / 1000.0;
    // The agent waits for the server to close the connection after END.
    if (holdAfterEndMs_ > 0) ::poll(nullptr, 0, holdAfterEndMs_);
    fd_.reset();
    return true;
}

}  // namespace tavik::frontend
