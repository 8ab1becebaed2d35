#include "server/context.h"

#include "server/accept.h"
#include "server/client_list.h"
#include "server/start_stop.h"
#include "support/heap.h"

namespace nrpc {

// Nobody is inside any more. A record that was left to a thread still has its lists.
static void DestroyServerContext(void *record) {
    auto *context = static_cast<ServerContext *>(record);
    if (context->ClientList != nullptr) {
        CloseAllClient(context->ClientList);
    }
    SockUnInit(context);
    FreeRecord(context);
}

ServerContext *CreateServerContext() {
    auto *context = NewRecord<ServerContext>();
    if (context == nullptr) {
        return nullptr;
    }
    context->MinThreadNum = kDefaultMinThreadNum;
    context->MaxThreadNum = kDefaultMaxThreadNum;
    context->ListenSocket = -1;
    PublishObject(&context->Life, context, kServerObject, DestroyServerContext);
    return context;
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
