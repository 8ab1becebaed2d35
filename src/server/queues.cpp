#include "server/queues.h"

#include <cstring>

#include "support/heap.h"

namespace nrpc {

// --- the mechanism ----------------------------------------------------------------------------

template <typename Element>
static QueueHeader<Element> *CreateQueue() {
    auto *queue = NewRecord<QueueHeader<Element>>();
    if (queue == nullptr) {
        return nullptr;
    }
    queue->Lock = MyCreateCriticalSection();
    if (queue->Lock == nullptr) {
        FreeRecord(queue);
        return nullptr;
    }
    return queue;
}

template <typename Element>
static void AddToTail(QueueHeader<Element> *queue, Element *element) {
    element->Next = nullptr;
    LockGuard guard(queue->Lock);
    if (queue->Head.load(std::memory_order_relaxed) == nullptr) {
        queue->Head.store(element, std::memory_order_relaxed);
    } else {
        queue->Tail->Next = element;
    }
    queue->Tail = element;
}

template <typename Element>
static Element *GetFromHead(QueueHeader<Element> *queue) {
    // Idle workers look a thousand times a second: they must not hold up those that add.
    if (queue->Head.load(std::memory_order_relaxed) == nullptr) {
        return nullptr;
    }
    LockGuard guard(queue->Lock);
    Element *element = queue->Head.load(std::memory_order_relaxed);
    if (element != nullptr) {
        queue->Head.store(element->Next, std::memory_order_relaxed);
        if (element->Next == nullptr) {
            queue->Tail = nullptr;
        }
    }
    return element;
}

// Everything in the queue, as a chain.
template <typename Element>
static Element *TakeAll(QueueHeader<Element> *queue) {
    LockGuard guard(queue->Lock);
    Element *first = queue->Head.exchange(nullptr, std::memory_order_relaxed);
    queue->Tail = nullptr;
    return first;
}

template <auto Free, typename Element>
static void FreeChain(Element *first) {
    while (first != nullptr) {
        Element *next = first->Next;
        Free(first);
        first = next;
    }
}

template <auto Free, typename Element>
static void DeleteQueue(QueueHeader<Element> *queue) {
    if (queue != nullptr) {
        FreeChain<Free>(TakeAll(queue));
        MyDeleteCriticalSection(queue->Lock);
        FreeRecord(queue);
    }
}

template <typename Element>
static Element *NewElement() {
    void *block = TakeCounted(sizeof(Element));
    return block == nullptr ? nullptr : new (block) Element();
}

template <typename Element>
static void FreeElement(Element *element) {
    FreeCounted(element, sizeof(Element));
}

// --- tasks ------------------------------------------------------------------------------------

TaskQueueHeader *CreateTaskQueue() {
    return CreateQueue<TaskData>();
}
void AddTaskToQueueTail(TaskQueueHeader *queue, TaskData *task) {
    AddToTail(queue, task);
}
TaskData *GetTaskFromQueueHead(TaskQueueHeader *queue) {
    return GetFromHead(queue);
}
void ClearTaskQueue(TaskQueueHeader *queue) {
    FreeChain<FreeTaskData>(TakeAll(queue));
}
void DeleteTaskQueue(TaskQueueHeader *queue) {
    DeleteQueue<FreeTaskData>(queue);
}

TaskData *NewTaskData(int32_t socket, TaskChunk *chunks) {
    auto *task = NewElement<TaskData>();
    if (task == nullptr) {
        FreeChunks(chunks);
        return nullptr;
    }
    task->Request = {socket, chunks};
    return task;
}

void FreeTaskData(TaskData *task) {
    if (task != nullptr) {
        FreeChunks(task->Request.FirstChunk);
        FreeElement(task);
    }
}

// --- messages for the handler -----------------------------------------------------------------

MidResultQueueHeader *CreateMidResultQueue() {
    return CreateQueue<MidResult>();
}
void AddMidResultToQueueTail(MidResultQueueHeader *queue, MidResult *message) {
    AddToTail(queue, message);
}
MidResult *MidResultIsNotNull(MidResultQueueHeader *queue) {
    return GetFromHead(queue);
}
void ClearMidResultQueue(MidResultQueueHeader *queue) {
    FreeChain<FreeMidResult>(TakeAll(queue));
}
void DeleteMidResultQueue(MidResultQueueHeader *queue) {
    DeleteQueue<FreeMidResult>(queue);
}

MidResult *NewMidResult(int32_t socket, MessageKind kind) {
    auto *message = NewElement<MidResult>();
    if (message != nullptr) {
        message->Socket = socket;
        message->MsgKind = kind;
    }
    return message;
}

void FreeMidResult(MidResult *message) {
    if (message != nullptr) {
        FreeChunks(message->Block);
        FreeElement(message);
    }
}

// --- replies ----------------------------------------------------------------------------------

ResultQueueHeader *CreateResultQueue() {
    return CreateQueue<ResultData>();
}
void AddResultToQueueTail(ResultQueueHeader *queue, ResultData *reply) {
    AddToTail(queue, reply);
}
ResultData *GetResultFromQueueHead(ResultQueueHeader *queue) {
    return GetFromHead(queue);
}
void DeleteResultQueue(ResultQueueHeader *queue) {
    DeleteQueue<FreeResultData>(queue);
}

void ClearResultQueue(ResultQueueHeader *queue) {
    if (queue != nullptr) {
        FreeResults(TakeAll(queue));
    }
}

ResultData *NewResultData(int32_t socket, const char *msgID, const uint8_t *data, uint32_t length) {
    auto *reply = NewElement<ResultData>();
    if (reply == nullptr) {
        return nullptr;
    }
    reply->Data = static_cast<uint8_t *>(TakeCounted(length));
    if (reply->Data == nullptr) {
        FreeElement(reply);
        return nullptr;
    }
    std::memcpy(reply->Data, data, length);
    std::memcpy(reply->MsgID, msgID, kMsgIDLen);
    reply->Socket = socket;
    reply->DataLen = length;
    return reply;
}

void FreeResultData(ResultData *reply) {
    if (reply != nullptr) {
        FreeReplyPayload(reply);
        FreeElement(reply);
    }
}

void FreeReplyPayload(ResultData *reply) {
    FreeCounted(reply->Data, reply->DataLen);
    reply->Data = nullptr;
}

void FreeResults(ResultData *first) {
    FreeChain<FreeResultData>(first);
}

} // namespace nrpc
