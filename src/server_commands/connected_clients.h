// server_commands/connected_clients.h: entry functions of the commands for the server's connected
// clients. The host calls each with its result cell and its argument cells (host/frame.h).
#pragma once

#include "host/frame.h"

namespace nrpc {

void fnGetClientIPAddr(HostValue *result, int32_t argCount, HostValue *args);
void fnGetClientCount(HostValue *result, int32_t argCount, HostValue *args);
void fnGetAllClient(HostValue *result, int32_t argCount, HostValue *args);
void fnDisconnect(HostValue *result, int32_t argCount, HostValue *args);

} // namespace nrpc
