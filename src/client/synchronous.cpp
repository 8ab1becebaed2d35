#include "client/synchronous.h"

#include <algorithm>
#include <cstring>

#include "client/receive.h"
#include "protocol/control.h"
#include "support/sockets.h"

namespace nrpc {

static constexpr uint32_t kPauseMs = 100;
// The longest that a request does not look whether its connection is being torn down.
static constexpr uint32_t kLookMs = 1000;

namespace {
// Milliseconds since the last step forward, against the limit.
struct Timer {
    uint64_t StartMs;
    uint64_t LimitMs;
};
} // namespace

enum SendPhase : int32_t { kSent = 1, kSendTimedOut = 0, kSendFailed = -1 };

// The limit holds between two sends that moved something, not for the whole.
static SendPhase WriteRequest(ClientContext *context, Timer *timer) {
    while (context->Outgoing.First != nullptr) {
        const uint64_t now = MonotonicMs();
        const uint64_t elapsed = now - timer->StartMs;
        if (context->CloseFlag == 1) {
            return kSendFailed;
        }
        if (elapsed > timer->LimitMs) {
            return kSendTimedOut;
        }
        const uint64_t left = timer->LimitMs - elapsed;
        const WaitResult wait =
            WaitWritable(context->Socket, static_cast<uint32_t>(std::min<uint64_t>(left, kLookMs)));
        if (wait == kWaitFailed) {
            return kSendFailed;
        }
        if (wait == kSocketTimeout) {
            if (left <= kLookMs) {
                return kSendTimedOut;
            }
            continue;
        }
        const AttemptResult attempt = WriteFirstPacket(&context->Outgoing, context->Socket);
        if (attempt > kNoneWritten) {
            timer->StartMs = now;
        } else {
            // Tried again until the time is over, also on a broken connection, but not in a busy
            // loop.
            const uint64_t pause = attempt == kNoneWritten ? 1 : kPauseMs;
            MySleep(static_cast<uint32_t>(std::min(left, pause)));
        }
    }
    return kSent;
}

static bool IsReceiving(const ClientContext *context, const char *msgID) {
    MsgIDText receiving;
    GetReceivingMsgID(context, receiving);
    return std::strcmp(receiving, msgID) == 0;
}

static int32_t AwaitReply(ClientContext *context, const char *msgID, Timer *timer,
                          ClientMessage **reply) {
    while (context->CloseFlag != 1) {
        const uint64_t now = MonotonicMs();
        ClientMessage *message = RemFromWorkDataList(context);
        if (message != nullptr) {
            if (std::strcmp(message->MsgID, msgID) == 0) {
                *reply = message;
                return 1;
            }
            FreeClientMessage(message); // a late reply, or one that nobody asked for
            continue;
        }
        if (IsReceiving(context, msgID)) {
            timer->StartMs = now; // it is arriving
        } else if (now - timer->StartMs >= timer->LimitMs) {
            SendCancelMessageToServer(msgID, context->Socket, &context->Outgoing);
            return 0;
        }
        MySleep(kPauseMs);
    }
    return -1;
}

int32_t SynRequest(ClientContext *context, const uint8_t *data, int32_t length, int32_t timeoutMs,
                   ClientMessage **reply) {
    if (length < 1) {
        return -1;
    }
    context->LastMsgNum = NextRequestNumber(context->LastMsgNum);
    MsgIDText msgID;
    FormatMsgID(context->LastMsgNum, msgID);
    SendMsgList *packets = nullptr;
    if (CreateRecordMsgList(msgID, data, length, &packets) != 1) {
        return -1;
    }
    AppendPackets(&context->Outgoing, packets);

    Timer timer = {MonotonicMs(), static_cast<uint64_t>(timeoutMs)};
    const SendPhase sent = WriteRequest(context, &timer);
    if (sent != kSent) {
        AbandonMessage(&context->Outgoing);
        return sent;
    }
    context->AwaitsReply = 1;
    const int32_t result = AwaitReply(context, msgID, &timer, reply);
    context->AwaitsReply = 0;
    return result;
}

} // namespace nrpc
