#include "server/start_stop.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "server/accept.h"
#include "server/client_list.h"
#include "server/pool_names.h"
#include "support/sockets.h"

namespace nrpc {

static constexpr int kBacklog = 10;
static constexpr int32_t kLeastDescriptor = 3; // 0 to 2 are the standard streams
static constexpr uint32_t kGracePeriodMs = 4000;
// How long commands of other threads may still be inside: Disconnect takes about a second.
static constexpr uint32_t kCommandsMs = 1200;

// --- lists, queues and pools ------------------------------------------------------------------

static bool HasAll(const ServerContext *context) {
    for (const PoolKind &kind : s_PoolKinds) {
        if (context->*kind.Pool == nullptr || context->*kind.Handles == nullptr) {
            return false;
        }
    }
    return context->ClientList != nullptr && context->TaskQueue != nullptr &&
           context->ResultQueue != nullptr && context->MidResultQueue != nullptr &&
           (context->ProcessMode != kSerialMode || context->ProcessLock != nullptr);
}

int32_t SockInit(ServerContext *context, int32_t minimum, int32_t maximum) {
    context->ClientList = CreateClientList();
    context->TaskQueue = CreateTaskQueue();
    context->ResultQueue = CreateResultQueue();
    context->MidResultQueue = CreateMidResultQueue();
    context->RecvPoolHandleList = CreateRecvPoolHandleList();
    context->SendPoolHandleList = CreateSendPoolHandleList();
    context->WorkPoolHandleList = CreateWorkPoolHandleList();
    context->UserPoolHandleList = CreateUserPoolHandleList();
    context->RecvThreadPool = CreateRecvThreadPool(maximum, minimum);
    context->SendThreadPool = CreateSendThreadPool(maximum, minimum);
    context->WorkThreadPool = CreateWorkThreadPool(maximum, minimum);
    context->ClientWorkThreadPool = CreateClientWorkThreadPool(maximum, minimum);
    context->ListenSocket = -1;
    context->PoolsBegun = 0;
    context->RunFlag = 1;
    if (context->ProcessMode == kSerialMode) {
        context->ProcessLock = MyCreateCriticalSection();
    }
    if (!HasAll(context)) {
        SockUnInit(context);
        return 0;
    }
    return 1;
}

template <auto Delete, typename Pointer>
static void DeleteAndClear(Pointer &field) {
    Delete(field);
    field = nullptr;
}

void SockUnInit(ServerContext *context) {
    context->RunFlag = 0;
    DeleteAndClear<DeleteRecvThreadPool>(context->RecvThreadPool);
    DeleteAndClear<DeleteSendThreadPool>(context->SendThreadPool);
    DeleteAndClear<DeleteWorkThreadPool>(context->WorkThreadPool);
    DeleteAndClear<DeleteClientWorkThreadPool>(context->ClientWorkThreadPool);
    DeleteAndClear<DeleteRecvPoolHandleList>(context->RecvPoolHandleList);
    DeleteAndClear<DeleteSendPoolHandleList>(context->SendPoolHandleList);
    DeleteAndClear<DeleteWorkPoolHandleList>(context->WorkPoolHandleList);
    DeleteAndClear<DeleteUserPoolHandleList>(context->UserPoolHandleList);
    DeleteAndClear<DeleteTaskQueue>(context->TaskQueue);
    DeleteAndClear<DeleteResultQueue>(context->ResultQueue);
    DeleteAndClear<DeleteMidResultQueue>(context->MidResultQueue);
    DeleteAndClear<DeleteClientList>(context->ClientList);
    DeleteAndClear<MyDeleteCriticalSection>(context->ProcessLock);
}

// --- start ------------------------------------------------------------------------------------

// The listening socket, or -1.
static int32_t OpenPort(uint16_t port) {
    int32_t socket = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, IPPROTO_TCP);
    if (socket >= 0 && socket < kLeastDescriptor) {
        const int32_t moved = MoveDescriptor(socket, kLeastDescriptor);
        if (moved < 0) {
            close(socket);
        }
        socket = moved;
    }
    if (socket < 0) {
        return -1;
    }
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_ANY);
    address.sin_port = htons(port);
    if (bind(socket, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) != 0 ||
        listen(socket, kBacklog) != 0) {
        close(socket);
        return -1;
    }
    return socket;
}

int32_t StartServer(ServerContext *context, uint16_t port) {
    context->ListenSocket = OpenPort(port);
    if (context->ListenSocket < 0) {
        return 0;
    }
    // A pool without a manager would leave the server deaf or dumb.
    return StartRecvThreadPool(context) == 1 && StartSendThreadPool(context) == 1 &&
                   StartWorkThreadPool(context) == 1 && StartClientWorkThreadPool(context) == 1
               ? 1
               : 0;
}

// --- stop -------------------------------------------------------------------------------------

static void StopPools(ServerContext *context) {
    StopRecvThreadPool(context);
    StopSendThreadPool(context);
    StopWorkThreadPool(context);
    StopClientWorkThreadPool(context);
}

static void TerminatePools(ServerContext *context) {
    TerminateRecvThreadPool(context);
    TerminateSendThreadPool(context);
    TerminateWorkThreadPool(context);
    TerminateUserThreadPool(context);
}

// Somebody may still be inside: a thread that was left to itself, the calling thread where it runs
// the handler, or a command.
static bool IsDeserted(ServerContext *context) {
    Gate_Close(&context->Commands);
    return Gate_Drain(&context->Commands, kCommandsMs) && context->Threads == 0;
}

bool AbortStart(ServerContext *context) {
    context->RunFlag = 0;
    CloseListenSocket(context);
    StopPools(context);
    TerminatePools(context);
    return IsDeserted(context);
}

bool StopServer(ServerContext *context) {
    context->RunFlag = 0;
    CloseListenSocket(context);
    StopPools(context);
    MySleep(kGracePeriodMs);
    TerminatePools(context);
    CloseAllClient(context->ClientList);
    ClearResultQueue(context->ResultQueue);
    if (IsDeserted(context)) {
        return true;
    }
    // Whoever is left inside may stay for ever; what waits is not to stay with it.
    ClearTaskQueue(context->TaskQueue);
    ClearMidResultQueue(context->MidResultQueue);
    return false;
}

} // namespace nrpc
