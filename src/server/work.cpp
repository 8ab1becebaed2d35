#include "server/work.h"

#include <cstring>

#include "protocol/records.h"
#include "server/client_list.h"

namespace nrpc {

static bool IsCancel(const Record &record) {
    return std::memcmp(record.MsgID, "0001", 5) == 0;
}

// A request makes itself its client's latest; a cancel leaves the client without one.
static void NoteAtClient(ServerContext *context, int32_t socket, const Record &record) {
    LockGuard guard(context->ClientList->Lock);
    ClientEntry *entry = FindClient(context->ClientList, socket);
    if (entry == nullptr) {
        return;
    }
    if (IsCancel(record)) {
        entry->CancelFlag = 1;
        entry->CurMsgID = -1;
    } else {
        entry->CurMsgID = MsgNumberOf(record.MsgID);
    }
}

static void QueueRecord(ServerContext *context, int32_t socket, const Record &record,
                        TaskChunk *block) {
    MidResult *message = NewMidResult(socket, kRequestArrived);
    if (message == nullptr) {
        FreeChunks(block);
        return;
    }
    message->Data = record.Payload;
    message->DataLen = static_cast<uint32_t>(record.Len);
    std::memcpy(message->MsgID, record.MsgID, sizeof(message->MsgID));
    message->Block = block;
    AddMidResultToQueueTail(context->MidResultQueue, message);
}

void MakeData(ServerContext *context, TaskData *task) {
    RecordReader reader;
    TaskChunk *chunks = task->Request.FirstChunk;
    task->Request.FirstChunk = nullptr;
    if (!OpenRecords(&reader, chunks)) {
        return;
    }
    Record record;
    while (ReadRecord(&reader, &record) == kRecordTaken) {
        NoteAtClient(context, task->Request.Socket, record);
        if (IsCancel(record)) {
            continue;
        }
        TaskChunk *block = TakePayload(&reader, &record);
        if (block == nullptr) {
            break; // no memory for it: the rest of the message is dropped
        }
        QueueRecord(context, task->Request.Socket, record, block);
    }
    CloseRecords(&reader);
}

void *TakeTask(ServerContext *context) {
    return GetTaskFromQueueHead(context->TaskQueue);
}

void ServeTask(ThreadArg *worker, void *item) {
    auto *task = static_cast<TaskData *>(item);
    MakeData(worker->Context, task);
    FreeTaskData(task);
}

} // namespace nrpc
