#include "client/asynchronous_send.h"

#include "support/sockets.h"

namespace nrpc {

static constexpr uint32_t kIdlePauseMs = 1;
static constexpr uint32_t kWaitMs = 1000;
static constexpr int32_t kMaxIdleWaits = 20;
// A socket that reports room and takes nothing is given up after so many attempts, one a ms.
static constexpr int32_t kMaxVainAttempts = 100;

static bool CutIntoPackets(ClientContext *context, const SendDataItem *item) {
    context->LastMsgNum = NextRequestNumber(context->LastMsgNum);
    MsgIDText msgID;
    FormatMsgID(context->LastMsgNum, msgID);
    SendMsgList *packets = nullptr;
    if (CreateRecordMsgList(msgID, item->Data, item->DataLen, &packets) != 1) {
        return false;
    }
    AppendPackets(&context->Outgoing, packets);
    return true;
}

// False when the request is to be given up.
static bool WritePackets(ClientContext *context) {
    int32_t idleWaits = 0;
    int32_t vainAttempts = 0;
    bool asks = false; // the first write just tries: most requests are one packet, and find room
    while (context->Outgoing.First != nullptr) {
        if (context->CloseFlag == 1) {
            return false;
        }
        const WaitResult wait = asks ? WaitWritable(context->Socket, kWaitMs) : kSocketReady;
        if (wait == kSocketTimeout && ++idleWaits <= kMaxIdleWaits) {
            continue;
        }
        if (wait != kSocketReady) {
            return false;
        }
        const AttemptResult attempt = WriteFirstPacket(&context->Outgoing, context->Socket);
        if (attempt == kWriteBroken) {
            return false;
        }
        idleWaits = 0;
        if (attempt != kNoneWritten) {
            vainAttempts = 0;
        } else if (asks) {
            if (++vainAttempts > kMaxVainAttempts) {
                return false;
            }
            MySleep(1);
        }
        asks = true;
    }
    return true;
}

int32_t ClientSendData(ClientContext *context, const SendDataItem *item) {
    if (item->DataLen < 1 || !CutIntoPackets(context, item)) {
        return 0;
    }
    const bool written = WritePackets(context);
    AbandonMessage(&context->Outgoing); // nothing is left of a request that went out whole
    return written ? 1 : 0;
}

void *ClientFunSendThread(void *arg) {
    MySetThreadAttribute("nrpc-c-send");
    auto *context = static_cast<ClientContext *>(arg);
    while (context->CloseFlag != 1) {
        if (IsListHaveSendData(context) == 0) {
            MySleep(kIdlePauseMs);
            continue;
        }
        SendDataItem *item = RemFromSendDataList(context);
        if (item != nullptr) {
            ClientSendData(context, item);
            FreeSendData(item);
        }
    }
    DropObject(&context->Life);
    return nullptr;
}

} // namespace nrpc
