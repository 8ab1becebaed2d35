// server/queues.h: first-in-first-out lists between the pools. An element is its own link.
//   Ownership  an element is the queue's from Add until Get returns it, then the taker's.
//   Locks      each call takes the queue's Lock, briefly and alone, but for Get from an empty one.
//   Threads    any number of adders and takers; Get never waits.
//   Errors     Create answers null when memory is exhausted; the others cannot fail.
#pragma once

#include <atomic>
#include <cstdint>

#include "protocol/assembly.h"
#include "protocol/tag_stream.h"
#include "support/threads.h"

namespace nrpc {

template <typename Element>
struct QueueHeader {
    std::atomic<Element *> Head; // changed under Lock
    Element *Tail GUARDED_BY(Lock);
    LockHandle Lock;
};

// A received message on its way to the work pool. The chunks are the task's.
using TaskChunk = MessageChunk;
struct TaskRequest {
    int32_t Socket;
    TaskChunk *FirstChunk;
};
struct TaskData {
    TaskRequest Request;
    TaskData *Next;
};
using TaskQueueHeader = QueueHeader<TaskData>;

enum MessageKind : int32_t { kClientConnected = 0, kClientDisconnected = 1, kRequestArrived = 2 };

// A message for the user's handler, which knows it by its address. Data lies in Block, which is the
// record's; both are null for the kinds other than kRequestArrived.
struct MidResult {
    int32_t Socket;
    int32_t MsgKind;
    const uint8_t *Data;
    uint32_t DataLen;
    MsgIDText MsgID;
    TaskChunk *Block;
    MidResult *Next;
};
using MidResultQueueHeader = QueueHeader<MidResult>;

// A reply, or a message of the server's own, on its way to a client. Data is the reply's until it
// is cut into packets, and null from then on.
struct ResultData {
    int32_t Socket;
    uint8_t *Data;
    MsgIDText MsgID;
    uint32_t DataLen;
    int32_t SendTimes; // probes that found the client unwritable
    ResultData *Next;
};
using ResultQueueHeader = QueueHeader<ResultData>;

TaskQueueHeader *CreateTaskQueue();
void AddTaskToQueueTail(TaskQueueHeader *queue, TaskData *task);
TaskData *GetTaskFromQueueHead(TaskQueueHeader *queue);
// Null is accepted, here and in every Delete and Free below.
void DeleteTaskQueue(TaskQueueHeader *queue);
// A task that owns the chunks; null, the chunks freed, when memory is exhausted.
TaskData *NewTaskData(int32_t socket, TaskChunk *chunks);
void FreeTaskData(TaskData *task);

MidResultQueueHeader *CreateMidResultQueue();
void AddMidResultToQueueTail(MidResultQueueHeader *queue, MidResult *message);
// Takes the head, despite its name.
MidResult *MidResultIsNotNull(MidResultQueueHeader *queue);
void DeleteMidResultQueue(MidResultQueueHeader *queue);
// A message without data; null when memory is exhausted.
MidResult *NewMidResult(int32_t socket, MessageKind kind);
void FreeMidResult(MidResult *message);

ResultQueueHeader *CreateResultQueue();
void AddResultToQueueTail(ResultQueueHeader *queue, ResultData *reply);
ResultData *GetResultFromQueueHead(ResultQueueHeader *queue);
// Each empties its queue, which stays usable.
void ClearTaskQueue(TaskQueueHeader *queue);
void ClearMidResultQueue(MidResultQueueHeader *queue);
void ClearResultQueue(ResultQueueHeader *queue);
void DeleteResultQueue(ResultQueueHeader *queue);
// A reply with a copy of the payload; null when memory is exhausted.
ResultData *NewResultData(int32_t socket, const char *msgID, const uint8_t *data, uint32_t length);
void FreeResultData(ResultData *reply);
// Frees its payload and sets Data to null.
void FreeReplyPayload(ResultData *reply);
// Frees a chain of replies.
void FreeResults(ResultData *first);

} // namespace nrpc
