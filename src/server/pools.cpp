#include "server/pools.h"

#include <sys/mman.h>

#include <algorithm>

#include "host/overdue.h"
#include "server/dispatch.h"
#include "server/receive.h"
#include "server/send.h"
#include "server/work.h"
#include "support/heap.h"

namespace nrpc {

static constexpr int32_t kGrowthStep = 3;
static constexpr int32_t kFewIdle = 2;   // grow at or below
static constexpr int32_t kManyIdle = 10; // retire above
static constexpr uint32_t kManagerPauseMs = 10;
static constexpr int32_t kPausesPerCycle = 10;
// Threads that run no host code look at their stop flag ten times a second.
static constexpr uint32_t kEndWaitMs = 2000;
static constexpr uint32_t kJoinWaitMs = 500;

const PoolKind s_PoolKinds[kPoolCount] = {
    {&ServerContext::RecvThreadPool, &ServerContext::RecvPoolHandleList, TakeClient, ServeClient,
     10, FunRecvThreadPool, FunRecvThread, "nrpc-recv", false},
    {&ServerContext::SendThreadPool, &ServerContext::SendPoolHandleList, TakeResult, ServeResult, 1,
     FunSendThreadPool, FunSendThread, "nrpc-send", false},
    {&ServerContext::WorkThreadPool, &ServerContext::WorkPoolHandleList, TakeTask, ServeTask, 1,
     FunWorkThreadPool, FunWorkThread, "nrpc-work", false},
    {&ServerContext::ClientWorkThreadPool, &ServerContext::UserPoolHandleList, TakeMessage,
     ServeMessage, 1, FunClientWorkThreadPool, FunUserThread, "nrpc-handler", true},
};

// --- handle list ------------------------------------------------------------------------------

PoolHandleList *CreatePoolHandleList() {
    auto *list = NewRecord<PoolHandleList>();
    if (list == nullptr) {
        return nullptr;
    }
    list->Lock = MyCreateCriticalSection();
    if (list->Lock == nullptr) {
        FreeRecord(list);
        return nullptr;
    }
    return list;
}

static void FreeNodes(HandleNode *first) {
    while (first != nullptr) {
        HandleNode *next = first->Next;
        FreeRecord(first);
        first = next;
    }
}

void DeletePoolHandleList(PoolHandleList *list) {
    if (list != nullptr) {
        {
            LockGuard guard(list->Lock);
            FreeNodes(list->Head);
            FreeNodes(list->Ended);
        }
        MyDeleteCriticalSection(list->Lock);
        FreeRecord(list);
    }
}

int32_t InsHandleListPos(PoolHandleList *list) {
    auto *node = NewRecord<HandleNode>();
    if (node == nullptr) {
        return -1;
    }
    LockGuard guard(list->Lock);
    HandleNode **link = &list->Head;
    uint32_t pos = 0;
    for (; *link != nullptr && (*link)->Pos == pos; ++pos) {
        link = &(*link)->Next;
    }
    node->Pos = pos;
    node->Next = *link;
    *link = node;
    return static_cast<int32_t>(pos);
}

// Unlinks the node with that slot; null when there is none.
static HandleNode *TakeNode(PoolHandleList *list, uint32_t pos) REQUIRES_LOCK(list->Lock) {
    HandleNode **link = &list->Head;
    while (*link != nullptr && (*link)->Pos != pos) {
        link = &(*link)->Next;
    }
    HandleNode *node = *link;
    if (node != nullptr) {
        *link = node->Next;
    }
    return node;
}

void AddHandleList(PoolHandleList *list, uint32_t pos, pthread_t thread) {
    LockGuard guard(list->Lock);
    for (HandleNode *node = list->Head; node != nullptr; node = node->Next) {
        if (node->Pos == pos) {
            node->ThreadHandle = thread;
            node->Started = true;
        }
    }
}

void RemHandleList(PoolHandleList *list, uint32_t pos) {
    LockGuard guard(list->Lock);
    FreeRecord(TakeNode(list, pos));
}

// The calling thread is about to end: from now on it waits to be joined.
static void MoveToEnded(PoolHandleList *list, uint32_t pos) {
    LockGuard guard(list->Lock);
    HandleNode *node = TakeNode(list, pos);
    if (node != nullptr) { // null: left to itself by a stop, and detached
        node->ThreadHandle = pthread_self();
        node->Next = list->Ended;
        list->Ended = node;
    }
}

static void JoinEnded(PoolHandleList *list) {
    HandleNode *ended = nullptr;
    {
        LockGuard guard(list->Lock);
        ended = list->Ended;
        list->Ended = nullptr;
    }
    for (const HandleNode *node = ended; node != nullptr; node = node->Next) {
        if (!MyJoinThread(node->ThreadHandle, kJoinWaitMs)) {
            pthread_detach(node->ThreadHandle); // ending: it uses no pool any more
        }
    }
    FreeNodes(ended);
}

// --- pools ------------------------------------------------------------------------------------

ThreadPool *CreateThreadPool(int32_t maximum, int32_t minimum) {
    auto *pool = NewRecord<ThreadPool>();
    if (pool == nullptr) {
        return nullptr;
    }
    pool->MaxThreadNum = maximum;
    pool->MinThreadNum = minimum;
    pool->StopFlag = 1;
    pool->Lock = MyCreateCriticalSection();
    if (pool->Lock == nullptr) {
        FreeRecord(pool);
        return nullptr;
    }
    return pool;
}

void DeleteThreadPool(ThreadPool *pool) {
    if (pool != nullptr) {
        MyDeleteCriticalSection(pool->Lock);
        FreeRecord(pool);
    }
}

static ThreadPool *PoolOf(const ThreadArg *thread) {
    return thread->Context->*thread->Kind->Pool;
}
static PoolHandleList *HandlesOf(const ThreadArg *thread) {
    return thread->Context->*thread->Kind->Handles;
}

// Starts a thread and lists it. The caller counts it; false leaves nothing behind.
static bool StartPoolThread(ServerContext *context, const PoolKind &kind, ThreadRoutine body) {
    PoolHandleList *handles = context->*kind.Handles;
    const int32_t pos = InsHandleListPos(handles);
    if (pos < 0) {
        return false;
    }
    auto *arg = NewRecord<ThreadArg>();
    if (arg == nullptr) {
        RemHandleList(handles, static_cast<uint32_t>(pos));
        return false;
    }
    arg->Context = context;
    arg->Pos = static_cast<uint32_t>(pos);
    arg->Kind = &kind;
    HoldForThread(context);
    const bool runsHandler = kind.RunsHandler && body == kind.Worker;
    pthread_t thread;
    if (MyCreateThread(&thread, body, arg, runsHandler ? kDefaultStackLen : kLibraryStackLen) ==
        0) {
        DropFromThread(context);
        FreeRecord(arg);
        RemHandleList(handles, static_cast<uint32_t>(pos));
        return false;
    }
    AddHandleList(handles, static_cast<uint32_t>(pos), thread);
    return true;
}

// The last act of a pool thread that is no longer counted in ThreadNum.
static void EndPoolThread(ThreadArg *thread) {
    ServerContext *context = thread->Context;
    LeaveRoutineThread(&thread->Routine);
    MoveToEnded(HandlesOf(thread), thread->Pos);
    FreeRecord(thread);
    DropFromThread(context);
}

static void LeavePool(ThreadArg *thread) {
    {
        ThreadPool *pool = PoolOf(thread);
        LockGuard guard(pool->Lock);
        pool->ThreadNum -= 1;
    }
    EndPoolThread(thread);
}

// --- manager ----------------------------------------------------------------------------------

namespace {

// Address space that further workers leave for the messages which they are to serve.
class Headroom {
  public:
    Headroom()
        : m_Place(
              mmap(nullptr, kLen, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0)) {}
    ~Headroom() {
        if (m_Place != MAP_FAILED) {
            munmap(m_Place, kLen);
        }
    }
    Headroom(const Headroom &) = delete;
    Headroom &operator=(const Headroom &) = delete;
    explicit operator bool() const { return m_Place != MAP_FAILED; }

