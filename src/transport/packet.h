// Packet exchange on a job connection: the 8-byte header, the whole-buffer
// send and receive pairs, the retry waits, status packets, one server packet,
// the acknowledgement rule and the sender's sleep/wake signal to the backup
// process.
//
// Requires: the job's TransportState, made by the job process from the
// daemon's settings and passed to every routine that sends or receives.
// Fails: the whole-buffer operations, syncSendCode, GetReply and ackIfDue
// return kFailed (100) after logging with their prefix; timeOut returns -1 at
// its limit; signalBackupProcess and the usb pair return -1. Every long wait
// (the 180 s and 72 h send alarms, the receive time-out, timeOut's sleeps, the
// usb alarms) is divided by the time divisor of the settings.
#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <vector>

#include "protocol/packet.h"

namespace tavik::transport {

inline constexpr int kFailed = 100;

// The agent's settings that the packet exchange and the sender use: the
// daemon hands them to each connection's job, with the caller's name; the
// job only reads them.
struct TransportSettings {
    int reconnectKB = 0;
    int reconnectFiles = 0;
    int socketBufferSize = 0;  // 0: system's size; -1: the largest granted
    bool blockingIo = true;
    // Test support: every long time-out is divided by this (1 in production).
    int timeDivisor = 1;
    int divisor() const { return timeDivisor > 0 ? timeDivisor : 1; }
    std::string caller;  // the connection's caller as messages show it
};

// One job connection's transport state: the job process owns it and passes
// it down; the backup's sender, a forked child, works on its own copy.
struct TransportState {
    TransportSettings settings;  // settings.blockingIo chooses the send and receive pair
    // When set, every receive fails once this moment has passed, in both
    // I/O modes, however the bytes trickle in (setReceiveDeadline).
    std::chrono::steady_clock::time_point recvDeadline{};
    bool deadlineSet = false;
    uint16_t ackCounter = 0;
    bool backupAsleep = false;
    bool senderProcess = false;  // only the backup's sender signals its parent
    int lastReportedSleep = 0;
    // The sender's renewal counters: MOF/ENDF payload bytes and ENDF
    // packets since the last renewal.
    uint32_t accSZ = 0;
    uint32_t accNF = 0;
    // The sender's look at the backup's packet queue, for the fill test of
    // nonblockSend: true when the queue holds fewer packets than its
    // capacity. Unset outside a backup's sender.
    std::function<bool()> queueNotFull;
};

using IoRoutine = int (*)(TransportState& t, int fd, uint8_t* buffer, size_t length);

// Receives must be over within `seconds` (divided by the time divisor) from
// now, all of them together; 0 lifts the deadline. A receive that reaches it
// fails as a timed-out receive ("Timed out in Receive, expected = %d rcved =
// %d").
void setReceiveDeadline(TransportState& t, unsigned seconds);

int blockSend(TransportState& t, int fd, const uint8_t* buffer, size_t length);
int nonblockSend(TransportState& t, int fd, const uint8_t* buffer, size_t length);
int blockRecv(TransportState& t, int fd, uint8_t* buffer, size_t length);
int nonblockRecv(TransportState& t, int fd, uint8_t* buffer, size_t length);

// The pair the settings choose.
int sendRoutine(TransportState& t, int fd, const uint8_t* buffer, size_t length);
int recvRoutine(TransportState& t, int fd, uint8_t* buffer, size_t length);

// The timeOut limits.
inline constexpr int kRecvRetryLimit = 1300;
inline constexpr int kZeroSendRetryLimit = 2200;
inline constexpr int kBusySendRetryLimit = 8200;
inline constexpr int kFullQueueRetryLimit = 8201;

int timeOut(TransportState& t, int count, int limit);
int nmseleep(int milliseconds);
// Sleeps `seconds` divided by `divisor`.
void scaledSleep(unsigned seconds, int divisor);
// Arms the real-time alarm for `seconds` divided by `divisor` (at least one
// millisecond); 0 cancels it.
void armAlarm(unsigned seconds, int divisor);

// Data of a code-4 reply: the offered acknowledgement interval and the
// server's version byte.
struct ReadyInfo {
    uint16_t ackInterval = 0;
    int serverVersion = 0;
};
int syncSendCode(TransportState& t, int fd, int8_t code, const ReadyInfo& ready = {});

// Where GetReply puts the payload of data packets (codes 7 and 8).
struct FileDataBuffer {
    std::span<uint8_t> area;
    size_t fill = 0;
};
// Receives one packet; other codes' payloads go to `record`. A payload larger
// than the space it goes to is a failed receive.
int GetReply(TransportState& t, int fd, int8_t& codeOut, std::span<uint8_t> record, FileDataBuffer* fileData = nullptr);

// Bytes read ahead from a connection on which only packets for this reader
// follow (the restore and compare command streams): one recv takes as much as the peer
// has sent, so that a packet of a few kilobytes costs no system call of its
// own.
// The same reader's answers are held in `held` until it would wait for the
// peer: a peer that streams gets many answers in one send, and one that
// waits for each answer has it before the reader waits in turn.
struct ReadAhead {
    static constexpr size_t kSize = 64 * 1024;
    static constexpr size_t kHeldSize = 4 * 1024;  // held answers are sent once this is full
    std::vector<uint8_t> bytes = std::vector<uint8_t>(kSize);
    size_t start = 0;
    size_t end = 0;
    std::vector<uint8_t> held;
};
// syncSendCode held in `ahead` (a code without data); sent at the latest
// before the next receive through `ahead` or by sendHeld.
int holdCode(TransportState& t, int fd, int8_t code, ReadAhead& ahead);
// Sends what `ahead` holds; a failure is logged as syncSendCode's.
int sendHeld(TransportState& t, int fd, ReadAhead& ahead);
// GetReply reading through `ahead`, with blockRecv's failure lines. Only in
// blocking mode without a receive time-out; otherwise (and for bytes not
// yet read ahead) the chosen recvRoutine, as GetReply.
int GetReply(TransportState& t, int fd, int8_t& codeOut, std::span<uint8_t> record, FileDataBuffer* fileData,
             ReadAhead& ahead);

int ackIfDue(TransportState& t, int fd, uint16_t ackInterval);

int signalBackupProcess(TransportState& t, bool wake);

inline constexpr unsigned kUsbSendAlarm = 601;
inline constexpr unsigned kUsbRecvAlarm = 1801;
int usbSend(int fd, const uint8_t* buffer, size_t length, int divisor);
int usbReceive(int fd, uint8_t* buffer, size_t length, int divisor);

// The span-tape alarm periods of blockSend.
inline constexpr unsigned kSendStallSeconds = 180;
inline constexpr unsigned kSpanTapeSeconds = 259200;

}  // namespace tavik::transport
