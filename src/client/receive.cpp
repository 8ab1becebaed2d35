#include "client/receive.h"

#include <sys/socket.h>

#include <cstring>

#include "protocol/records.h"
#include "support/sockets.h"

namespace nrpc {

static constexpr int32_t kReadLen = 10240;
static constexpr uint32_t kWaitMs = 1000;
static constexpr int32_t kMaxIdleWaits = 20;
static constexpr uint32_t kFullListMs = 10;
static constexpr uint64_t kVainMs = 21000; // as long as the idle waits last

// --- messages ---------------------------------------------------------------------------------

static void AddCloseMessage(ClientContext *context) {
    if (context->CloseMessage != nullptr) {
        AddWorkData(context, context->CloseMessage);
        context->CloseMessage = nullptr;
    }
}

static bool AddReceived(ClientContext *context, RecordReader *reader, Record *record) {
    MessageChunk *block = TakePayload(reader, record);
    if (block == nullptr) {
        return false;
    }
    ClientMessage *message = NewClientMessage(kDataReceived);
    if (message == nullptr) {
        FreeChunks(block);
        return false;
    }
    message->DataLen = static_cast<uint32_t>(record->Len);
    message->Data = record->Payload;
    std::memcpy(message->MsgID, record->MsgID, sizeof(message->MsgID));
    message->Block = block;
    AddWorkData(context, message);
    return true;
}

void DealWithData(ClientContext *context, MessageChunk *chunks) {
    RecordReader reader;
    if (!OpenRecords(&reader, chunks)) {
        return;
    }
    Record record;
    RecordResult result = ReadRecord(&reader, &record);
    // What nobody may ever take must not grow with one message's records either.
    const auto isWelcome = [context] {
        return context->RequestMode == kAsynchronous || !IsWorkDataListFull(context);
    };
    while (result == kRecordTaken && isWelcome() && AddReceived(context, &reader, &record)) {
        result = ReadRecord(&reader, &record);
    }
    if (result == kRecordClose && context->RequestMode == kAsynchronous) {
        AddCloseMessage(context);
    }
    CloseRecords(&reader);
}

static void TakeMessage(void *receiver, MessageChunk *chunks) {
    DealWithData(static_cast<ClientContext *>(receiver), chunks);
}

// --- bytes ------------------------------------------------------------------------------------

static void NotePacket(ClientContext *context) {
    MsgIDText msgID;
    FormatMsgID(context->Received.LastPacketNumber, msgID);
    uint32_t word = 0;
    static_assert(sizeof(word) == kMsgIDLen);
    std::memcpy(&word, msgID, kMsgIDLen);
    context->ReceivingMsgID = word;
}

void GetReceivingMsgID(const ClientContext *context, MsgIDText msgID) {
    if (context != nullptr) {
        const uint32_t word = context->ReceivingMsgID;
        std::memcpy(msgID, &word, kMsgIDLen);
        msgID[kMsgIDLen] = 0;
    }
}

// Nothing that was begun goes on.
static ClientRecvResult GiveUp(ClientContext *context, ClientRecvResult result) {
    Assembly_Reset(&context->Received);
    context->ReceivingMsgID = 0;
    return result;
}

// The connection is ended from this side: the server sees it at once.
static ClientRecvResult Drop(ClientContext *context) {
    shutdown(context->Socket, SHUT_RDWR);
    return GiveUp(context, kConnectionLost);
}

// Reading waits while nobody takes the messages that are there. False when the connection ends.
static bool MayRead(ClientContext *context) {
    const auto isEnough = [context] {
        return IsWorkDataListFull(context) || (context->AwaitsReply == 0 && BudgetIsExceeded());
    };
    while (context->CloseFlag != 1 && isEnough() && !context->Received.Account.Evicted) {
        context->ReceivingMsgID = 0; // nothing arrives: a waiting request's time goes on
        MySleep(kFullListMs);
    }
    return context->CloseFlag != 1;
}

// The socket reports bytes and has none: must become neither a busy loop nor an endless one. False
// when that has lasted too long.
static bool PauseInVain(uint64_t *sinceMs) {
    const uint64_t now = MonotonicMs();
    *sinceMs = *sinceMs == 0 ? now : *sinceMs;
    MySleep(1);
    return now - *sinceMs < kVainMs;
}

// True when there is a result to return.
static bool TakeBytes(ClientContext *context, const uint8_t *bytes, int32_t len,
                      ClientRecvResult *result) {
    int32_t packets = 0;
    const FeedResult fed =
        Assembly_Feed(&context->Received, bytes, len, TakeMessage, context, &packets);
    if (packets > 0) {
        NotePacket(context);
    }
    if (fed != kFed) {
        *result = fed == kFeedDiscarded ? GiveUp(context, kNoMessage) : Drop(context);
        return true;
    }
    *result = kMessagesReceived;
    return packets > 0 && !Assembly_IsPartial(&context->Received);
}

ClientRecvResult ClientRecvData(ClientContext *context) {
    uint64_t vainSinceMs = 0; // 0: the last attempt was not in vain
    for (int32_t idleWaits = 0; MayRead(context);) {
        if (context->Received.Account.Evicted) {
            return Drop(context);
        }
        const WaitResult wait = WaitReadable(context->Socket, kWaitMs);
        if (wait == kWaitFailed) {
            return GiveUp(context, kConnectionLost);
        }
        if (wait == kSocketTimeout) {
            if (++idleWaits > kMaxIdleWaits) {
                return GiveUp(context, kNoMessage);
            }
            continue;
        }
        uint8_t bytes[kReadLen];
        const int32_t len = RecvSome(context->Socket, bytes, kReadLen);
        if (len == kConnectionGone) {
            return GiveUp(context, kConnectionLost);
        }
        if (len == kNothingYet) {
            if (!PauseInVain(&vainSinceMs)) {
                return GiveUp(context, kNoMessage);
            }
            continue;
        }
        vainSinceMs = 0;
        idleWaits = 0;
        ClientRecvResult result = kMessagesReceived;
        if (TakeBytes(context, bytes, len, &result)) {
            return result;
        }
    }
    return kNoMessage;
}

void *ClientFunRecvThread(void *arg) {
    MySetThreadAttribute("nrpc-c-recv");
    auto *context = static_cast<ClientContext *>(arg);
    ClientRecvResult result = kNoMessage;
    while (context->CloseFlag != 1 && result != kConnectionLost) {
        result = ClientRecvData(context);
        if (result == kNoMessage) {
            MySleep(1);
        }
    }
    // A teardown that the user asked for sets the flag first, so it is not reported.
    if (result == kConnectionLost && context->CloseFlag == 0 &&
        context->RequestMode == kAsynchronous) {
        AddCloseMessage(context);
    }
    DropObject(&context->Life);
    return nullptr;
}

} // namespace nrpc
