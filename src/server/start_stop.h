// server/start_stop.h: what brings a server up and takes it down.
//   Threads    one thread at a time works on a server (LifecycleUse); it may be one of the
//              server's own that runs the handler.
#pragma once

#include "server/context.h"

namespace nrpc {

// Creates lists, queues and pools. 1, or 0 with nothing left behind when memory is exhausted.
int32_t SockInit(ServerContext *context, int32_t minimum, int32_t maximum);
// Opens the port (host byte order) and starts the pools. 1, or 0; what was opened and started is
// taken down by AbortStart.
int32_t StartServer(ServerContext *context, uint16_t port);
// After a failed StartServer or AcceptThread: stops what runs, without the grace period. Answers as
// StopServer.
bool AbortStart(ServerContext *context);
// Ends all activity and closes every connection; takes a little over 4 seconds. True when no other
// thread is left inside: only then SockUnInit may run, else the record goes to those threads.
bool StopServer(ServerContext *context);
// Releases what SockInit created, as far as it exists.
void SockUnInit(ServerContext *context);

} // namespace nrpc
