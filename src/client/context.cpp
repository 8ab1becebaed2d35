#include "client/context.h"

#include <cstring>
#include <utility>

#include "client/connection.h"
#include "support/heap.h"

namespace nrpc {

static constexpr int32_t kNoRequestYet = 10;

// --- the record -------------------------------------------------------------------------------

int32_t InitClient(ClientContext *context) {
    context->LastMsgNum = kNoRequestYet;
    context->CloseFlag = 1;
    context->Socket = -1;
    context->WorkDataLock = MyCreateCriticalSection();
    context->SendDataLock = MyCreateCriticalSection();
    return context->WorkDataLock != nullptr && context->SendDataLock != nullptr ? 1 : 0;
}

void UninitClient(ClientContext *context) {
    RemoveAllFromSendDataList(context);
    RemoveAllFromWorkDataList(context);
    MyDeleteCriticalSection(context->WorkDataLock);
    MyDeleteCriticalSection(context->SendDataLock);
}

void AwaitConnected(const ClientContext *context) {
    while (context->State == kConnecting && context->CloseFlag == 0) {
        MySleep(1);
    }
}

static ClientContext *NewClientContext() {
    auto *context = NewRecord<ClientContext>();
    if (context != nullptr && InitClient(context) != 1) {
        UninitClient(context);
        FreeRecord(std::exchange(context, nullptr));
    }
    return context;
}

// Nobody is inside any more.
static void DestroyClientContext(void *record) {
    auto *context = static_cast<ClientContext *>(record);
    ReleaseConnection(context);
    if (context->Spare != nullptr) {
        UninitClient(context->Spare);
        FreeRecord(context->Spare);
    }
    UninitClient(context);
    FreeRecord(context);
}

static ClientContext *Publish(ClientContext *context) {
    if (context != nullptr) {
        PublishObject(&context->Life, context, kClientObject, DestroyClientContext);
    }
    return context;
}

ClientContext *CreateClientContext() {
    return Publish(NewClientContext());
}

bool KeepSpare(ClientContext *context) {
    if (context->Spare == nullptr) {
        context->Spare = NewClientContext();
    }
    return context->Spare != nullptr;
}

ClientContext *TakeSpare(ClientContext *context) {
    return Publish(std::exchange(context->Spare, nullptr));
}

// --- requests to send -------------------------------------------------------------------------

static size_t ItemSize(int32_t length) {
    return sizeof(SendDataItem) + static_cast<size_t>(length);
}

SendDataItem *NewSendData(const uint8_t *data, int32_t length) {
    void *block = TakeCounted(ItemSize(length));
    if (block == nullptr) {
        return nullptr;
    }
    auto *bytes = static_cast<uint8_t *>(block) + sizeof(SendDataItem);
    std::memcpy(bytes, data, static_cast<size_t>(length));
    return new (block) SendDataItem{length, bytes, nullptr};
}

void FreeSendData(SendDataItem *item) {
    FreeCounted(item, ItemSize(item->DataLen));
}

void AddSendData(ClientContext *context, SendDataItem *item) {
    LockGuard guard(context->SendDataLock);
    item->Next = context->SendDataList;
    context->SendDataList = item;
}

SendDataItem *RemFromSendDataList(ClientContext *context) {
    LockGuard guard(context->SendDataLock);
    SendDataItem *item = context->SendDataList;
    if (item != nullptr) {
        context->SendDataList = item->Next;
    }
    return item;
}

int32_t IsListHaveSendData(const ClientContext *context) {
    return context->SendDataList != nullptr ? 1 : 0;
}

void RemoveAllFromSendDataList(ClientContext *context) {
    while (SendDataItem *item = RemFromSendDataList(context)) {
        FreeSendData(item);
    }
}

// --- received messages ------------------------------------------------------------------------

ClientMessage *NewClientMessage(ClientMessageKind kind) {
    void *block = TakeCounted(sizeof(ClientMessage));
    if (block == nullptr) {
        return nullptr;
    }
    auto *message = new (block) ClientMessage();
    message->MsgKind = kind;
    return message;
}

void FreeClientMessage(ClientMessage *message) {
    if (message != nullptr) {
        FreeChunks(message->Block);
        FreeCounted(message, sizeof(ClientMessage));
    }
}

static size_t MessageSize(const ClientMessage *message) {
    return sizeof(ClientMessage) + message->DataLen;
}

void AddWorkData(ClientContext *context, ClientMessage *message) {
    LockGuard guard(context->WorkDataLock);
    context->WorkDataLen += MessageSize(message);
    message->Next = context->WorkDataList;
    context->WorkDataList = message;
}

ClientMessage *RemFromWorkDataList(ClientContext *context) {
    LockGuard guard(context->WorkDataLock);
    ClientMessage *message = context->WorkDataList;
    if (message != nullptr) {
        context->WorkDataList = message->Next;
        context->WorkDataLen -= MessageSize(message);
    }
    return message;
}

bool IsWorkDataListFull(ClientContext *context) {
    LockGuard guard(context->WorkDataLock);
    return context->WorkDataLen > kWorkDataMark;
}

void RemoveAllFromWorkDataList(ClientContext *context) {
    while (ClientMessage *message = RemFromWorkDataList(context)) {
        FreeClientMessage(message);
    }
}

} // namespace nrpc
