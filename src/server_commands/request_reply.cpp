#include "server_commands/request_reply.h"

#include <cstring>

#include "server/client_list.h"
#include "server_commands/server_object.h"

namespace nrpc {

// --- reading a message, inside the handler ----------------------------------------------------

// The message at the address in cell 1; null when the server is not started or the address is 0.
static const MidResult *MessageOf(ServerObject &object, const HostValue *args) {
    return object.Started() == nullptr ? nullptr
                                       : reinterpret_cast<const MidResult *>(args[1].Word);
}

NRPC_HOST_ENTRY void fnGetMsgKind(HostValue *result, int32_t, HostValue *args) {
    ServerObject object(args);
    const MidResult *message = MessageOf(object, args);
    result->Number = message == nullptr ? -1 : message->MsgKind;
}

NRPC_HOST_ENTRY void fnGetClientHandle(HostValue *result, int32_t, HostValue *args) {
    ServerObject object(args);
    const MidResult *message = MessageOf(object, args);
    result->Number = 0;
    if (message != nullptr && args[2].Slot != nullptr) {
        *reinterpret_cast<int32_t *>(args[2].Slot) = message->Socket;
        result->Number = 1;
    }
}

// The request at the address in cell 1, when there is one and both outputs have a slot.
static const MidResult *RequestOf(ServerObject &object, const HostValue *args) {
    const MidResult *message = MessageOf(object, args);
    return message != nullptr && message->MsgKind == kRequestArrived && args[2].Slot != nullptr &&
                   args[3].Slot != nullptr
               ? message
               : nullptr;
}

static bool StoreRequestCode(const MidResult *message, HostWord *slot) {
    char code[kRequestCodeSize];
    FormatRequestCode(message->Socket, message->MsgID, code);
    bool failed = false;
    char *text = CloneTextData(code, &failed);
    if (!failed) {
        StoreInSlot(slot, text);
    }
    return !failed;
}

NRPC_HOST_ENTRY void fnGetRequestText(HostValue *result, int32_t, HostValue *args) {
    ServerObject object(args);
    const MidResult *message = RequestOf(object, args);
    result->Number = 0;
    if (message == nullptr || !StoreRequestCode(message, args[2].Slot)) {
        return;
    }
    bool failed = false;
    char *text = CloneTextBytes(message->Data, message->DataLen, &failed);
    if (!failed) {
        StoreInSlot(args[3].Slot, text);
        result->Number = 1;
    }
}

NRPC_HOST_ENTRY void fnGetRequestBin(HostValue *result, int32_t, HostValue *args) {
    ServerObject object(args);
    const MidResult *message = RequestOf(object, args);
    result->Number = 0;
    if (message == nullptr || !StoreRequestCode(message, args[2].Slot)) {
        return;
    }
    StoreInSlot(args[3].Slot, nullptr); // the old byte set makes room for the new one
    bool failed = false;
    *args[3].Slot =
        reinterpret_cast<HostWord>(CloneBinData(message->Data, message->DataLen, &failed));
    result->Number = failed ? 0 : 1;
}

// --- sending ----------------------------------------------------------------------------------

// Reads the destination in cell 1 and checks that it is a connected client.
static bool ReadDestination(ServerContext *server, const HostValue &cell, int32_t *socket,
                            MsgIDText msgID) {
    if (cell.TypeCode == kText) {
        return cell.Text != nullptr && ParseRequestCode(cell.Text, socket, msgID) &&
               CheckClientSocket(server, *socket, 0) >= 0;
    }
    if (cell.TypeCode != kInteger) {
        return false;
    }
    *socket = cell.Number;
    const int32_t number = CheckClientSocket(server, *socket, 1);
    FormatMsgID(number, msgID);
    return number >= 0;
}

static bool QueueReply(ServerContext *server, const HostValue &destination, const uint8_t *data,
                       size_t length) {
    if (length < 1 || length > kMaxPayloadLen || !BudgetHasRoom(length)) {
        return false;
    }
    const GatePass pass(&server->Commands);
    int32_t socket = 0;
    MsgIDText msgID;
    if (!pass || !ReadDestination(server, destination, &socket, msgID)) {
        return false;
    }
    ResultData *reply = NewResultData(socket, msgID, data, static_cast<uint32_t>(length));
    if (reply == nullptr) {
        return false;
    }
    AddResultToQueueTail(server->ResultQueue, reply);
    return true;
}

NRPC_HOST_ENTRY void fnSendResultText(HostValue *result, int32_t, HostValue *args) {
    ServerObject object(args);
    ServerContext *server = object.Started();
    const char *text = args[2].Text;
    result->Number = server != nullptr && text != nullptr &&
                             QueueReply(server, args[1], reinterpret_cast<const uint8_t *>(text),
                                        std::strlen(text))
                         ? 1
                         : 0;
}

NRPC_HOST_ENTRY void fnSendResultBin(HostValue *result, int32_t, HostValue *args) {
    ServerObject object(args);
    ServerContext *server = object.Started();
    const int32_t length = ByteSetLength(args[2].ByteSet);
    result->Number = server != nullptr && length > 0 &&
                             QueueReply(server, args[1], ByteSetBytes(args[2].ByteSet),
                                        static_cast<size_t>(length))
                         ? 1
                         : 0;
}

} // namespace nrpc
