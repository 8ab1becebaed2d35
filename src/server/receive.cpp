#include "server/receive.h"

#include "support/sockets.h"

namespace nrpc {

static constexpr uint32_t kWaitMs = 100;
static constexpr int32_t kReadLen = 10240;
// More than 20 waits of a second without a byte.
static constexpr uint64_t kSilenceMs = 21000;
// A client that never stops sending gives way to the others after this time.
static constexpr uint64_t kTurnMs = 1000;

namespace {
struct Receiver {
    ServerContext *Context;
    ClientEntry *Entry;
};
} // namespace

static void QueueRequest(void *receiver, MessageChunk *chunks) {
    const auto *to = static_cast<Receiver *>(receiver);
    TaskData *task = NewTaskData(to->Entry->Socket, chunks);
    if (task != nullptr) { // out of memory: the request is dropped
        AddTaskToQueueTail(to->Context->TaskQueue, task);
    }
}

// The wait or the turn ran out: a message that got stuck is given up, the connection stays.
static RecvResult NothingCame(ClientEntry *entry) {
    if (Assembly_IsPartial(&entry->Received) && MonotonicMs() - entry->LastByteMs >= kSilenceMs) {
        Assembly_Reset(&entry->Received);
    }
    return kNothingReceived;
}

RecvResult RecvData(ServerContext *context, ClientEntry *entry) {
    if (entry->Received.Account.Evicted) {
        return kDropConnection;
    }
    const ThreadPool *pool = context->RecvThreadPool;
    const uint64_t turnEnd = MonotonicMs() + kTurnMs;
    Receiver receiver = {context, entry};
    for (;;) {
        const WaitResult wait = WaitReadable(entry->Socket, kWaitMs);
        if (wait == kWaitFailed) {
            return kDropConnection;
        }
        if (wait == kSocketTimeout) {
            return NothingCame(entry);
        }
        uint8_t bytes[kReadLen];
        const int32_t len = RecvSome(entry->Socket, bytes, kReadLen);
        if (len == kConnectionGone) {
            return kDropConnection;
        }
        if (len > 0) {
            entry->LastByteMs = MonotonicMs();
            int32_t packets = 0;
            const FeedResult fed =
                Assembly_Feed(&entry->Received, bytes, len, QueueRequest, &receiver, &packets);
            if (fed == kFeedBroken) {
                return kDropConnection;
            }
            if (fed == kFeedDiscarded) {
                return kNothingReceived;
            }
            if (!Assembly_IsPartial(&entry->Received)) {
                return kRequestsQueued;
            }
        } else {
            MySleep(1); // readable, and yet nothing there: must not become a busy loop
        }
        if (pool->StopFlag == 1 || BudgetIsExceeded() || MonotonicMs() >= turnEnd) {
            return NothingCame(entry);
        }
    }
}

void *TakeClient(ServerContext *context) {
    return ClaimForReceiving(context->ClientList);
}

void ServeClient(ThreadArg *worker, void *client) {
    ServerContext *context = worker->Context;
    auto *entry = static_cast<ClientEntry *>(client);
    if (RecvData(context, entry) == kDropConnection) {
        ReportDisconnect(context, entry);
        Remove_From_Client_List(context->ClientList, entry->Socket);
    }
    ReleaseFromReceiving(context->ClientList, entry);
}

} // namespace nrpc
