// protocol/control.h: the two messages of the protocol itself. They are written best effort, within
// about a second; whoever sends one does not learn whether it went out.
#pragma once

#include <cstdint>

#include "protocol/outgoing.h"
#include "support/sockets.h"

namespace nrpc {

// The close notice's record. Behind a packet head it is the message 0000.
inline constexpr char kCloseText[] = "<Msg0000>0</Msg0000>";
inline constexpr int32_t kCloseTextLen = sizeof(kCloseText) - 1;

// How long a control message may take: 10 passes of 100 ms.
inline constexpr int32_t kControlPasses = 10;
inline constexpr uint32_t kControlPassMs = 100;

// Tells the server that the reply to request `msgID` (four characters) is no longer wanted. Nothing
// else may be waiting in `outgoing`; what is left there afterwards is a packet begun.
void SendCancelMessageToServer(const char *msgID, int32_t socket, OutgoingPackets *outgoing);

// Tells the peer, server or client, that the sender is ending the connection.
void SendCloseMessage(int32_t socket, OutgoingPackets *outgoing);

// The bare text without a packet head: what a client that is being disconnected gets. kWriteFailed
// when the connection is gone, kGivenUp when it did not take the text in so many passes.
WriteResult SendCloseText(int32_t socket, int32_t passes);

} // namespace nrpc
