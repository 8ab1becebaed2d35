// server/work.h: the work pool's step: a received message becomes messages for the handler, one for
// each record; a cancel is noted at its client instead.
#pragma once

#include "server/pools.h"

namespace nrpc {

// Consumes the task's chunks; the task itself stays the caller's.
void MakeData(ServerContext *context, TaskData *task);

void *TakeTask(ServerContext *context);
void ServeTask(ThreadArg *worker, void *task);

} // namespace nrpc
