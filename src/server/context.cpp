#include "server/context.h"

#include <utility>

#include "server/accept.h"
#include "server/client_list.h"
#include "server/start_stop.h"
#include "support/heap.h"

namespace nrpc {

static ServerContext *NewServerContext() {
    auto *context = NewRecord<ServerContext>();
    if (context != nullptr) {
        context->MinThreadNum = kDefaultMinThreadNum;
        context->MaxThreadNum = kDefaultMaxThreadNum;
        context->ListenSocket = -1;
    }
    return context;
}

// Nobody is inside any more. A record that was left to a thread still has its lists.
static void DestroyServerContext(void *record) {
    auto *context = static_cast<ServerContext *>(record);
    if (context->ClientList != nullptr) {
        CloseAllClient(context->ClientList);
    }
    SockUnInit(context);
    FreeRecord(context->Spare);
    FreeRecord(context);
}

static ServerContext *Publish(ServerContext *context) {
    if (context != nullptr) {
        PublishObject(&context->Life, context, kServerObject, DestroyServerContext);
    }
    return context;
}

ServerContext *CreateServerContext() {
    return Publish(NewServerContext());
}

bool KeepSpare(ServerContext *context) {
    if (context->Spare == nullptr) {
        context->Spare = NewServerContext();
    }
    return context->Spare != nullptr;
}

ServerContext *TakeSpare(ServerContext *context) {
    return Publish(std::exchange(context->Spare, nullptr));
}

void HoldForThread(ServerContext *context) {
    HoldAgain(&context->Life);
    ++context->Threads;
}

void DropFromThread(ServerContext *context) {
    --context->Threads;
    DropObject(&context->Life);
}

} // namespace nrpc
