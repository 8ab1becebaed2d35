// server/receive.h: the receive pool's step: bytes from the clients become requests on the task
// queue, and the end of a connection becomes a message for the handler.
//   A worker claims the next client in turn, waits up to 100 ms for it to send, reads what comes
//   and gives the client back. What has arrived of a message meanwhile stays with the ClientEntry,
//   so a client that sends slowly holds no worker; 21 seconds without a byte discard it.
#pragma once

#include "server/client_list.h"
#include "server/pools.h"

namespace nrpc {

// What RecvData answers.
enum RecvResult : int32_t {
    kRequestsQueued = 1, // complete requests were queued and nothing is pending, or the pool stops
    kNothingReceived = 0,
    kDropConnection = -1, // closed, failed, or bytes behind a packet that are none
};
RecvResult RecvData(ServerContext *context, ClientEntry *entry);

void *TakeClient(ServerContext *context);
void ServeClient(ThreadArg *worker, void *client);

} // namespace nrpc
