#include "server_commands/connected_clients.h"

#include <arpa/inet.h>
#include <sys/socket.h>

#include "protocol/control.h"
#include "server/client_list.h"
#include "server_commands/server_object.h"

namespace nrpc {

// --- address ----------------------------------------------------------------------------------

// The peer's IPv4 address in dotted form. False when the socket has no peer any more.
static bool get_client_ip(int32_t socket, char *text, socklen_t size) {
    sockaddr_in address = {};
    socklen_t length = sizeof(address);
    return getpeername(socket, reinterpret_cast<sockaddr *>(&address), &length) == 0 &&
           inet_ntop(AF_INET, &address.sin_addr, text, size) != nullptr;
}

static bool FindAddress(ServerContext *server, int32_t handle, char *text, socklen_t size) {
    const GatePass pass(&server->Commands);
    if (!pass) {
        return false;
    }
    LockGuard guard(server->ClientList->Lock);
    return FindClient(server->ClientList, handle) != nullptr && get_client_ip(handle, text, size);
}

NRPC_HOST_ENTRY void fnGetClientIPAddr(HostValue *result, int32_t, HostValue *args) {
    ServerObject object(args);
    ServerContext *server = object.Started();
    char address[INET_ADDRSTRLEN];
    result->Number = 0;
    if (server == nullptr || args[2].Slot == nullptr ||
        !FindAddress(server, args[1].Number, address, sizeof(address))) {
        return;
    }
    bool failed = false;
    char *text = CloneTextData(address, &failed);
    if (!failed) {
        StoreInSlot(args[2].Slot, text);
        result->Number = 1;
    }
}

// --- count and list ---------------------------------------------------------------------------

NRPC_HOST_ENTRY void fnGetClientCount(HostValue *result, int32_t, HostValue *args) {
    ServerObject object(args);
    ServerContext *server = object.Started();
    result->Number = -1;
    if (server != nullptr) {
        const GatePass pass(&server->Commands);
        if (pass) {
            result->Number = GetClientCount(server);
        }
    }
}

// An array of all handles in list order on the host's heap; null when that is exhausted.
static void *CloneHandles(ClientList *list) {
    LockGuard guard(list->Lock); // also over the host's allocation: the list must not change
    const auto count = static_cast<uint32_t>(list->Count);
    const size_t elementCount = count == 0 ? 1 : count; // an empty array has room for one
    auto *array =
        static_cast<int32_t *>(HostAlloc(kCountedHeadLen + elementCount * sizeof(int32_t)));
    if (array == nullptr) {
        return nullptr;
    }
    array[0] = kOneDimension;
    array[1] = list->Count;
    array[2] = 0;
    int32_t *at = array + 2;
    for (const ClientEntry *entry = list->Head; entry != nullptr; entry = entry->Next) {
        *at++ = entry->Socket;
    }
    return array;
}

NRPC_HOST_ENTRY void fnGetAllClient(HostValue *result, int32_t, HostValue *args) {
    ServerObject object(args);
    ServerContext *server = object.Started();
    HostWord *slot = args[1].Slot;
    result->Number = 0;
    if (server == nullptr || slot == nullptr) {
        return;
    }
    const GatePass pass(&server->Commands);
    if (!pass) {
        return;
    }
    NotifySys(kHostFreeArray, args[1].TypeCode, *slot);
    *slot = 0;
    *slot = reinterpret_cast<HostWord>(CloneHandles(server->ClientList));
    result->Number = *slot == 0 ? 0 : 1;
}

// --- disconnect -------------------------------------------------------------------------------

static bool ClaimWriting(ClientList *list, ClientEntry *client) {
    LockGuard guard(list->Lock);
    if (client->SendBusy == 1 || client->HalfSent != nullptr || client->Outgoing.SentLen != 0) {
        return false;
    }
    client->SendBusy = 1;
    return true;
}

// The close text goes out between two messages or not at all: inside a packet the client would take
// it for a part of its message.
static WriteResult SayGoodbye(ServerContext *server, ClientEntry *client) {
    ClientList *list = server->ClientList;
    int32_t passes = kControlPasses;
    while (!ClaimWriting(list, client)) {
        if (--passes == 0) {
            return kGivenUp;
        }
        MySleep(kControlPassMs);
    }
    const WriteResult result = SendCloseText(client->Socket, passes);
    ResultData *next = ReleaseFromSending(list, client, nullptr);
    if (next != nullptr) {
        AddResultToQueueTail(server->ResultQueue, next);
    }
    return result;
}

NRPC_HOST_ENTRY void fnDisconnect(HostValue *, int32_t, HostValue *args) {
    ServerObject object(args);
    ServerContext *server = object.Started();
    if (server == nullptr) {
        return;
    }
    const GatePass pass(&server->Commands);
    if (!pass) {
        return;
    }
    ClientEntry *client = HoldClient(server->ClientList, args[1].Number);
    if (client == nullptr) {
        return;
    }
    // A connection that is broken already is left to the receive pool, which notices it.
    if (SayGoodbye(server, client) != kWriteFailed) {
        ReportDisconnect(server, client);
        Remove_From_Client_List(server->ClientList, client->Socket);
    }
    DropClient(server->ClientList, client);
}

} // namespace nrpc
