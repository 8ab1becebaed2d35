#include "server/accept.h"

#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "server/client_list.h"
#include "support/sockets.h"

namespace nrpc {

static constexpr uint32_t kNoResourcesMs = 10;
static constexpr uint32_t kStopPauseMs = 300;
static constexpr uint32_t kEndWaitMs = 2000;
// Descriptors below are standard streams, and 0 means failure elsewhere.
static constexpr int32_t kLeastHandle = 3;
static constexpr int32_t kHandleCycleEnd = 65536;

// The number from which the next handle is taken, for all servers of the process.
static std::atomic<int32_t> s_NextHandle = kLeastHandle;

// A handle is not used again before the cycle is through: a late reply must not reach a newcomer
// that happens to have got its client's number.
static int32_t MoveToNextHandle(int32_t socket) {
    rlimit limit = {};
    getrlimit(RLIMIT_NOFILE, &limit);
    const auto end = static_cast<int32_t>(std::min<rlim_t>(limit.rlim_cur, kHandleCycleEnd));
    int32_t next = s_NextHandle;
    int32_t moved = next < end ? MoveDescriptor(socket, next) : -1;
    if (moved < 0) {
        moved = MoveDescriptor(socket, kLeastHandle);
    }
    if (moved < 0) {
        return socket; // no other number is to be had
    }
    s_NextHandle = moved + 1;
    return moved;
}

// A client that cannot be kept is closed again.
static void AdmitClient(ServerContext *context, int32_t socket) {
    socket = MoveToNextHandle(socket);
    PrepareConnection(socket);
    ClientEntry *entry = NewClientEntry(socket);
    MidResult *connected = NewMidResult(socket, kClientConnected);
    MidResult *disconnected = NewMidResult(socket, kClientDisconnected);
    if (socket < kLeastHandle || entry == nullptr || connected == nullptr ||
        disconnected == nullptr) {
        if (entry != nullptr) {
            FreeClientEntry(entry);
        }
        FreeMidResult(connected);
        FreeMidResult(disconnected);
        close(socket);
        return;
    }
    // The entry is in the list before the handler hears of the client, and is claimed until then:
    // so nothing of the client reaches the handler before its connect message.
    Add_To_Client_List(context->ClientList, entry);
    AddMidResultToQueueTail(context->MidResultQueue, connected);
    if (OpenToReceive(context->ClientList, entry, disconnected)) {
        AddMidResultToQueueTail(context->MidResultQueue, disconnected);
    }
}

void *FunAcceptThread_new(void *arg) {
    MySetThreadAttribute("nrpc-accept");
    auto *context = static_cast<ServerContext *>(arg);
    while (context->RunFlag != 0) {
        if (BudgetIsExceeded()) {
            MySleep(kNoResourcesMs);
            continue;
        }
        const int32_t socket =
            accept4(context->ListenSocket, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (socket >= 0) {
            AdmitClient(context, socket);
        } else if (errno != EINTR && errno != ECONNABORTED) {
            MySleep(kNoResourcesMs); // out of descriptors or memory: must not become a busy loop
        }
    }
    DropFromThread(context);
    return nullptr;
}

int32_t AcceptThread(ServerContext *context) {
    HoldForThread(context);
    if (MyCreateThread(&context->AcceptThreadHandle, FunAcceptThread_new, context,
                       kLibraryStackLen) == 0) {
        DropFromThread(context);
        return 0;
    }
    context->AcceptRuns = true;
    return 1;
}

void CloseListenSocket(ServerContext *context) {
    const int32_t socket = context->ListenSocket;
    if (socket < 0) {
        return;
    }
    shutdown(socket, SHUT_RDWR);
    if (context->AcceptRuns) {
        context->AcceptRuns = false;
        if (!MyJoinThread(context->AcceptThreadHandle, kEndWaitMs)) {
            pthread_detach(context->AcceptThreadHandle);
        }
    }
    context->ListenSocket = -1;
    close(socket);
}

void StopAcceptThread() {
    MySleep(kStopPauseMs);
}

} // namespace nrpc
