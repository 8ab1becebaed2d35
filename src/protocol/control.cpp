#include "protocol/control.h"

#include <cstring>

namespace nrpc {

static void SendControlMessage(const char *msgID, const char *body, int32_t bodyLen, int32_t socket,
                               OutgoingPackets *outgoing) {
    SendMsgList *packet = nullptr; // every control message fits into one
    if (CreateSendMsgList(msgID, reinterpret_cast<const uint8_t *>(body), bodyLen, &packet) == 0) {
        return;
    }
    int32_t done = 0;
    WriteInPasses(socket, packet->Packet, packet->PacketLen, kControlPasses, kControlPassMs, &done);
    if (done > 0 && done < packet->PacketLen) {
        *outgoing = {packet, done};
    } else {
        FreeSendMsgList(packet);
    }
}

void SendCancelMessageToServer(const char *msgID, int32_t socket, OutgoingPackets *outgoing) {
    char body[] = "<Msg0001>4</Msg0001>0000";
    constexpr int32_t kBodyLen = sizeof(body) - 1;
    std::memcpy(body + kBodyLen - kMsgIDLen, msgID, kMsgIDLen);
    SendControlMessage("0001", body, kBodyLen, socket, outgoing);
}

void SendCloseMessage(int32_t socket, OutgoingPackets *outgoing) {
    SendControlMessage("0000", kCloseText, kCloseTextLen, socket, outgoing);
}

WriteResult SendCloseText(int32_t socket, int32_t passes) {
    int32_t done = 0;
    return WriteInPasses(socket, reinterpret_cast<const uint8_t *>(kCloseText), kCloseTextLen,
                         passes, kControlPassMs, &done);
}

} // namespace nrpc
