// protocol/outgoing.h: the packets that a connection still has to write.
//   A message may be given up in the middle, but never a packet: its head has announced its length,
//   so the peer would take the next message's bytes for the rest of it. A packet begun stays here
//   and is written before anything else.
//   Owner      one thread at a time: whoever writes to the connection.
#pragma once

#include "protocol/packet.h"

namespace nrpc {

// All zeros is an empty one.
struct OutgoingPackets {
    SendMsgList *First;
    int32_t SentLen; // bytes of First that are written
};

// Takes over the packets of one more message.
void AppendPackets(OutgoingPackets *outgoing, SendMsgList *packets);

enum AttemptResult : int32_t {
    kPacketWritten = 2, // the first packet is through and no longer in the list
    kSomeWritten = 1,
    kNoneWritten = 0,
    kWriteBroken = -1, // the connection is gone
};
// One attempt to write the rest of the first packet; there must be one. Does not wait.
AttemptResult WriteFirstPacket(OutgoingPackets *outgoing, int32_t socket);

// Gives up what is left but for a packet begun.
void AbandonMessage(OutgoingPackets *outgoing);
// Frees everything: the connection is over.
void FreeOutgoing(OutgoingPackets *outgoing);

} // namespace nrpc
