#include "transport/packet.h"

#include <poll.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>

#include "log/ulog.h"
#include "platform/signals.h"
#include "wire/bytes.h"

namespace tavik::transport {
namespace {


void sleepMicros(long long micros) {
    if (micros < 0) micros = 0;
    timeval tv{};
    tv.tv_sec = static_cast<time_t>(micros / 1000000);
    tv.tv_usec = static_cast<suseconds_t>(micros % 1000000);
    if (::select(0, nullptr, nullptr, nullptr, &tv) < 0) {
        if (errno == EINTR) {
            platform::dispatchPendingSignals();
        } else {
            ulog("%sfailed in select, %s", "(nmseleep) ", errText());
        }
    }
}

}  // namespace

void setReceiveDeadline(TransportState& t, unsigned seconds) {
    t.deadlineSet = seconds != 0;
    t.recvDeadline = std::chrono::steady_clock::now() +
                     std::chrono::microseconds(static_cast<long long>(seconds) * 1000000 / t.settings.divisor());
}

int sendRoutine(TransportState& t, int fd, const uint8_t* buffer, size_t length) {
    return t.settings.blockingIo ? blockSend(t, fd, buffer, length) : nonblockSend(t, fd, buffer, length);
}

int recvRoutine(TransportState& t, int fd, uint8_t* buffer, size_t length) {
    return t.settings.blockingIo ? blockRecv(t, fd, buffer, length) : nonblockRecv(t, fd, buffer, length);
}

void armAlarm(unsigned seconds, int divisor) {
    itimerval it{};
    if (seconds != 0) {
        long long micros = static_cast<long long>(seconds) * 1000000 / (divisor > 0 ? divisor : 1);
        if (micros < 1000) micros = 1000;
        it.it_value.tv_sec = static_cast<time_t>(micros / 1000000);
        it.it_value.tv_usec = static_cast<suseconds_t>(micros % 1000000);
    }
    setitimer(ITIMER_REAL, &it, nullptr);
}

void scaledSleep(unsigned seconds, int divisor) {
    sleepMicros(static_cast<long long>(seconds) * 1000000 / (divisor > 0 ? divisor : 1));
}

int nmseleep(int milliseconds) {
    sleepMicros(static_cast<long long>(milliseconds) * 1000);
    return 0;
}

int timeOut(TransportState& t, int count, int limit) {
    constexpr const char* kPrefix = "(timeOut) ";
    int n = count + 1;
    if (n > limit) return -1;
    if (n > 1000) {
        int wait = (n - 1000) / 100 + 1;
        if (logVerbose() && wait != t.lastReportedSleep) {
            ulog("%sTimeCount=%d, sleep(%d)...", kPrefix, n, wait);
            t.lastReportedSleep = wait;
        }
        scaledSleep(static_cast<unsigned>(wait), t.settings.divisor());
    } else {
        // nmseleep(10), shortened by the time divisor.
        sleepMicros(10000 / t.settings.divisor());
    }
    return n;
}

int signalBackupProcess(TransportState& t, bool wake) {
    pid_t parent = getppid();
    if (::kill(parent, SIGUSR1) != 0) {
        ulog(MSG_FAILED_SEND_SIGNAL_PROCESS, "", static_cast<int>(parent), errText());
        return -1;
    }
    if (wake) {
        ulog(MSG_WAKE_BACKUP_PROCESS_UP, "", static_cast<int>(parent));
        t.backupAsleep = false;
    } else {
        ulog(MSG_PUT_BACKUP_PROCESS_INTO_SLEEP, "", static_cast<int>(parent));
        t.backupAsleep = true;
    }
    return 0;
}


int blockSend(TransportState& t, int fd, const uint8_t* buffer, size_t length) {
    constexpr const char* kPrefix = "(blockSend) ";
    // What the socket takes at once needs no stall alarm: the alarm (and its
    // handler) is set up only when a send would block, so a send that never
    // waits costs no signal or timer calls. The stall period still counts
    // from the moment the socket stops taking data.
    size_t taken = 0;
    while (taken < length) {
        ssize_t n = ::send(fd, buffer + taken, length - taken, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n < 0 && errno == EINTR) {
            platform::dispatchPendingSignals();
            continue;
        }
        if (n <= 0) break;  // would block, or failed: the blocking send below reports it
        if (t.backupAsleep && signalBackupProcess(t, true) != 0) return kFailed;
        taken += static_cast<size_t>(n);
    }
    if (taken == length) return 0;
    buffer += taken;
    length -= taken;
    platform::SavedDisposition saved(SIGALRM);
    // SIGALRM is counted: the first alarm after progress means 180 s without
    // any (the server stopped reading for a tape change), the next one that
    // the 72 hours allowed for the change ran out.
    platform::resetSignalCount(SIGALRM);
    platform::countSignal(SIGALRM);
    armAlarm(kSendStallSeconds, t.settings.divisor());
    long alarms = 0;
    bool changingTapes = false;
    int result = 0;
    size_t sent = 0;
    while (sent < length) {
        ssize_t n = ::send(fd, buffer + sent, length - sent, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) {
            platform::dispatchPendingSignals();
            if (platform::signalCount(SIGALRM) == alarms) continue;
            alarms = platform::signalCount(SIGALRM);
            if (changingTapes) {
                ulog(MSG_SPAN_TAPE_FAILED, kPrefix);
                result = kFailed;
                break;
            }
            // The server stopped reading (a tape change): put the backup
            // process to sleep, then allow 72 hours for progress. Only the
            // backup's sender has a backup process as its parent.
            changingTapes = true;
            if (t.senderProcess && !t.backupAsleep) signalBackupProcess(t, false);
            armAlarm(kSpanTapeSeconds, t.settings.divisor());
            continue;
        }
        if (n < 0) {
            ulog(MSG_FAILED_SEND, kPrefix, errText());
            result = kFailed;
            break;
        }
        if (t.backupAsleep && signalBackupProcess(t, true) != 0) {
            result = kFailed;
            break;
        }
        changingTapes = false;
        armAlarm(kSendStallSeconds, t.settings.divisor());
        alarms = platform::signalCount(SIGALRM);  // an alarm of the old period is spent
        sent += static_cast<size_t>(n);
    }
    armAlarm(0, 1);
    return result;  // `saved` puts the previous SIGALRM disposition back
}

int nonblockSend(TransportState& t, int fd, const uint8_t* buffer, size_t length) {
    constexpr const char* kPrefix = "(nonblockSend) ";
    if (length == 0) return 0;
    size_t sent = 0;
    int zeroCount = 0;
    int busyCount = 0;
    while (sent < length) {
        ssize_t n = ::send(fd, buffer + sent, length - sent, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == ENOMEM)) {
            busyCount = timeOut(t, busyCount, kBusySendRetryLimit);
            if (busyCount == -1) {
                ulog(MSG_SPAN_TAPE_FAILED, kPrefix);
                return kFailed;
            }
            if (busyCount == 1001 && t.senderProcess) {
                if (t.queueNotFull && t.queueNotFull()) scaledSleep(2, t.settings.divisor());
                if (signalBackupProcess(t, false) != 0) return kFailed;
            }
            continue;
        }
        if (n < 0 && errno == EINTR) {
            platform::dispatchPendingSignals();
            continue;
        }
        if (n < 0) {
            ulog(MSG_FAILED_SEND, kPrefix, errText());
            return kFailed;
        }
        if (n == 0) {
            if (zeroCount == 0) ulog("%ssend() return 0!", kPrefix);
            zeroCount = timeOut(t, zeroCount, kZeroSendRetryLimit);
            if (zeroCount == -1) {
                ulog("%ssend() return 0 time out!", kPrefix);
                return kFailed;
            }
            continue;
        }
        if (t.backupAsleep && signalBackupProcess(t, true) != 0) return kFailed;
        zeroCount = 0;
        busyCount = 0;
        sent += static_cast<size_t>(n);
    }
    return 0;
}

