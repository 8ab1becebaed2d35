// hostkit/free_port.h: a TCP port that nobody uses at the moment.
#pragma once

#include <cstdint>

namespace nrpc::hostkit {

// A port picked by the system on the loopback interface and given back at once: never connected, it
// may be bound again without waiting. Somebody else may be faster; try again then. Throws
// std::system_error when there is none.
int32_t FreePort();

} // namespace nrpc::hostkit
