#include "protocol/outgoing.h"

#include "support/sockets.h"

namespace nrpc {

void AppendPackets(OutgoingPackets *outgoing, SendMsgList *packets) {
    SendMsgList **link = &outgoing->First;
    while (*link != nullptr) { // a packet begun is the only one before a new message
        link = &(*link)->Next;
    }
    *link = packets;
}

AttemptResult WriteFirstPacket(OutgoingPackets *outgoing, int32_t socket) {
    const SendMsgList *first = outgoing->First;
    const int32_t sent =
        SendSome(socket, first->Packet + outgoing->SentLen, first->PacketLen - outgoing->SentLen);
    if (sent <= 0) {
        return sent == kNothingYet ? kNoneWritten : kWriteBroken;
    }
    outgoing->SentLen += sent;
    if (outgoing->SentLen < first->PacketLen) {
        return kSomeWritten;
    }
    outgoing->First = FreeFirstPacket(outgoing->First);
    outgoing->SentLen = 0;
    return kPacketWritten;
}

void AbandonMessage(OutgoingPackets *outgoing) {
    if (outgoing->SentLen == 0) {
        FreeOutgoing(outgoing);
    } else {
        FreeSendMsgList(outgoing->First->Next);
        outgoing->First->Next = nullptr;
    }
}

void FreeOutgoing(OutgoingPackets *outgoing) {
    FreeSendMsgList(outgoing->First);
    *outgoing = {};
}

} // namespace nrpc
