#include "client/connection.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "client/address.h"
#include "client/asynchronous_send.h"
#include "client/dispatch.h"
#include "client/receive.h"
#include "host/overdue.h"
#include "support/sockets.h"

namespace nrpc {

static constexpr uint32_t kHighestPort = 65535;
static constexpr int32_t kLeastDescriptor = 3; // 0 means failure, and 0 to 2 are standard streams
static constexpr uint32_t kConnectSliceMs = 1000;
// The threads look at the close flag at least once a second, and the shut-down socket wakes them.
static constexpr uint32_t kEndWaitMs = 1500;

// --- connecting -------------------------------------------------------------------------------

static bool IsConnectedToItself(int32_t socket) {
    sockaddr_in own = {};
    sockaddr_in peer = {};
    socklen_t ownLen = sizeof(own);
    socklen_t peerLen = sizeof(peer);
    return getsockname(socket, reinterpret_cast<sockaddr *>(&own), &ownLen) != 0 ||
           getpeername(socket, reinterpret_cast<sockaddr *>(&peer), &peerLen) != 0 ||
           (own.sin_port == peer.sin_port && own.sin_addr.s_addr == peer.sin_addr.s_addr);
}

// Waits for the system's verdict on a connection attempt, in slices, so that a release on another
// thread is not held up for minutes.
static bool AwaitConnection(int32_t socket, const std::atomic<int32_t> &released) {
    WaitResult wait = kSocketTimeout;
    while (wait == kSocketTimeout && released == 0) {
        wait = WaitWritable(socket, kConnectSliceMs);
    }
    int error = 0;
    socklen_t errorLen = sizeof(error);
    return wait == kSocketReady && released == 0 &&
           getsockopt(socket, SOL_SOCKET, SO_ERROR, &error, &errorLen) == 0 && error == 0;
}

static bool Connect(int32_t socket, const char *address, uint16_t port,
                    const std::atomic<int32_t> &released) {
    sockaddr_in server = {};
    server.sin_family = AF_INET;
    server.sin_port = htons(port);
    server.sin_addr.s_addr = inet_addr(address);
    if (connect(socket, reinterpret_cast<const sockaddr *>(&server), sizeof(server)) != 0 &&
        ((errno != EINPROGRESS && errno != EINTR) || !AwaitConnection(socket, released))) {
        return false;
    }
    return !IsConnectedToItself(socket);
}

int32_t connect_client(const char *address, uint16_t port, const std::atomic<int32_t> &released) {
    int32_t socket = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, IPPROTO_TCP);
    if (socket >= 0 && socket < kLeastDescriptor) {
        const int32_t moved = MoveDescriptor(socket, kLeastDescriptor);
        if (moved < 0) {
            close(socket);
        }
        socket = moved;
    }
    if (socket < 0) {
        return 0;
    }
    PrepareConnection(socket);
    if (!Connect(socket, address, port, released)) {
        close(socket);
        return 0;
    }
    return socket;
}

// A thread holds the record; it drops it as its last act.
static bool StartThread(ClientContext *context, ClientThread *thread, ThreadRoutine routine,
                        size_t stackLen) {
    HoldAgain(&context->Life);
    if (MyCreateThread(&thread->Id, routine, context, stackLen) == 0) {
        DropObject(&context->Life);
        return false;
    }
    thread->Runs = true;
    return true;
}

static bool StartThreads(ClientContext *context) {
    return StartThread(context, &context->RecvThread, ClientFunRecvThread, kLibraryStackLen) &&
           (context->RequestMode == kSynchronous ||
            (StartThread(context, &context->SendThread, ClientFunSendThread, kLibraryStackLen) &&
             StartThread(context, &context->WorkThread, ClientFunWorkThread, kDefaultStackLen)));
}

int32_t ConnectToServer(ClientContext *context, uint32_t port, const char *address) {
    char resolved[kAddressTextSize];
    if (port > kHighestPort || address == nullptr || *address == 0) {
        return 0;
    }
    if (IsIP(address) != 1) {
        address = GetIpFromUrl(address, resolved);
    }
    if (address == nullptr) {
        return 0;
    }
    context->ReceivingMsgID = 0;
    const int32_t socket = connect_client(address, static_cast<uint16_t>(port), context->Released);
    if (socket == 0) {
        return 0;
    }
    context->Socket = socket;
    context->RequestLock = MyCreateCriticalSection();
    context->CloseMessage = NewClientMessage(kConnectionClosed);
    if (context->RequestLock == nullptr || context->CloseMessage == nullptr) {
        return 0;
    }
    context->CloseFlag = 0;
    Gate_Open(&context->Requests); // before the handler can be called
    return StartThreads(context) ? 1 : 0;
}

// --- teardown ---------------------------------------------------------------------------------

static bool Joined(ClientThread *thread, uint32_t limitMs) {
    if (thread->Runs && MyJoinThread(thread->Id, limitMs)) {
        thread->Runs = false;
    }
    return !thread->Runs;
}

static int32_t VisitWorkThread(void *owner, void (*act)(pthread_t thread)) {
    auto *thread = static_cast<ClientThread *>(owner);
    if (Joined(thread, 0)) {
        return 0;
    }
    act(thread->Id);
    return 1;
}

static void LeaveToItself(ClientThread *thread) {
    if (thread->Runs) {
        pthread_detach(thread->Id);
        thread->Runs = false;
    }
}

static bool EndThreads(ClientContext *context) {
    bool ended = Joined(&context->RecvThread, kEndWaitMs);
    ended = Joined(&context->SendThread, kEndWaitMs) && ended;
    if (IsRoutineThreadOf(context)) {
        ended = false;
    } else {
        ended = EndRoutineThreads(VisitWorkThread, &context->WorkThread, context->HostMask) == 0 &&
                ended;
    }
    LeaveToItself(&context->RecvThread);
    LeaveToItself(&context->SendThread);
    LeaveToItself(&context->WorkThread);
    return ended;
}

bool StopConnect(ClientContext *context, uint32_t pauseMs) {
    context->CloseFlag = 1;
    Gate_Close(&context->Requests);
    if (context->Socket >= 0) {
        shutdown(context->Socket, SHUT_RDWR); // wakes the threads; closed when they have ended
    }
    MySleep(pauseMs);
    const bool ended = EndThreads(context);
    if (!Gate_Drain(&context->Requests, kEndWaitMs) || !ended) {
        // Whoever is left inside may stay for ever; what waits is not to stay with it.
        RemoveAllFromSendDataList(context);
        RemoveAllFromWorkDataList(context);
        return false;
    }
    ReleaseConnection(context);
    return true;
}

void ReleaseConnection(ClientContext *context) {
    if (context->Socket >= 0) {
        close(context->Socket);
        context->Socket = -1;
    }
    RemoveAllFromSendDataList(context);
    RemoveAllFromWorkDataList(context);
    FreeClientMessage(context->CloseMessage);
    context->CloseMessage = nullptr;
    FreeOutgoing(&context->Outgoing);
    Assembly_Reset(&context->Received);
    context->ReceivingMsgID = 0;
    MyDeleteCriticalSection(context->RequestLock);
    context->RequestLock = nullptr;
}

} // namespace nrpc
