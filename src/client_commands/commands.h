// client_commands/commands.h: entry functions of the commands for the request client.
// The host calls each with its result cell and its argument cells (host/frame.h).
#pragma once

#include "host/frame.h"

namespace nrpc {

void fnCreateClient(HostValue *result, int32_t argCount, HostValue *args);
void fnClientConnect(HostValue *result, int32_t argCount, HostValue *args);
void fnClientdisConnect(HostValue *result, int32_t argCount, HostValue *args);
void fnSendSynRequestText(HostValue *result, int32_t argCount, HostValue *args);
void fnSendSynRequestBin(HostValue *result, int32_t argCount, HostValue *args);
void fnSendAsynRequestText(HostValue *result, int32_t argCount, HostValue *args);
void fnSendAsynRequestBin(HostValue *result, int32_t argCount, HostValue *args);
void fnGetResultText(HostValue *result, int32_t argCount, HostValue *args);
void fnGetResultBin(HostValue *result, int32_t argCount, HostValue *args);
void fnReleaseClient(HostValue *result, int32_t argCount, HostValue *args);
void fnClientGetMsgKind(HostValue *result, int32_t argCount, HostValue *args);
void fnClientDemo2(HostValue *result, int32_t argCount, HostValue *args);
void fnClientDemo3(HostValue *result, int32_t argCount, HostValue *args);

} // namespace nrpc