namespace {

// Microseconds left before the receive deadline (at least 1 while some are
// left, 0 once it has passed); -1 without a deadline.
long long deadlineLeft(const TransportState& t) {
    if (!t.deadlineSet) return -1;
    auto left = std::chrono::duration_cast<std::chrono::microseconds>(t.recvDeadline - std::chrono::steady_clock::now());
    return left.count() > 0 ? left.count() : 0;
}

// A receive that waited longer than its bound (the deadline, or the
// connection's receive time-out).
int timedOut(const char* prefix, size_t length, size_t got) {
    ulog(MSG_TIMED_OUT_RECEIVE_EXPECTED_RCVED, prefix, static_cast<int>(length), static_cast<int>(got));
    return kFailed;
}

// A receive that failed (n < 0, errno set) or met the end of the stream
// (n == 0): logged with the routine's prefix.
int recvEnded(const char* prefix, ssize_t n) {
    if (n < 0)
        ulog(MSG_FAILED_RECV, prefix, errText());
    else
        ulog("%sEOF received", prefix);
    return kFailed;
}

}  // namespace

int blockRecv(TransportState& t, int fd, uint8_t* buffer, size_t length) {
    constexpr const char* kPrefix = "(blockRecv) ";
    // With a deadline each receive first waits for data at most as long as
    // is left of it: bytes that trickle in do not put it off.
    const bool deadline = t.deadlineSet;
    if (length > 0) std::memset(buffer, 0, length);
    size_t got = 0;
    while (got < length) {
        if (deadline) {
            long long left = deadlineLeft(t);
            pollfd p{fd, POLLIN, 0};
            int ready = left == 0 ? 0 : ::poll(&p, 1, static_cast<int>((left + 999) / 1000));
            if (ready < 0 && errno == EINTR) {
                platform::dispatchPendingSignals();
                continue;
            }
            if (ready == 0) return timedOut(kPrefix, length, got);
        }
        ssize_t n = ::recv(fd, buffer + got, length - got, 0);
        if (n < 0 && errno == EINTR) {
            platform::dispatchPendingSignals();
            continue;
        }
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return timedOut(kPrefix, length, got);
        if (n <= 0) return recvEnded(kPrefix, n);
        got += static_cast<size_t>(n);
    }
    return 0;
}

