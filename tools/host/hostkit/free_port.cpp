#include "hostkit/free_port.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace nrpc::hostkit {

int32_t FreePort() {
    const int probe = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(address);
    auto *const generic = reinterpret_cast<sockaddr *>(&address);
    const bool found = probe >= 0 && bind(probe, generic, length) == 0 &&
                       getsockname(probe, generic, &length) == 0;
    const int error = errno;
    if (probe >= 0) {
        close(probe);
    }
    if (!found) {
        throw std::system_error(error, std::generic_category(), "no free port");
    }
    return ntohs(address.sin_port);
}

} // namespace nrpc::hostkit
