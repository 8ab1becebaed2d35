// server/client_list.h: the registry of connected clients, and the only data that the pools share.
//   Handle     a client's identity, for the host too, is the descriptor of its socket.
//   Order      accept order at first; a client that the receive pool has served goes to the tail.
//   Locks      Lock guards the list and every field of an entry that is not said to be a claim's.
//              It is held briefly, never across a socket wait.
//   Claims     a thread uses an entry outside the lock only while it has a claim on it: RecvBusy,
//              SendBusy or Holds. Removing an entry unlinks it and shuts its socket down at once;
//              the descriptor is closed and the entry freed when the last claim is dropped. So a
//              handle is never reused while any thread still works with it.
//   Reporting  each client that was reported as connected is reported as disconnected exactly once,
//              unless the stop of the server closes it.
#pragma once

#include <cstdint>

#include "protocol/assembly.h"
#include "protocol/outgoing.h"
#include "server/context.h"
#include "server/queues.h"

namespace nrpc {

struct ClientEntry {
    int32_t Socket; // constant: the connection, and the handle that the host sees
    ClientEntry *Next;
    ClientEntry *Previous;
    ClientEntry *NextInBucket;

    // Claims.
    int32_t RecvBusy; // 1: a receive worker (or, at first, the accept thread) uses the entry
    int32_t SendBusy; // 1: a send worker writes to the client
    int32_t Holds;    // commands that use the socket
    bool Removed;     // no longer in the list; waits for its claims

    int32_t ServerMsgID; // of the last message sent on the server's own initiative: 5 to 9
    int32_t CurMsgID;    // number of its latest request; -1 at first and after a cancel
    // 1 once the client has cancelled a request, and from then on. Set under Lock.
    std::atomic<int32_t> CancelFlag;

    // Made at accept, so that reporting the end cannot fail; null until the client was reported as
    // connected and again once its end was reported.
    MidResult *DisconnectMessage;

    // Replies that wait for their turn: one is on its way (in the result queue or with a worker).
    ResultData *FirstWaiting;
    ResultData *LastWaiting;
    // The reply that is written in part and in the result queue; no other may be written before the
    // rest of it.
    const ResultData *HalfSent;

    // The claim of the send worker covers these.
    OutgoingPackets Outgoing;
    uint64_t ProgressMs; // when the client last took bytes

    // The claim of the receive worker covers these.
    Assembly Received;
    uint64_t LastByteMs; // when the client last sent something
};

struct ClientList {
    static constexpr uint32_t kBucketCount = 1024;

    ClientEntry *Head GUARDED_BY(Lock);
    ClientEntry *Tail GUARDED_BY(Lock);
    int32_t Count GUARDED_BY(Lock);
    ClientEntry *Buckets[kBucketCount] GUARDED_BY(Lock); // by handle
    LockHandle Lock;
};

// Null when memory is exhausted.
ClientList *CreateClientList();
// The entries must already be gone. Null is accepted.
void DeleteClientList(ClientList *list);

// An entry for the socket, claimed for receiving; null when memory is exhausted. It belongs to the
// caller until it is added, then to the list.
ClientEntry *NewClientEntry(int32_t socket);
void FreeClientEntry(ClientEntry *entry);

void Add_To_Client_List(ClientList *list, ClientEntry *entry) EXCLUDES_LOCK(list->Lock);
// Ends the claim that a new entry has: from now on its end can be reported, with `message`. True
// when the client was removed before: then the caller keeps the message, to be queued now.
bool OpenToReceive(ClientList *list, ClientEntry *entry, MidResult *message);

// The entry with that handle, or null. It may be used outside the lock only with a claim.
ClientEntry *FindClient(const ClientList *list, int32_t socket) REQUIRES_LOCK(list->Lock);

// Unlinks the client and shuts its socket down; nothing when no entry has that socket.
void Remove_From_Client_List(ClientList *list, int32_t socket) EXCLUDES_LOCK(list->Lock);
// Removes every client; no disconnect message is queued.
void CloseAllClient(ClientList *list) EXCLUDES_LOCK(list->Lock);

// Receiving: the first client in list order that nobody reads from, or null. With the budget
// exceeded, only one whose partly received message was evicted.
ClientEntry *ClaimForReceiving(ClientList *list) EXCLUDES_LOCK(list->Lock);
// Gives it back, at the tail of the list.
void ReleaseFromReceiving(ClientList *list, ClientEntry *entry) EXCLUDES_LOCK(list->Lock);

// For a command that uses the socket: the client, held until DropClient; null when it is gone.
ClientEntry *HoldClient(ClientList *list, int32_t socket) EXCLUDES_LOCK(list->Lock);
void DropClient(ClientList *list, ClientEntry *entry) EXCLUDES_LOCK(list->Lock);

// Ends the claim of a send worker. `again` is the reply that must be tried again, or null: half
// written it goes on before all others of its client, else it waits behind them. Answers the reply
// whose turn it is now, to be queued by the caller, or null.
ResultData *ReleaseFromSending(ClientList *list, ClientEntry *entry, ResultData *again)
    EXCLUDES_LOCK(list->Lock);
// Puts a reply behind those that wait for this client.
void AddWaitingReply(ClientEntry *entry, ResultData *reply);

// Queues the message that the client's connection has ended, unless that was done before. Call it
// with a claim on the entry, before the client is removed.
void ReportDisconnect(ServerContext *context, ClientEntry *entry);

int32_t GetClientCount(ServerContext *context);
// -1 when no client has that socket. Otherwise 1 if the flag is 0 (a reply to a request), or else
// the number of the next message on the server's own initiative: 6, 7, 8, 9, 5, 6, ...
int32_t CheckClientSocket(ServerContext *context, int32_t socket, int32_t flag);

} // namespace nrpc
