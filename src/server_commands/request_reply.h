// server_commands/request_reply.h: entry functions of the commands for reading a message inside the
// handler, and sending. The host calls each with its result cell and its argument cells
// (host/frame.h).
#pragma once

#include "host/frame.h"

namespace nrpc {

void fnGetRequestText(HostValue *result, int32_t argCount, HostValue *args);
void fnGetRequestBin(HostValue *result, int32_t argCount, HostValue *args);
void fnSendResultText(HostValue *result, int32_t argCount, HostValue *args);
void fnSendResultBin(HostValue *result, int32_t argCount, HostValue *args);
void fnGetClientHandle(HostValue *result, int32_t argCount, HostValue *args);
void fnGetMsgKind(HostValue *result, int32_t argCount, HostValue *args);

} // namespace nrpc
