// server/dispatch.h: the client-work pool's step: one call of the user's handler for each message.
//   Serial mode calls under ProcessLock, one at a time in the whole server; otherwise calls run
//   side by side with no lock held. No call begins once the server is stopping.
#pragma once

#include "server/pools.h"

namespace nrpc {

void *TakeMessage(ServerContext *context);
void ServeMessage(ThreadArg *worker, void *message);

// Frees the message being served and releases ProcessLock, as far as the worker has them. Also for
// a worker whose thread ended inside the handler.
void FinishMessage(ThreadArg *worker);

} // namespace nrpc
