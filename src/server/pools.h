// server/pools.h: the four elastic thread pools of a server: one mechanism, four rows of a table.
//
//   Manager    starts MinThreadNum workers, then looks every 100 ms: with at most two threads idle
//              and fewer than MaxThreadNum alive it adds up to three. It also joins the workers
//              that have ended. It is counted as a thread of the pool and is never busy.
//   Worker     takes items until there is none, then retires if more than ten threads are idle and
//              more than MinThreadNum alive, or pauses.
//   Ending     the stop flag ends every thread within its pause, or once its item is served. What
//              has not ended when Terminate runs is inside the user's handler: see host/routine.h.
//   Locks      the pool's Lock guards its counters, the handle list's Lock its nodes. The manager
//              takes the second inside the first. Neither is held while an item is served.
#pragma once

#include <cstdint>

#include "host/routine.h"
#include "server/context.h"
#include "server/queues.h"

namespace nrpc {

struct ThreadPool {
    // Set at creation, constant afterwards.
    int32_t MaxThreadNum;
    int32_t MinThreadNum;
    // Idle is ThreadNum - BusyThreadNum: at least 1 while the manager lives.
    std::atomic<int32_t> ThreadNum;         // alive now, the manager included; changed under Lock
    int32_t BusyThreadNum GUARDED_BY(Lock); // serving items now
    // Written by the start and stop operations, read by every thread of the pool. 1: stop.
    std::atomic<int32_t> StopFlag;
    LockHandle Lock;
};

// A thread of the pool. Listed from before its start until it ends, then among the ended ones until
// it is joined.
struct HandleNode {
    uint32_t Pos; // slot: the smallest number that no listed thread had
    bool Started; // ThreadHandle is known
    pthread_t ThreadHandle;
    HandleNode *Next;
};

struct PoolHandleList {
    HandleNode *Head GUARDED_BY(Lock); // by rising Pos
    HandleNode *Ended GUARDED_BY(Lock);
    LockHandle Lock;
};

struct PoolKind;

// What a pool thread works with: its own from its start to its end. It holds the server's record.
struct ThreadArg {
    RoutineThread Routine; // client-work pool only
    ServerContext *Context;
    uint32_t Pos;
    const PoolKind *Kind;
    bool IsBusy;
    // The item being served, as far as it must be released when the thread ends inside a handler.
    MidResult *Message;
    bool HasProcessLock;
};

struct PoolKind {
    ThreadPool *ServerContext::*Pool;
    PoolHandleList *ServerContext::*Handles;
    // The next item or null. Called with no lock held.
    void *(*Take)(ServerContext *context);
    // Frees `item` or passes it on. Called with no lock held.
    void (*Serve)(ThreadArg *worker, void *item);
    uint32_t IdlePauseMs;
    ThreadRoutine Manager;
    ThreadRoutine Worker;
    const char *ThreadName;
    bool RunsHandler;
};

// In the order in which the pools are started and stopped.
enum PoolId : int32_t { kRecvPool, kSendPool, kWorkPool, kClientWorkPool, kPoolCount };
extern const PoolKind s_PoolKinds[kPoolCount];

// Null when memory is exhausted, here and below.
PoolHandleList *CreatePoolHandleList();
void DeletePoolHandleList(PoolHandleList *list);
// A new node in the lowest free slot; answers the slot, or -1 when memory is exhausted.
int32_t InsHandleListPos(PoolHandleList *list) EXCLUDES_LOCK(list->Lock);
void AddHandleList(PoolHandleList *list, uint32_t pos, pthread_t thread) EXCLUDES_LOCK(list->Lock);
// The node of a thread that was never started.
void RemHandleList(PoolHandleList *list, uint32_t pos) EXCLUDES_LOCK(list->Lock);

ThreadPool *CreateThreadPool(int32_t maximum, int32_t minimum);
void DeleteThreadPool(ThreadPool *pool);

// 1 when the manager was started, 0 when not.
int32_t StartThreadPool(ServerContext *context, PoolId id);
void StopThreadPool(ServerContext *context, PoolId id);
// Ends the threads that are left and joins all. A thread that cannot be ended is left to itself (it
// holds the server's record until it ends), and so is the calling thread if it is one of them.
void TerminateThreadPool(ServerContext *context, PoolId id);

// Bodies of the four managers and the four workers.
void *FunRecvThreadPool(void *arg);
void *FunSendThreadPool(void *arg);
void *FunWorkThreadPool(void *arg);
void *FunClientWorkThreadPool(void *arg);
void *FunRecvThread(void *arg);
void *FunSendThread(void *arg);
void *FunWorkThread(void *arg);
void *FunUserThread(void *arg);

} // namespace nrpc
