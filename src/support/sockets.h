// support/sockets.h: bounded waits and single attempts on non-blocking sockets.
//   Time       milliseconds. A wait interrupted by a signal goes on for the rest of its time.
//   Threads    a socket may be used by one reader and one writer at a time.
#pragma once

#include <cstdint>

namespace nrpc {

// Results of a wait. An error or a hang-up at the socket counts as ready: the next attempt names
// it.
enum WaitResult : int32_t { kSocketReady = 1, kSocketTimeout = 0, kWaitFailed = -1 };

WaitResult WaitReadable(int32_t socket, uint32_t limitMs);
WaitResult WaitWritable(int32_t socket, uint32_t limitMs);

// Results of an attempt below 1; above 0 it is the number of bytes moved.
inline constexpr int32_t kNothingYet = 0;      // would block, or interrupted
inline constexpr int32_t kConnectionGone = -1; // closed by the peer, reset, or any other error

int32_t SendSome(int32_t socket, const uint8_t *data, int32_t len);
int32_t RecvSome(int32_t socket, uint8_t *buffer, int32_t len);

// Writes the whole of a short message in at most `passes` waits of `passMs` each. `*done` receives
// the bytes that went out, whatever the result.
enum WriteResult : int32_t { kWritten = 1, kGivenUp = 0, kWriteFailed = -1 };
WriteResult WriteInPasses(int32_t socket, const uint8_t *data, int32_t len, int32_t passes,
                          uint32_t passMs, int32_t *done);

// Makes O_NONBLOCK the socket's only status flag. Always 1: attempts do not block even where this
// failed.
int32_t SetNoBlock(int32_t socket);

// What every connection gets: non-blocking, close-on-exec, no delay for small packets (a message of
// several packets must not wait for an acknowledgement), and probes after a minute of silence, so
// that a peer whose cable was pulled does not stay for ever. Failures are harmless and not
// reported.
void PrepareConnection(int32_t socket);

// Moves a descriptor to the lowest free number that is at least `least`, close-on-exec. Answers the
// new number, or -1, `socket` unchanged.
int32_t MoveDescriptor(int32_t socket, int32_t least);

} // namespace nrpc
