// console.h: lines typed while a service runs.
#pragma once

#include <string_view>

#include "hostkit.h"

namespace nrpc::tool {

// Does what the line says and prints one line or more about it, or one object. False: the service
// is to stop.
bool RunConsoleLine(hostkit::Server &server, std::string_view line, bool asJson);

} // namespace nrpc::tool
