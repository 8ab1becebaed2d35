// server/pool_names.h: the names that each pool has for the operations of server/pools.h.
#pragma once

#include "server/pools.h"

// Create and Delete of the handle list carry `List`, the others `Pool`.
#define NRPC_POOL_NAMES(Pool, List, Id)                                                            \
    inline PoolHandleList *Create##List##PoolHandleList() {                                        \
        return CreatePoolHandleList();                                                             \
    }                                                                                              \
    inline void Delete##List##PoolHandleList(PoolHandleList *list) {                               \
        DeletePoolHandleList(list);                                                                \
    }                                                                                              \
    inline ThreadPool *Create##Pool##ThreadPool(int32_t maximum, int32_t minimum) {                \
        return CreateThreadPool(maximum, minimum);                                                 \
    }                                                                                              \
    inline void Delete##Pool##ThreadPool(ThreadPool *pool) {                                       \
        DeleteThreadPool(pool);                                                                    \
    }                                                                                              \
    inline int32_t Start##Pool##ThreadPool(ServerContext *context) {                               \
        return StartThreadPool(context, Id);                                                       \
    }                                                                                              \
    inline void Stop##Pool##ThreadPool(ServerContext *context) {                                   \
        StopThreadPool(context, Id);                                                               \
    }                                                                                              \
    inline void Terminate##List##ThreadPool(ServerContext *context) {                              \
        TerminateThreadPool(context, Id);                                                          \
    }

namespace nrpc {

NRPC_POOL_NAMES(Recv, Recv, kRecvPool)
NRPC_POOL_NAMES(Send, Send, kSendPool)
NRPC_POOL_NAMES(Work, Work, kWorkPool)
NRPC_POOL_NAMES(ClientWork, User, kClientWorkPool)

} // namespace nrpc

#undef NRPC_POOL_NAMES
