#include "server/dispatch.h"

namespace nrpc {

void *TakeMessage(ServerContext *context) {
    return MidResultIsNotNull(context->MidResultQueue);
}

// False when the server is stopping: the handler must not be called.
static bool MayCall(ThreadArg *worker) UNCHECKED_LOCKING {
    ServerContext *context = worker->Context;
    if (context->ProcessMode == kSerialMode) {
        worker->HasProcessLock =
            MyEnterCriticalSectionWhile(context->ProcessLock, context->RunFlag);
    }
    return context->RunFlag != 0;
}

void FinishMessage(ThreadArg *worker) UNCHECKED_LOCKING {
    FreeMidResult(worker->Message);
    worker->Message = nullptr;
    if (worker->HasProcessLock) {
        worker->HasProcessLock = false;
        MyLeaveCriticalSection(worker->Context->ProcessLock);
    }
}

void ServeMessage(ThreadArg *worker, void *message) {
    worker->Message = static_cast<MidResult *>(message);
    if (MayCall(worker)) {
        RunRoutine(&worker->Routine, worker->Context->ProcessFunc, worker->Message);
    }
    FinishMessage(worker);
}

} // namespace nrpc
