#include "client_commands/commands.h"

#include <cstring>

#include "client/connection.h"
#include "client/synchronous.h"

namespace nrpc {

namespace {

// Holds the client and keeps cancellation away while a command runs: a handler's thread is never
// ended inside the library.
class ClientObject {
  public:
    [[nodiscard]] explicit ClientObject(HostValue *args)
        : m_Client(args[0].Slot == nullptr ? nullptr : args[0].Slot + kClientDataPtr) {}

    // The client in any state; null when it does not exist.
    HeldObject<ClientContext, kClientObject> &Any() { return m_Client; }
    // The client while it is connected, else null.
    ClientContext *Connected() {
        return m_Client && m_Client->CloseFlag != 1 ? m_Client.Get() : nullptr;
    }

    // Words of the object.
    static constexpr size_t kConnectFlag = 0;
    static constexpr size_t kClientDataPtr = 1;

  private:
    CancelShield m_Shield; // comes down last
    HeldObject<ClientContext, kClientObject> m_Client;
};

} // namespace

using Client = HeldObject<ClientContext, kClientObject>;

// Longer than any teardown takes.
static constexpr uint64_t kOtherCommandMs = 7000;

// --- connecting and teardown ------------------------------------------------------------------

static bool MoveOn(Client &client, ConnectionState from, ConnectionState to) {
    int32_t expected = from;
    return client->State.compare_exchange_strong(expected, to);
}

// Waits for another thread's command to move on, but not on a thread that the command waits for.
static void AwaitOtherCommand(Client &client, ConnectionState state) {
    const uint64_t until = MonotonicMs() + kOtherCommandMs;
    while (client->State == state && !IsRoutineThreadOf(client.Get()) && MonotonicMs() < until) {
        MySleep(1);
    }
}

// In state kEnding, which it leaves. False when a thread is left inside: the record is its own now.
static bool EndConnection(Client &client, uint32_t pauseMs) {
    const bool isCleared = StopConnect(client.Get(), pauseMs);
    client->State = isCleared ? kNotConnected : kLeft;
    return isCleared;
}

// Ends the connection if there is one, also one that was lost; else waits for whoever is at it.
// False as EndConnection.
static bool Disconnect(Client &client) {
    AwaitConnected(client.Get());
    if (MoveOn(client, kConnected, kEnding)) {
        return EndConnection(client, kStopPauseMs);
    }
    if (MoveOn(client, kLost, kEnding)) {
        return EndConnection(client, 0);
    }
    AwaitOtherCommand(client, kEnding);
    return true;
}

// A record in the place of one that still has a thread inside; ids go on where they were.
static void Renew(Client &client) {
    ClientContext *fresh = TakeSpare(client.Get());
    if (fresh != nullptr) {
        fresh->LastMsgNum = client->LastMsgNum;
    }
    client.Renew(fresh);
}

NRPC_HOST_ENTRY void fnCreateClient(HostValue *, int32_t, HostValue *args) {
    CancelShield shield;
    if (args[0].Slot != nullptr) {
        args[0].Slot[ClientObject::kClientDataPtr] =
            reinterpret_cast<HostWord>(CreateClientContext());
    }
}

static bool Connect(Client &client, const HostValue *args) {
    const HostValue &mode = args[3];
    const HostValue &handler = args[4];
    const bool isSynchronous = mode.Number == kSynchronous;
    if (!isSynchronous && (handler.TypeCode == kNoType || handler.Word == 0)) {
        return false;
    }
    client->RequestMode = isSynchronous ? kSynchronous : kAsynchronous;
    client->ProcessFunc = isSynchronous ? 0 : handler.Word;
    pthread_sigmask(SIG_SETMASK, nullptr, &client->HostMask);
    return PrepareRoutines() && KeepSpare(client.Get()) &&
           ConnectToServer(client.Get(), static_cast<uint32_t>(args[1].Number), args[2].Text) == 1;
}

static void ClearLostConnection(HostValue *args) {
    ClientObject object(args);
    Client &client = object.Any();
    if (client && MoveOn(client, kLost, kEnding) && !EndConnection(client, 0)) {
        Renew(client);
    }
}

NRPC_HOST_ENTRY void fnClientConnect(HostValue *result, int32_t, HostValue *args) {
    constexpr uint32_t kHighestPort = 65535;
    result->Number = 0;
    if (static_cast<uint32_t>(args[1].Number) > kHighestPort) {
        return;
    }
    ClearLostConnection(args);
    ClientObject object(args);
    Client &client = object.Any();
    if (!client || !MoveOn(client, kNotConnected, kConnecting)) {
        return;
    }
    const bool isConnected = Connect(client, args);
    client->State = isConnected ? kConnected : kEnding;
    // A release on another thread has seen that state, or is seen here.
    if (isConnected && client->Released == 0) {
        args[0].Slot[ClientObject::kConnectFlag] = 1;
        result->Number = 1;
    } else if (!(isConnected ? Disconnect(client) : EndConnection(client, 0))) {
        Renew(client);
    }
}

NRPC_HOST_ENTRY void fnClientdisConnect(HostValue *, int32_t, HostValue *args) {
    ClientObject object(args);
    Client &client = object.Any();
    if (client && !Disconnect(client)) {
        Renew(client);
    }
}

// True when there was a record to release; another thread may have given the object a new one
// meanwhile.
static bool ReleaseRecord(HostValue *args) {
    ClientObject object(args);
    Client &client = object.Any();
    if (!client) {
        return false;
    }
    client->Released = 1;
    AwaitOtherCommand(client, kConnecting);
    Disconnect(client);
    client.Renew(nullptr);
    return true;
}

NRPC_HOST_ENTRY void fnReleaseClient(HostValue *, int32_t, HostValue *args) {
    while (ReleaseRecord(args)) {
    }
}

// --- synchronous requests ---------------------------------------------------------------------

// Stores what `Clone` makes of the message's bytes; false, the slot as it was, when the host's heap
// is exhausted.
template <auto Clone>
static bool StoreClone(HostWord *slot, const ClientMessage *message) {
    bool failed = false;
    void *value = Clone(message->Data, message->DataLen, &failed);
    if (!failed) {
        StoreInSlot(slot, value);
    }
    return !failed;
}

// The reply, the caller's to free, and 1; or 0 or -1.
static int32_t Request(ClientContext *client, const uint8_t *data, size_t length, int32_t timeoutMs,
                       ClientMessage **reply) {
    if (client == nullptr || timeoutMs < 0 || length < 1 || length > kMaxPayloadLen) {
        return -1;
    }
    const GatePass pass(&client->Requests);
    if (!pass || client->RequestMode != kSynchronous) {
        return -1;
    }
    LockGuard guard(client->RequestLock);
    return SynRequest(client, data, static_cast<int32_t>(length), timeoutMs, reply);
}

// Sends the request and stores its reply, as `Clone` makes a host value of it.
template <auto Clone>
static int32_t RequestAndStore(HostValue *args, const uint8_t *data, size_t length) {
    ClientObject object(args);
    HostWord *slot = args[2].Slot;
    if (slot == nullptr) {
        return -1;
    }
    ClientMessage *reply = nullptr;
    const int32_t outcome = Request(object.Connected(), data, length, args[3].Number, &reply);
    if (outcome != 1) {
        return outcome;
    }
    const bool stored = StoreClone<Clone>(slot, reply);
    FreeClientMessage(reply);
    return stored ? 1 : -1;
}

NRPC_HOST_ENTRY void fnSendSynRequestText(HostValue *result, int32_t, HostValue *args) {
    const char *text = args[1].Text == nullptr ? "" : args[1].Text;
    result->Number = RequestAndStore<CloneTextBytes>(args, reinterpret_cast<const uint8_t *>(text),
                                                     std::strlen(text));
}

NRPC_HOST_ENTRY void fnSendSynRequestBin(HostValue *result, int32_t, HostValue *args) {
    const int32_t *bytes = args[1].ByteSet;
    const auto length = static_cast<size_t>(ByteSetLength(bytes));
    result->Number =
        RequestAndStore<CloneBinData>(args, length == 0 ? nullptr : ByteSetBytes(bytes), length);
}

// --- asynchronous requests --------------------------------------------------------------------

static bool QueueRequest(ClientContext *client, const uint8_t *data, size_t length) {
    if (client == nullptr || length > kMaxPayloadLen || !BudgetHasRoom(length)) {
        return false;
    }
    const GatePass pass(&client->Requests);
    if (!pass || client->RequestMode != kAsynchronous) {
        return false;
    }
    SendDataItem *item = NewSendData(data, static_cast<int32_t>(length));
    if (item == nullptr) {
        return false;
    }
    AddSendData(client, item);
    return true;
}

NRPC_HOST_ENTRY void fnSendAsynRequestText(HostValue *result, int32_t, HostValue *args) {
    ClientObject object(args);
    const char *text = args[1].Text == nullptr ? "" : args[1].Text;
    result->Number =
        QueueRequest(object.Connected(), reinterpret_cast<const uint8_t *>(text), std::strlen(text))
            ? 1
            : 0;
}

NRPC_HOST_ENTRY void fnSendAsynRequestBin(HostValue *result, int32_t, HostValue *args) {
    ClientObject object(args);
    const int32_t length = ByteSetLength(args[1].ByteSet);
    result->Number = length > 0 && QueueRequest(object.Connected(), ByteSetBytes(args[1].ByteSet),
                                                static_cast<size_t>(length))
                         ? 1
                         : 0;
}

// --- reading a message, inside the handler ----------------------------------------------------

static const ClientMessage *MessageOf(ClientObject &object, const HostValue *args) {
    return object.Connected() == nullptr ? nullptr
                                         : reinterpret_cast<const ClientMessage *>(args[1].Word);
}

NRPC_HOST_ENTRY void fnClientGetMsgKind(HostValue *result, int32_t, HostValue *args) {
    ClientObject object(args);
    const ClientMessage *message = MessageOf(object, args);
    result->Number = message == nullptr ? -1 : message->MsgKind;
}

template <auto Clone>
static int32_t StoreResult(HostValue *args) {
    ClientObject object(args);
    const ClientMessage *message = MessageOf(object, args);
    HostWord *slot = args[2].Slot;
    return message != nullptr && message->MsgKind != kConnectionClosed && slot != nullptr &&
                   StoreClone<Clone>(slot, message)
               ? 1
               : 0;
}

NRPC_HOST_ENTRY void fnGetResultText(HostValue *result, int32_t, HostValue *args) {
    result->Number = StoreResult<CloneTextBytes>(args);
}

NRPC_HOST_ENTRY void fnGetResultBin(HostValue *result, int32_t, HostValue *args) {
    result->Number = StoreResult<CloneBinData>(args);
}

// Spare rows of the command table.
NRPC_HOST_ENTRY void fnClientDemo2(HostValue *, int32_t, HostValue *) {}
NRPC_HOST_ENTRY void fnClientDemo3(HostValue *, int32_t, HostValue *) {}

} // namespace nrpc
