// client/asynchronous_send.h: the send thread of an asynchronous connection: it takes the newest
// request off the send-data list, numbers it and writes it whole before it takes the next.
#pragma once

#include "client/context.h"

namespace nrpc {

void *ClientFunSendThread(void *arg);

// 1 when the whole request went out; 0 when it was given up: empty, no memory, the connection gone,
// or nothing taken by the server for 21 seconds. The item stays the caller's.
int32_t ClientSendData(ClientContext *context, const SendDataItem *item);

} // namespace nrpc
