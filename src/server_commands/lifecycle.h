// server_commands/lifecycle.h: entry functions of the commands for the server's life.
// The host calls each with its result cell and its argument cells (host/frame.h).
#pragma once

#include "host/frame.h"

namespace nrpc {

void fnCreateServer(HostValue *result, int32_t argCount, HostValue *args);
void fnStartServer(HostValue *result, int32_t argCount, HostValue *args);
void fnStopServer(HostValue *result, int32_t argCount, HostValue *args);
void fnSetPoolThreadNum(HostValue *result, int32_t argCount, HostValue *args);
void fnServerRelease(HostValue *result, int32_t argCount, HostValue *args);
void fnClientDemo4(HostValue *result, int32_t argCount, HostValue *args);

} // namespace nrpc
