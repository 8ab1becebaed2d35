// client/connection.h: opening a client's connection and taking it down.
//   Threads    only the thread that has moved the State to kConnecting or kEnding calls these.
#pragma once

#include "client/context.h"

namespace nrpc {

// Resolves the address, connects and starts the threads; RequestMode and ProcessFunc are set
// before. 1 connected; 0 failed, nothing left behind but, possibly, what StopConnect must clear.
int32_t ConnectToServer(ClientContext *context, uint32_t port, const char *address);

// The descriptor of a socket connected to the dotted address, or 0. Gives up when `released`
// gets 1.
int32_t connect_client(const char *address, uint16_t port, const std::atomic<int32_t> &released);

// The time that the threads of a connection get to end by themselves.
inline constexpr uint32_t kStopPauseMs = 200;

// Ends the connection: no close message reaches the handler. True when everything was cleared;
// false when a thread is left inside (the calling thread where it runs the handler, or one that
// cannot be ended): what there is then belongs to the record's last holder.
bool StopConnect(ClientContext *context, uint32_t pauseMs);

// Closes the socket, empties the lists, deletes RequestLock: what is there of a connection whose
// threads have all ended.
void ReleaseConnection(ClientContext *context);

} // namespace nrpc
