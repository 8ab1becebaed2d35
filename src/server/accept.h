// server/accept.h: the accept thread of a server: it fills the client list and tells the handler of
// each new connection.
#pragma once

#include "server/context.h"

namespace nrpc {

// Starts the thread. 1 when it was started, 0 when not.
int32_t AcceptThread(ServerContext *context);
void *FunAcceptThread_new(void *arg);

// Wakes the accept thread, waits until it has ended, and closes the listening socket.
void CloseListenSocket(ServerContext *context);

// The pause in which, after a stop, the accept thread is given time to end.
void StopAcceptThread();

} // namespace nrpc
