// client/receive.h: the receive thread of a connection, in both modes: packets become messages on
// the work-data list, and a lost connection becomes a close message (asynchronous mode only).
#pragma once

#include "client/context.h"

namespace nrpc {

void *ClientFunRecvThread(void *arg);

// What ClientRecvData answers.
enum ClientRecvResult : int32_t {
    kMessagesReceived = 1, // at least one message is complete and nothing is left over
    kNoMessage = 0,        // silence of 21 seconds, or bytes that are no packet: discarded
    kConnectionLost = -1,
};
ClientRecvResult ClientRecvData(ClientContext *context);

// The messages of the chunks' records go on the work-data list; the chunks are freed.
void DealWithData(ClientContext *context, MessageChunk *chunks);

// The id whose packets arrive just now, or five zero bytes; nothing for a null record.
void GetReceivingMsgID(const ClientContext *context, MsgIDText msgID);

} // namespace nrpc
