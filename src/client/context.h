// client/context.h: all that one client object owns.
//
//   Ownership  made by the create command, found and counted through Life (support/live_object.h),
//              destroyed by whoever drops the last hold: the release command as a rule, the last
//              thread still inside otherwise. The connection (socket, threads, RequestLock) lives
//              from ConnectToServer to StopConnect.
//   Renewal    a teardown that leaves a thread behind (the client's own work thread that called it,
//              or one that cannot be ended) gives the host object a new record and leaves this one
//              to that thread. So a record never sees threads of two connections.
//   Locks      SendDataLock and WorkDataLock guard their lists, each briefly and alone. RequestLock
//              is held over a whole synchronous request.
#pragma once

#include <pthread.h>

#include <csignal>

#include "host/routine.h"
#include "protocol/assembly.h"
#include "protocol/outgoing.h"
#include "protocol/tag_stream.h"
#include "support/gate.h"
#include "support/live_object.h"
#include "support/threads.h"

namespace nrpc {

// A request waiting to be sent. Record and bytes are one counted block.
struct SendDataItem {
    int32_t DataLen;
    uint8_t *Data;
    SendDataItem *Next;
};

enum ClientMessageKind : int32_t { kConnectionClosed = 0, kDataReceived = 1 };

// A message for the user's handler, which knows it by its address, or for a synchronous request.
// Data lies in Block, which is the record's; both are null in a close message.
struct ClientMessage {
    int32_t MsgKind;
    uint32_t DataLen;
    const uint8_t *Data;
    MsgIDText MsgID;
    MessageChunk *Block;
    ClientMessage *Next;
};

// Values of RequestMode.
inline constexpr int32_t kAsynchronous = 0;
inline constexpr int32_t kSynchronous = 1;

// What a client is doing. One thread at a time moves it on.
enum ConnectionState : int32_t {
    kNotConnected,
    kConnecting,
    kConnected,
    kEnding,
    kLost, // the close message was handled; threads, lists and socket are still to be cleared
    kLeft, // for good: a thread is left inside, and the host object has another record
};

struct ClientThread {
    pthread_t Id;
    bool Runs; // started and not joined; written by the thread that moves the state on
};

// Received messages beyond this many bytes that nobody takes stop the reading; TCP then slows the
// server.
inline constexpr size_t kWorkDataMark = size_t{64} * 1024 * 1024;

struct ClientContext {
    int32_t LastMsgNum; // under RequestLock, or the send thread's
    // Written by the connect command, constant while connected.
    int32_t RequestMode;
    HostWord ProcessFunc; // the user's handler; 0 in synchronous mode
    LockHandle RequestLock;
    // -1 when there is none. Written where the state is moved on; the threads of the connection
    // use it as long as they live.
    int32_t Socket;
    // 1: not connected or being torn down. Read by every thread of the connection, at least once
    // a second.
    std::atomic<int32_t> CloseFlag;
    ClientThread RecvThread;
    ClientThread SendThread; // asynchronous mode only
    ClientThread WorkThread; // asynchronous mode only

    std::atomic<SendDataItem *> SendDataList; // newest first; changed under SendDataLock
    LockHandle SendDataLock;
    ClientMessage *WorkDataList GUARDED_BY(WorkDataLock); // newest first
    size_t WorkDataLen GUARDED_BY(WorkDataLock);
    LockHandle WorkDataLock;

    // Id of the message whose packets arrive just now, its four characters in one word; 0 when
    // none. Written by the receive thread.
    std::atomic<uint32_t> ReceivingMsgID;
    // 1: a synchronous request waits. Its reply is read whatever the budget says, as it may be what
    // lets a handler of this process go on and the budget fall.
    std::atomic<int32_t> AwaitsReply;

    // The receive thread's. The close message is made when connecting, so that reporting the end
    // cannot fail; null once it was reported.
    Assembly Received;
    ClientMessage *CloseMessage;
    // The sender's: under RequestLock, or the send thread's.
    OutgoingPackets Outgoing;
    // The work thread's.
    RoutineThread Routine;
    ClientMessage *Handling;
    sigset_t HostMask; // signal mask of the thread that connected; the work thread keeps it

    std::atomic<int32_t> State;    // ConnectionState
    std::atomic<int32_t> Released; // 1: a connection attempt is to be given up
    Gate Requests; // sends and synchronous requests are inside; open while connected
    // For a renewal, which thereby needs no memory. Whoever moves the state on may change it.
    ClientContext *Spare;
    LiveObject Life;
};

// A closed client, published; null when memory or locks are exhausted.
ClientContext *CreateClientContext();
// Before a connection. False when memory is exhausted.
bool KeepSpare(ClientContext *context);
// The spare, published; null when there is none.
ClientContext *TakeSpare(ClientContext *context);

// Sets the record up: not connected, no lists, first request number to come 11. 1, or 0 when a lock
// cannot be made.
int32_t InitClient(ClientContext *context);
// Empties the lists and deletes their locks. Does not free the record.
void UninitClient(ClientContext *context);

// The threads of a connection may act before the command that started them has returned: waits for
// that moment, which is near.
void AwaitConnected(const ClientContext *context);

// --- lists: an element is the list's from Add until Rem returns it, then the taker's -----------

// An item with a copy of the bytes; null when memory is exhausted.
SendDataItem *NewSendData(const uint8_t *data, int32_t length);
void FreeSendData(SendDataItem *item);
void AddSendData(ClientContext *context, SendDataItem *item);
SendDataItem *RemFromSendDataList(ClientContext *context);
int32_t IsListHaveSendData(const ClientContext *context);
void RemoveAllFromSendDataList(ClientContext *context);

ClientMessage *NewClientMessage(ClientMessageKind kind);
void FreeClientMessage(ClientMessage *message);
void AddWorkData(ClientContext *context, ClientMessage *message);
ClientMessage *RemFromWorkDataList(ClientContext *context);
// True beyond kWorkDataMark.
bool IsWorkDataListFull(ClientContext *context);
void RemoveAllFromWorkDataList(ClientContext *context);

} // namespace nrpc