int nonblockRecv(TransportState& t, int fd, uint8_t* buffer, size_t length) {
    constexpr const char* kPrefix = "(nonblockRecv) ";
    std::printf("%s connfd=%d, torecv=%d\n", kPrefix, fd, static_cast<int>(length));
    std::fflush(stdout);
    if (length == 0) return 0;
    std::memset(buffer, 0, length);
    size_t got = 0;
    int count = 0;
    while (got < length) {
        ssize_t n = ::recv(fd, buffer + got, length - got, MSG_DONTWAIT);
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            count = timeOut(t, count, kRecvRetryLimit);
            if (count == -1 || deadlineLeft(t) == 0) {
                ulog(MSG_TIMED_OUT_RECEIVE_EXPECTED_RCVED, kPrefix, static_cast<int>(length),
                     static_cast<int>(got));
                return kFailed;
            }
            continue;
        }
        if (n < 0 && errno == EINTR) {
            platform::dispatchPendingSignals();
            continue;
        }
        if (n <= 0) return recvEnded(kPrefix, n);
        count = 0;
        got += static_cast<size_t>(n);
    }
    return 0;
}

int syncSendCode(TransportState& t, int fd, int8_t packetCode, const ReadyInfo& ready) {
    protocol::PacketHeader h;
    h.code = packetCode;
    if (packetCode == protocol::code::kReady) {
        h.value = ready.ackInterval;
        h.version = ready.serverVersion >= protocol::kNewServerVersion ? static_cast<uint8_t>(ready.serverVersion)
                                                             : protocol::kOldReadyVersion;
    }
    protocol::HeaderBytes bytes = protocol::encodeHeader(h);
    if (sendRoutine(t, fd, bytes.data(), bytes.size()) != 0) {
        ulog(MSG_SEND_COMMAND_0X_FAILED, "(sync_send_code) ", static_cast<unsigned>(static_cast<uint8_t>(packetCode)));
        return kFailed;
    }
    return 0;
}

int holdCode(TransportState& t, int fd, int8_t code, ReadAhead& ahead) {
    protocol::PacketHeader h;
    h.code = code;
    protocol::HeaderBytes bytes = protocol::encodeHeader(h);
    ahead.held.insert(ahead.held.end(), bytes.begin(), bytes.end());
    return ahead.held.size() + bytes.size() > ReadAhead::kHeldSize ? sendHeld(t, fd, ahead) : 0;
}

int sendHeld(TransportState& t, int fd, ReadAhead& ahead) {
    if (ahead.held.empty()) return 0;
    int r = sendRoutine(t, fd, ahead.held.data(), ahead.held.size());
    if (r != 0) {
        uint8_t first = ahead.held[protocol::kHeaderCodeAt];
        ulog(MSG_SEND_COMMAND_0X_FAILED, "(sync_send_code) ", static_cast<unsigned>(first));
    }
    ahead.held.clear();
    return r == 0 ? 0 : kFailed;
}

