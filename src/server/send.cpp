#include "server/send.h"

#include <utility>

#include "support/sockets.h"

namespace nrpc {

static constexpr uint32_t kProbeMs = 100;
static constexpr int32_t kMaxSendTimes = 100;
// More than 20 waits of a second without progress, in the middle of a message.
static constexpr uint64_t kStallMs = 21000;
// A socket that reports room and takes nothing is given up after so many attempts, one a ms.
static constexpr int32_t kMaxVainAttempts = 100;

int32_t ClientCancleCurMsg(ServerContext *context, const ClientEntry *entry, const char *msgID) {
    if (entry->CancelFlag == 0) {
        return 0;
    }
    const int32_t number = MsgNumberOf(msgID);
    if (number <= kLastServerMsgNumber) {
        return 0;
    }
    LockGuard guard(context->ClientList->Lock);
    return number != entry->CurMsgID ? 1 : 0;
}

static bool IsBegun(const ResultData *reply) {
    return reply->Data == nullptr;
}

static bool CutIntoPackets(ClientEntry *entry, const ResultData *reply) {
    SendMsgList *packets = nullptr;
    if (CreateRecordMsgList(reply->MsgID, reply->Data, static_cast<int32_t>(reply->DataLen),
                            &packets) == 0) {
        return false;
    }
    AppendPackets(&entry->Outgoing, packets);
    return true;
}

// The client took nothing for one wait.
static SendResult NotWritable(ClientEntry *entry, ResultData *reply) {
    if (IsBegun(reply)) {
        return MonotonicMs() - entry->ProgressMs >= kStallMs ? kReplyFailed : kTryAgain;
    }
    AbandonMessage(&entry->Outgoing);
    reply->SendTimes += 1;
    return reply->SendTimes <= kMaxSendTimes ? kTryAgain : kReplyFailed;
}

// Asked behind each packet.
static bool IsOver(ServerContext *context, const ClientEntry *entry, const ResultData *reply) {
    return entry->Outgoing.First == nullptr ||
           ClientCancleCurMsg(context, entry, reply->MsgID) == 1;
}

SendResult SendData(ServerContext *context, ClientEntry *entry, ResultData *reply) {
    if (entry->Outgoing.SentLen == 0 && ClientCancleCurMsg(context, entry, reply->MsgID) == 1) {
        return kReplyDone;
    }
    bool isCut = IsBegun(reply);
    // The very first write just tries: most replies are one packet, and find room.
    bool asks = isCut || reply->SendTimes > 0;
    for (int32_t vain = 0; vain < kMaxVainAttempts;) {
        const WaitResult wait = asks ? WaitWritable(entry->Socket, kProbeMs) : kSocketReady;
        if (wait == kWaitFailed) {
            return kReplyFailed;
        }
        if (wait == kSocketTimeout) {
            return NotWritable(entry, reply);
        }
        if (!isCut && !CutIntoPackets(entry, reply)) {
            return kReplyFailed;
        }
        isCut = true;
        if (context->SendThreadPool->StopFlag == 1) {
            return kReplyDone;
        }
        const AttemptResult attempt = WriteFirstPacket(&entry->Outgoing, entry->Socket);
        const bool asked = std::exchange(asks, true);
        if (attempt == kWriteBroken) {
            return kReplyFailed;
        }
        if (attempt == kNoneWritten) {
            if (asked) {
                ++vain;
                MySleep(1);
            }
            continue;
        }
        vain = 0;
        FreeReplyPayload(reply); // from here on the reply lives in its packets
        if (attempt == kPacketWritten && IsOver(context, entry, reply)) {
            return kReplyDone;
        }
        entry->ProgressMs = MonotonicMs();
    }
    return kReplyFailed;
}

// --- turns ------------------------------------------------------------------------------------

// The reply's client, claimed for sending; null when the reply is not to be written now and is no
// longer the caller's.
static ClientEntry *ClaimForSending(ServerContext *context, ResultData *reply) {
    {
        LockGuard guard(context->ClientList->Lock);
        ClientEntry *entry = FindClient(context->ClientList, reply->Socket);
        if (entry != nullptr) {
            if (entry->SendBusy == 1 || (entry->HalfSent != nullptr && entry->HalfSent != reply)) {
                AddWaitingReply(entry, reply);
                return nullptr;
            }
            entry->SendBusy = 1;
            return entry;
        }
    }
    FreeResultData(reply); // the client is gone
    return nullptr;
}

void *TakeResult(ServerContext *context) {
    return GetResultFromQueueHead(context->ResultQueue);
}

// Answers the reply whose turn it is next, or null.
static ResultData *WriteReply(ServerContext *context, ResultData *reply) {
    ClientEntry *entry = ClaimForSending(context, reply);
    if (entry == nullptr) {
        return nullptr;
    }
    if (SendData(context, entry, reply) != kTryAgain || context->SendThreadPool->StopFlag == 1) {
        AbandonMessage(&entry->Outgoing); // nothing is left of a reply that went out whole
        FreeResultData(reply);
        reply = nullptr;
    }
    return ReleaseFromSending(context->ClientList, entry, reply);
}

void ServeResult(ThreadArg *worker, void *item) {
    ServerContext *context = worker->Context;
    auto *reply = WriteReply(context, static_cast<ResultData *>(item));
    // In an empty queue it would be the first one.
    while (reply != nullptr && context->ResultQueue->Head == nullptr &&
           context->SendThreadPool->StopFlag == 0) {
        reply = WriteReply(context, reply);
    }
    if (reply != nullptr) {
        AddResultToQueueTail(context->ResultQueue, reply);
    }
}

} // namespace nrpc
