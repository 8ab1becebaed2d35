#include "hostkit/free_port.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <system_error>

namespace nrpc::hostkit {

// Below those that the system gives to whoever asks for any, and in each process from a place of
// its own on: whoever still calls a server that was stopped must not reach a stranger.
static constexpr uint32_t kFirstPort = 10000;
static constexpr uint32_t kPortCount = 22000;
static constexpr uint32_t kPortsOfAProcess = 50;

static bool IsFree(uint32_t port) {
    const int probe = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_ANY);
    address.sin_port = htons(static_cast<uint16_t>(port));
    const bool isBound =
        bind(probe, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) == 0;
    if (probe >= 0) {
        close(probe);
    }
    return isBound;
}

int32_t FreePort() {
    static std::atomic<uint32_t> s_Next = static_cast<uint32_t>(getpid()) * kPortsOfAProcess;
    for (uint32_t i = 0; i < kPortCount; ++i) {
        const uint32_t port = kFirstPort + s_Next++ % kPortCount;
        if (IsFree(port)) {
            return static_cast<int32_t>(port);
        }
    }
    throw std::system_error(EADDRINUSE, std::generic_category(), "no free port");
}

} // namespace nrpc::hostkit
