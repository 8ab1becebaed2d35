// server/context.h: all that one server object owns.
//
//   Ownership  made by the create command, found and counted through Life (support/live_object.h),
//              destroyed by whoever drops the last hold: the release command as a rule, the last
//              thread still inside otherwise. What its pointers name lives from SockInit to
//              SockUnInit and is made anew at every start.
//   Renewal    a stop that leaves a thread behind (one that cannot be ended, or the very thread
//              that called it) gives the host object a new record and leaves this one to that
//              thread. So a record never sees threads of two starts.
#pragma once

#include <pthread.h>

#include <csignal>

#include "host/frame.h"
#include "support/gate.h"
#include "support/live_object.h"
#include "support/threads.h"

namespace nrpc {

struct ClientList;
struct TaskData;
struct ResultData;
struct MidResult;
struct ThreadPool;
struct PoolHandleList;
template <typename Element>
struct QueueHeader;

inline constexpr int32_t kDefaultMinThreadNum = 5;
inline constexpr int32_t kDefaultMaxThreadNum = 20;
// ProcessMode: handler calls one at a time, under ProcessLock. Any other value: concurrently.
inline constexpr int32_t kSerialMode = 1;

struct ServerContext {
    // Written by the server commands on the host's thread.
    std::atomic<int32_t> StartFlag;    // 1 while started
    std::atomic<int32_t> MinThreadNum; // of each pool
    std::atomic<int32_t> MaxThreadNum;
    int32_t ProcessMode;
    LockHandle ProcessLock; // serial mode only
    HostWord ProcessFunc;   // the user's handler

    // Written by the starting and the stopping thread, read by every thread of the server.
    std::atomic<int32_t> ListenSocket; // -1 when there is none
    std::atomic<int32_t> RunFlag;      // 1 from SockInit until the stop begins

    // Written by SockInit and SockUnInit only.
    struct ClientList *ClientList;
    QueueHeader<TaskData> *TaskQueue;
    QueueHeader<ResultData> *ResultQueue;
    QueueHeader<MidResult> *MidResultQueue;
    ThreadPool *RecvThreadPool;
    ThreadPool *SendThreadPool;
    ThreadPool *WorkThreadPool;
    ThreadPool *ClientWorkThreadPool;
    PoolHandleList *RecvPoolHandleList;
    PoolHandleList *SendPoolHandleList;
    PoolHandleList *WorkPoolHandleList;
    PoolHandleList *UserPoolHandleList;

    // Pools whose manager has started its first worker, or tried.
    std::atomic<int32_t> PoolsBegun;

    // The accept thread of this server; the id is valid while AcceptRuns is 1.
    pthread_t AcceptThreadHandle;
    bool AcceptRuns;
    // Signal mask of the thread that started the server; threads that run the handler keep it.
    sigset_t HostMask;
    // What the start, stop, size or release command that works on the server does; 0: none works.
    std::atomic<int32_t> LifecycleUse;
    // Library threads of the server; each holds the record as well.
    std::atomic<int32_t> Threads;
    // Commands that use the lists and queues are inside; open while started.
    Gate Commands;
    // For a renewal, which thereby needs no memory. Whoever has LifecycleUse may change it.
    ServerContext *Spare;
    LiveObject Life;
};

// A record in the created state, published; null when memory is exhausted.
ServerContext *CreateServerContext();
// Before a start. False when memory is exhausted.
bool KeepSpare(ServerContext *context);
// The spare, published; null when there is none.
ServerContext *TakeSpare(ServerContext *context);

// For a library thread, by whoever starts it, and as the thread's last act.
void HoldForThread(ServerContext *context);
void DropFromThread(ServerContext *context);

} // namespace nrpc
