// hostkit/free_port.h: a TCP port that nobody uses at the moment.
#pragma once

#include <cstdint>

namespace nrpc::hostkit {

// Nobody else is given it by the system, but another program may bind it meanwhile: try again then.
// Throws std::system_error when there is none.
int32_t FreePort();

} // namespace nrpc::hostkit
