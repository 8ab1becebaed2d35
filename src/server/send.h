// server/send.h: the send pool's step: replies and the server's own messages are written to the
// clients, one writer per client at a time.
//   A reply for a client that another worker writes to, or that has a half-written reply, waits
//   with that client (ClientEntry) until its turn. A reply whose client takes nothing for 100 ms
//   goes back to the queue, half-written or not, so a client that does not read holds no worker: it
//   is dropped after 100 such probes before its first byte, or 21 seconds without a byte after it.
#pragma once

#include "server/client_list.h"
#include "server/pools.h"

namespace nrpc {

// What SendData answers.
enum SendResult : int32_t {
    kReplyDone = 1, // written, or dropped because the client cancelled or the pool stops
    kTryAgain = 0,  // the client took nothing for 100 ms
    kReplyFailed = -1,
};
// Writes to a client claimed for sending.
SendResult SendData(ServerContext *context, ClientEntry *entry, ResultData *reply);

// 1 when the client has cancelled and the message is neither the server's own nor the reply to its
// latest request.
int32_t ClientCancleCurMsg(ServerContext *context, const ClientEntry *entry, const char *msgID);

void *TakeResult(ServerContext *context);
void ServeResult(ThreadArg *worker, void *reply);

} // namespace nrpc
