// Whole-buffer I/O: each call moves every byte it was asked for or says why
// not. EINTR is retried (optionally after running the deferred signal
// actions, for callers inside a job that must act on recorded signals while
// they wait); no call raises SIGPIPE.
#pragma once

#include <sys/types.h>

#include <cstddef>

namespace tavik::platform {

// write(2) all of `data`: true, or false with errno set.
bool writeAll(int fd, const void* data, size_t length, bool runDeferredSignals = false);
// send(2) all of `data` (MSG_NOSIGNAL): true, or false with errno set.
bool sendAll(int fd, const void* data, size_t length);
// read(2) until `length` bytes or the end of the file: the bytes read, or -1
// with errno set.
ssize_t readAll(int fd, void* data, size_t length);
// pread(2) likewise, from `offset`.
ssize_t preadAll(int fd, void* data, size_t length, off_t offset);

// How a bounded receive ended.
enum class Received {
    Data,      // bytes arrived
    Closed,    // the peer ended the stream
    TimedOut,  // nothing arrived in time
    Failed,    // poll or recv failed: errno set
};
// Waits at most `timeoutMs` (-1: without bound) for data on the socket, then
// receives what is there, at most `length` bytes, counted in `got`.
Received recvSome(int fd, void* data, size_t length, int timeoutMs, size_t& got);
// Receives exactly `length` bytes, waiting at most `timeoutMs` for each
// arrival.
Received recvAll(int fd, void* data, size_t length, int timeoutMs);

}  // namespace tavik::platform