namespace {

template <typename Receive>
int getReplyWith(int8_t& codeOut, std::span<uint8_t> record, FileDataBuffer* fileData, Receive receive) {
    constexpr const char* kPrefix = "(GetReply) ";
    protocol::HeaderBytes bytes{};
    if (receive(bytes.data(), bytes.size()) != 0) {
        ulog(MSG_FAILED_RECEIVE_HEADER_PACKET, kPrefix);
        return kFailed;
    }
    protocol::PacketHeader h = protocol::decodeHeader(bytes);
    codeOut = h.code;
    if (h.length == 0) return 0;
    uint8_t* target = nullptr;
    bool fits = false;
    if ((h.code == protocol::code::kMof || h.code == protocol::code::kEndf) && fileData) {
        size_t room = fileData->fill <= fileData->area.size() ? fileData->area.size() - fileData->fill : 0;
        fits = h.length <= room;
        if (fits) target = fileData->area.data() + fileData->fill;
    } else {
        fits = h.length <= record.size();
        target = record.data();
    }
    if (!fits || receive(target, h.length) != 0) {
        ulog(MSG_FAILED_RECEIVE_DATA_PACKET, kPrefix);
        return kFailed;
    }
    if ((h.code == protocol::code::kMof || h.code == protocol::code::kEndf) && fileData) fileData->fill += h.length;
    return 0;
}

// blockRecv served from `ahead` first; one recv refills it, once the held
// answers are sent.
int aheadRecv(TransportState& t, int fd, uint8_t* buffer, size_t length, ReadAhead& ahead) {
    constexpr const char* kPrefix = "(blockRecv) ";
    size_t got = 0;
    while (got < length) {
        if (ahead.start < ahead.end) {
            size_t take = ahead.end - ahead.start;
            if (take > length - got) take = length - got;
            std::memcpy(buffer + got, ahead.bytes.data() + ahead.start, take);
            ahead.start += take;
            got += take;
            continue;
        }
        if (sendHeld(t, fd, ahead) != 0) return kFailed;
        bool plain = t.settings.blockingIo && !t.deadlineSet;
        if (!plain) return recvRoutine(t, fd, buffer + got, length - got);
        ssize_t n = ::recv(fd, ahead.bytes.data(), ahead.bytes.size(), 0);
        if (n < 0 && errno == EINTR) {
            platform::dispatchPendingSignals();
            continue;
        }
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return timedOut(kPrefix, length, got);
        if (n <= 0) return recvEnded(kPrefix, n);
        ahead.start = 0;
        ahead.end = static_cast<size_t>(n);
    }
    return 0;
}

}  // namespace

int GetReply(TransportState& t, int fd, int8_t& codeOut, std::span<uint8_t> record, FileDataBuffer* fileData) {
    return getReplyWith(codeOut, record, fileData,
                        [&t, fd](uint8_t* buffer, size_t length) { return recvRoutine(t, fd, buffer, length); });
}

int GetReply(TransportState& t, int fd, int8_t& codeOut, std::span<uint8_t> record, FileDataBuffer* fileData,
             ReadAhead& ahead) {
    return getReplyWith(codeOut, record, fileData, [&t, fd, &ahead](uint8_t* buffer, size_t length) {
        return aheadRecv(t, fd, buffer, length, ahead);
    });
}

int ackIfDue(TransportState& t, int fd, uint16_t ackInterval) {
    if (ackInterval == 0) return 0;
    if (ackInterval != 1) {
        t.ackCounter = static_cast<uint16_t>((t.ackCounter + 1) % ackInterval);
        if (t.ackCounter != 0) return 0;
    }
    return syncSendCode(t, fd, protocol::code::kOk) == 0 ? 0 : kFailed;
}

namespace {

// One whole send or receive of the browse protocol under its own alarm
// (for the whole message, however the network cuts it into segments); the
// two directions differ only in the call, the alarm and the texts.
int usbTransfer(bool sending, int fd, uint8_t* buffer, size_t length, int divisor) {
    const char* prefix = sending ? "(usbSend) " : "(usbReceive) ";
    platform::SavedDisposition saved(SIGALRM);
    platform::installHandler(SIGALRM, platform::interruptOnly);
    armAlarm(sending ? kUsbSendAlarm : kUsbRecvAlarm, divisor);
    size_t done = 0;
    ssize_t n = 0;
    while (done < length) {
        n = sending ? ::send(fd, buffer + done, length - done, MSG_NOSIGNAL) : ::recv(fd, buffer + done, length - done, 0);
        if (n <= 0) break;  // an end of stream, an error, or the alarm (EINTR)
        done += static_cast<size_t>(n);
    }
    int savedErrno = errno;
    armAlarm(0, divisor);
    if (done == length) return 0;
    if (n >= 0) {
        ulog(sending ? MSG_FAILED_SEND_BYTES_LENGTH : MSG_FAILED_RECV_BYTES_LENGTH, prefix, static_cast<int>(length),
             static_cast<int>(done));
        return -1;
    }
    errno = savedErrno;
    if (errno == EINTR) ulog(sending ? MSG_SEND_TIMEOUT : MSG_RECV_TIMEOUT, prefix);
    errno = savedErrno;
    ulog(sending ? MSG_FAILED_SEND : MSG_FAILED_RECV, prefix, errText());
    return -1;
}

}  // namespace

int usbSend(int fd, const uint8_t* buffer, size_t length, int divisor) {
    // send() does not write to the buffer; the shared helper takes it mutable for recv().
    return usbTransfer(true, fd, const_cast<uint8_t*>(buffer), length, divisor);
}

int usbReceive(int fd, uint8_t* buffer, size_t length, int divisor) {
    return usbTransfer(false, fd, buffer, length, divisor);
}

}  // namespace tavik::transport
