#include "server/client_list.h"

#include <sys/socket.h>
#include <unistd.h>

#include "support/heap.h"

namespace nrpc {

static constexpr int32_t kFirstServerMsgID = 5;
static constexpr int32_t kNoMsgID = -1;

ClientList *CreateClientList() {
    auto *list = NewRecord<ClientList>();
    if (list == nullptr) {
        return nullptr;
    }
    list->Lock = MyCreateCriticalSection();
    if (list->Lock == nullptr) {
        FreeRecord(list);
        return nullptr;
    }
    return list;
}

void DeleteClientList(ClientList *list) {
    if (list != nullptr) {
        MyDeleteCriticalSection(list->Lock);
        FreeRecord(list);
    }
}

ClientEntry *NewClientEntry(int32_t socket) {
    auto *entry = NewRecord<ClientEntry>();
    if (entry != nullptr) {
        entry->Socket = socket;
        entry->RecvBusy = 1;
        entry->ServerMsgID = kFirstServerMsgID;
        entry->CurMsgID = kNoMsgID;
    }
    return entry;
}

void FreeClientEntry(ClientEntry *entry) {
    FreeResults(entry->FirstWaiting);
    FreeMidResult(entry->DisconnectMessage);
    FreeOutgoing(&entry->Outgoing);
    Assembly_Reset(&entry->Received);
    FreeRecord(entry);
}

// --- links ------------------------------------------------------------------------------------

static ClientEntry **BucketOf(ClientList *list, int32_t socket) REQUIRES_LOCK(list->Lock) {
    return &list->Buckets[static_cast<uint32_t>(socket) % ClientList::kBucketCount];
}

static void LinkAtTail(ClientList *list, ClientEntry *entry) REQUIRES_LOCK(list->Lock) {
    entry->Next = nullptr;
    entry->Previous = list->Tail;
    (list->Tail == nullptr ? list->Head : list->Tail->Next) = entry;
    list->Tail = entry;
}

static void Unlink(ClientList *list, ClientEntry *entry) REQUIRES_LOCK(list->Lock) {
    (entry->Previous == nullptr ? list->Head : entry->Previous->Next) = entry->Next;
    (entry->Next == nullptr ? list->Tail : entry->Next->Previous) = entry->Previous;
}

// --- removal ----------------------------------------------------------------------------------

// Closes and frees a removed entry once nobody has a claim on it.
static void EndIfUnclaimed(ClientEntry *entry) {
    if (entry->Removed && entry->RecvBusy == 0 && entry->SendBusy == 0 && entry->Holds == 0) {
        close(entry->Socket);
        FreeClientEntry(entry);
    }
}

static void Remove(ClientList *list, ClientEntry *entry) REQUIRES_LOCK(list->Lock) {
    ClientEntry **link = BucketOf(list, entry->Socket);
    while (*link != entry) {
        link = &(*link)->NextInBucket;
    }
    *link = entry->NextInBucket;
    Unlink(list, entry);
    list->Count -= 1;
    entry->Removed = true;
    shutdown(entry->Socket, SHUT_RDWR); // wakes whoever has a claim, and the peer sees the end
    EndIfUnclaimed(entry);
}

void Remove_From_Client_List(ClientList *list, int32_t socket) {
    LockGuard guard(list->Lock);
    ClientEntry *entry = FindClient(list, socket);
    if (entry != nullptr) {
        Remove(list, entry);
    }
}

void CloseAllClient(ClientList *list) {
    LockGuard guard(list->Lock);
    while (list->Head != nullptr) {
        Remove(list, list->Head);
    }
}

// --- adding and finding -----------------------------------------------------------------------

void Add_To_Client_List(ClientList *list, ClientEntry *entry) {
    LockGuard guard(list->Lock);
    ClientEntry **bucket = BucketOf(list, entry->Socket);
    entry->NextInBucket = *bucket;
    *bucket = entry;
    LinkAtTail(list, entry);
    list->Count += 1;
}

bool OpenToReceive(ClientList *list, ClientEntry *entry, MidResult *message) {
    LockGuard guard(list->Lock);
    const bool removed = entry->Removed;
    if (!removed) {
        entry->DisconnectMessage = message;
    }
    entry->RecvBusy = 0;
    EndIfUnclaimed(entry);
    return removed;
}

ClientEntry *FindClient(const ClientList *list, int32_t socket) {
    ClientEntry *entry = list->Buckets[static_cast<uint32_t>(socket) % ClientList::kBucketCount];
    while (entry != nullptr && entry->Socket != socket) {
        entry = entry->NextInBucket;
    }
    return entry;
}

// --- claims -----------------------------------------------------------------------------------

ClientEntry *ClaimForReceiving(ClientList *list) {
    const bool evictedOnly = BudgetIsExceeded();
    LockGuard guard(list->Lock);
    for (ClientEntry *entry = list->Head; entry != nullptr; entry = entry->Next) {
        if (entry->RecvBusy == 0 && (!evictedOnly || entry->Received.Account.Evicted)) {
            entry->RecvBusy = 1;
            return entry;
        }
    }
    return nullptr;
}

void ReleaseFromReceiving(ClientList *list, ClientEntry *entry) {
    LockGuard guard(list->Lock);
    entry->RecvBusy = 0;
    if (entry->Removed) {
        EndIfUnclaimed(entry);
    } else if (entry != list->Tail) {
        Unlink(list, entry);
        LinkAtTail(list, entry);
    }
}

ClientEntry *HoldClient(ClientList *list, int32_t socket) {
    LockGuard guard(list->Lock);
    ClientEntry *entry = FindClient(list, socket);
    if (entry != nullptr) {
        entry->Holds += 1;
    }
    return entry;
}

void DropClient(ClientList *list, ClientEntry *entry) {
    LockGuard guard(list->Lock);
    entry->Holds -= 1;
    EndIfUnclaimed(entry);
}

void AddWaitingReply(ClientEntry *entry, ResultData *reply) {
    reply->Next = nullptr;
    (entry->FirstWaiting == nullptr ? entry->FirstWaiting : entry->LastWaiting->Next) = reply;
    entry->LastWaiting = reply;
}

static ResultData *TakeWaitingReply(ClientEntry *entry) {
    ResultData *first = entry->FirstWaiting;
    if (first != nullptr) {
        entry->FirstWaiting = first->Next;
    }
    return first;
}

ResultData *ReleaseFromSending(ClientList *list, ClientEntry *entry, ResultData *again) {
    LockGuard guard(list->Lock);
    const bool isBegun = again != nullptr && again->Data == nullptr;
    entry->HalfSent = isBegun ? again : nullptr;
    if (again != nullptr && !isBegun) {
        AddWaitingReply(entry, again);
    }
    ResultData *next = isBegun ? again : TakeWaitingReply(entry);
    entry->SendBusy = 0;
    EndIfUnclaimed(entry);
    return next;
}

void ReportDisconnect(ServerContext *context, ClientEntry *entry) {
    MidResult *message = nullptr;
    {
        LockGuard guard(context->ClientList->Lock);
        message = entry->DisconnectMessage;
        entry->DisconnectMessage = nullptr;
    }
    if (message != nullptr) {
        AddMidResultToQueueTail(context->MidResultQueue, message);
    }
}

// --- look-ups for the commands ----------------------------------------------------------------

int32_t GetClientCount(ServerContext *context) {
    LockGuard guard(context->ClientList->Lock);
    return context->ClientList->Count;
}

int32_t CheckClientSocket(ServerContext *context, int32_t socket, int32_t flag) {
    LockGuard guard(context->ClientList->Lock);
    ClientEntry *entry = FindClient(context->ClientList, socket);
    if (entry == nullptr) {
        return -1;
    }
    if (flag == 0) {
        return 1;
    }
    entry->ServerMsgID =
        entry->ServerMsgID < kLastServerMsgNumber ? entry->ServerMsgID + 1 : kFirstServerMsgID;
    return entry->ServerMsgID;
}

} // namespace nrpc