  private:
    static constexpr size_t kLen = size_t{4} * 1024 * 1024;
    void *m_Place;
};

} // namespace

// Under the pool's lock, so that the worker never finds a pool with fewer threads than there are.
static void AddWorker(const ThreadArg *manager) {
    if (StartPoolThread(manager->Context, *manager->Kind, manager->Kind->Worker)) {
        PoolOf(manager)->ThreadNum += 1;
    }
}

static void StartFirstWorkers(ThreadArg *manager) {
    ServerContext *context = manager->Context;
    ThreadPool *pool = PoolOf(manager);
    {
        LockGuard guard(pool->Lock);
        AddWorker(manager);
    }
    // Each pool has one before any takes the memory for the others: a single pool without a worker
    // would make the server dumb.
    ++context->PoolsBegun;
    while (context->PoolsBegun < kPoolCount && pool->StopFlag == 0) {
        MySleep(1);
    }
    const Headroom headroom;
    for (int32_t step = 1; headroom && step < pool->MinThreadNum && pool->StopFlag == 0; ++step) {
        LockGuard guard(pool->Lock);
        AddWorker(manager);
    }
}

static void Grow(ThreadArg *manager) {
    ThreadPool *pool = PoolOf(manager);
    LockGuard guard(pool->Lock);
    if (pool->ThreadNum >= pool->MaxThreadNum || pool->ThreadNum - pool->BusyThreadNum > kFewIdle) {
        return;
    }
    const Headroom headroom;
    int32_t step = std::min(kGrowthStep, pool->MaxThreadNum - pool->ThreadNum);
    for (; headroom && step > 0 && pool->StopFlag == 0; --step) {
        AddWorker(manager);
    }
}

// False as soon as the pool is to stop.
static bool PauseForACycle(const ThreadPool *pool) {
    for (int32_t pause = 0; pause < kPausesPerCycle; ++pause) {
        if (pool->StopFlag == 1) {
            return false;
        }
        MySleep(kManagerPauseMs);
    }
    return pool->StopFlag == 0;
}

static void *RunPoolManager(void *arg) {
    auto *manager = static_cast<ThreadArg *>(arg);
    MySetThreadAttribute(manager->Kind->ThreadName);
    StartFirstWorkers(manager);
    while (PauseForACycle(PoolOf(manager))) {
        Grow(manager);
        JoinEnded(HandlesOf(manager));
    }
    LeavePool(manager);
    return nullptr;
}

// --- worker -----------------------------------------------------------------------------------

static void SetBusy(ThreadArg *worker, bool busy) {
    if (worker->IsBusy == busy) {
        return;
    }
    ThreadPool *pool = PoolOf(worker);
    LockGuard guard(pool->Lock);
    pool->BusyThreadNum += busy ? 1 : -1;
    worker->IsBusy = busy;
}

// False when the pool is to stop. The worker counts as busy from its first item to its last.
static bool ServeAllItems(ThreadArg *worker) {
    const ThreadPool *pool = PoolOf(worker);
    bool mayGoOn = pool->StopFlag == 0;
    while (mayGoOn) {
        void *item = worker->Kind->Take(worker->Context);
        if (item == nullptr) {
            break;
        }
        SetBusy(worker, true);
        worker->Kind->Serve(worker, item);
        mayGoOn = pool->StopFlag == 0;
    }
    SetBusy(worker, false);
    return mayGoOn;
}

// True when the worker is one too many; it is then no longer counted.
static bool Retires(ThreadArg *worker) {
    ThreadPool *pool = PoolOf(worker);
    if (pool->ThreadNum <= kManyIdle) {
        return false; // every pause of an ordinary pool: not worth the lock
    }
    LockGuard guard(pool->Lock);
    if (pool->ThreadNum - pool->BusyThreadNum <= kManyIdle ||
        pool->ThreadNum <= pool->MinThreadNum) {
        return false;
    }
    pool->ThreadNum -= 1;
    return true;
}

// The worker's thread ended inside a handler: releases what it was serving, then itself.
static void WorkerEndedInHandler(RoutineThread *routine) {
    static_assert(offsetof(ThreadArg, Routine) == 0);
    auto *worker = reinterpret_cast<ThreadArg *>(routine);
    FinishMessage(worker);
    SetBusy(worker, false);
    LeavePool(worker);
}

static bool EnterIfItRunsHandlers(ThreadArg *worker) {
    if (!worker->Kind->RunsHandler) {
        return true;
    }
    worker->Routine.OnEnd = WorkerEndedInHandler;
    worker->Routine.Object = worker->Context;
    return EnterRoutineThread(&worker->Routine, worker->Context->HostMask);
}

static void *RunPoolWorker(void *arg) {
    auto *worker = static_cast<ThreadArg *>(arg);
    MySetThreadAttribute(worker->Kind->ThreadName);
    const bool mayWork = EnterIfItRunsHandlers(worker);
    while (mayWork && ServeAllItems(worker)) {
        if (Retires(worker)) {
            EndPoolThread(worker);
            return nullptr;
        }
        MySleep(worker->Kind->IdlePauseMs);
    }
    LeavePool(worker);
    return nullptr;
}

// The bodies have names of their own: they are what a debugger shows.
void *FunRecvThreadPool(void *arg) {
    return RunPoolManager(arg);
}
void *FunSendThreadPool(void *arg) {
    return RunPoolManager(arg);
}
void *FunWorkThreadPool(void *arg) {
    return RunPoolManager(arg);
}
void *FunClientWorkThreadPool(void *arg) {
    return RunPoolManager(arg);
}
void *FunRecvThread(void *arg) {
    return RunPoolWorker(arg);
}
void *FunSendThread(void *arg) {
    return RunPoolWorker(arg);
}
void *FunWorkThread(void *arg) {
    return RunPoolWorker(arg);
}
void *FunUserThread(void *arg) {
    return RunPoolWorker(arg);
}

// --- start, stop, terminate -------------------------------------------------------------------

int32_t StartThreadPool(ServerContext *context, PoolId id) {
    const PoolKind &kind = s_PoolKinds[id];
    ThreadPool *pool = context->*kind.Pool;
    pool->StopFlag = 0;
    LockGuard guard(pool->Lock);
    if (!StartPoolThread(context, kind, kind.Manager)) {
        return 0;
    }
    pool->ThreadNum += 1;
    return 1;
}

void StopThreadPool(ServerContext *context, PoolId id) {
    (context->*s_PoolKinds[id].Pool)->StopFlag = 1;
}

// Counts the threads other than the calling one; a thread just being started has no handle yet.
static int32_t VisitListedThreads(void *owner, void (*act)(pthread_t thread)) {
    auto *list = static_cast<PoolHandleList *>(owner);
    LockGuard guard(list->Lock);
    int32_t count = 0;
    for (const HandleNode *node = list->Head; node != nullptr; node = node->Next) {
        if (!node->Started) {
            ++count;
        } else if (pthread_equal(node->ThreadHandle, pthread_self()) == 0) {
            act(node->ThreadHandle);
            ++count;
        }
    }
    return count;
}

static void Ignore(pthread_t) {}

static void LeaveTheRestToThemselves(PoolHandleList *list) {
    LockGuard guard(list->Lock);
    for (const HandleNode *node = list->Head; node != nullptr; node = node->Next) {
        if (node->Started) {
            pthread_detach(node->ThreadHandle);
        }
    }
    FreeNodes(list->Head);
    list->Head = nullptr;
}

void TerminateThreadPool(ServerContext *context, PoolId id) {
    PoolHandleList *handles = context->*s_PoolKinds[id].Handles;
    if (s_PoolKinds[id].RunsHandler) {
        EndRoutineThreads(VisitListedThreads, handles, context->HostMask);
    } else {
        const uint64_t until = MonotonicMs() + kEndWaitMs;
        while (VisitListedThreads(handles, Ignore) > 0 && MonotonicMs() < until) {
            MySleep(1);
        }
    }
    LeaveTheRestToThemselves(handles);
    JoinEnded(handles);
}

} // namespace nrpc
