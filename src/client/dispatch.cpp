#include "client/dispatch.h"

#include <sys/socket.h>

namespace nrpc {

static constexpr uint32_t kIdlePauseMs = 1;

static void FinishMessage(ClientContext *context) {
    FreeClientMessage(context->Handling);
    context->Handling = nullptr;
}

// The thread ended inside the handler.
static void EndedInHandler(RoutineThread *routine) {
    auto *context = static_cast<ClientContext *>(const_cast<void *>(routine->Object));
    FinishMessage(context);
    DropObject(&context->Life);
}

// The close message was handled. A teardown that is under way, also one that the handler itself
// asked for, goes before: this thread only ever ends the connection that it belongs to.
static void LoseConnection(ClientContext *context) {
    AwaitConnected(context);
    int32_t connected = kConnected;
    if (context->State.compare_exchange_strong(connected, kLost)) {
        Gate_Close(&context->Requests);
        context->CloseFlag = 1;
        shutdown(context->Socket, SHUT_RDWR);
    }
}

static void HandleMessages(ClientContext *context) {
    while (context->CloseFlag != 1) {
        context->Handling = RemFromWorkDataList(context);
        if (context->Handling == nullptr) {
            MySleep(kIdlePauseMs);
            continue;
        }
        const int32_t kind = context->Handling->MsgKind;
        RunRoutine(&context->Routine, context->ProcessFunc, context->Handling);
        FinishMessage(context);
        if (kind == kConnectionClosed) {
            LoseConnection(context);
            return;
        }
    }
}

void *ClientFunWorkThread(void *arg) {
    MySetThreadAttribute("nrpc-c-handler");
    auto *context = static_cast<ClientContext *>(arg);
    context->Routine.OnEnd = EndedInHandler;
    context->Routine.Object = context;
    if (EnterRoutineThread(&context->Routine, context->HostMask)) {
        HandleMessages(context);
        LeaveRoutineThread(&context->Routine);
    }
    DropObject(&context->Life);
    return nullptr;
}

} // namespace nrpc
