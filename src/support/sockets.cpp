#include "support/sockets.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

#include "support/jitter.h"
#include "support/threads.h"

namespace nrpc {

static WaitResult WaitFor(int32_t socket, short events, uint32_t limitMs) {
    const uint64_t until = MonotonicMs() + limitMs;
    uint64_t left = limitMs;
    for (;;) {
        pollfd watched = {socket, events, 0};
        const int wait = left > INT32_MAX ? INT32_MAX : static_cast<int>(left);
        const int ready = poll(&watched, 1, wait);
        Jitter();
        if (ready > 0) {
            return (watched.revents & POLLNVAL) != 0 ? kWaitFailed : kSocketReady;
        }
        if (ready < 0 && errno != EINTR) {
            return kWaitFailed;
        }
        const uint64_t now = MonotonicMs();
        if (now >= until) {
            return kSocketTimeout;
        }
        left = until - now;
    }
}

WaitResult WaitReadable(int32_t socket, uint32_t limitMs) {
    return WaitFor(socket, POLLIN, limitMs);
}

WaitResult WaitWritable(int32_t socket, uint32_t limitMs) {
    return WaitFor(socket, POLLOUT, limitMs);
}

static int32_t Outcome(ssize_t result) {
    if (result >= 0) {
        return static_cast<int32_t>(result);
    }
    return errno == EAGAIN || errno == EINTR ? kNothingYet : kConnectionGone;
}

int32_t SendSome(int32_t socket, const uint8_t *data, int32_t len) {
    return Outcome(send(socket, data, static_cast<size_t>(len), MSG_NOSIGNAL | MSG_DONTWAIT));
}

int32_t RecvSome(int32_t socket, uint8_t *buffer, int32_t len) {
    const ssize_t result = recv(socket, buffer, static_cast<size_t>(len), MSG_DONTWAIT);
    return result == 0 ? kConnectionGone : Outcome(result);
}

WriteResult WriteInPasses(int32_t socket, const uint8_t *data, int32_t len, int32_t passes,
                          uint32_t passMs, int32_t *done) {
    *done = 0;
    for (int32_t pass = 0; pass < passes; ++pass) {
        const WaitResult wait = WaitWritable(socket, passMs);
        if (wait == kWaitFailed) {
            return kWriteFailed;
        }
        if (wait == kSocketTimeout) {
            continue;
        }
        const int32_t sent = SendSome(socket, data + *done, len - *done);
        if (sent == kConnectionGone) {
            return kWriteFailed;
        }
        *done += sent;
        if (*done == len) {
            return kWritten;
        }
    }
    return kGivenUp;
}

int32_t SetNoBlock(int32_t socket) {
    fcntl(socket, F_SETFL, O_NONBLOCK);
    return 1;
}

void PrepareConnection(int32_t socket) {
    SetNoBlock(socket);
    fcntl(socket, F_SETFD, FD_CLOEXEC);
    const struct {
        int Level;
        int Name;
        int Value;
    } options[] = {
        {IPPROTO_TCP, TCP_NODELAY, 1},    {SOL_SOCKET, SO_KEEPALIVE, 1},
        {IPPROTO_TCP, TCP_KEEPIDLE, 60},  // seconds
        {IPPROTO_TCP, TCP_KEEPINTVL, 15}, // seconds
        {IPPROTO_TCP, TCP_KEEPCNT, 4},
    };
    for (const auto &option : options) {
        setsockopt(socket, option.Level, option.Name, &option.Value, sizeof(option.Value));
    }
}

int32_t MoveDescriptor(int32_t socket, int32_t least) {
    const int32_t moved = fcntl(socket, F_DUPFD_CLOEXEC, least);
    if (moved >= 0) {
        close(socket);
    }
    return moved;
}

} // namespace nrpc
