// host/overdue.h: ends threads that stay in a routine of the host past their time.
//   Cancelling    ends a thread where its routine blocks, or when a command that it calls returns.
//   Breaking off  a routine that computes without ever blocking is left by force: a real-time
//                 signal that nobody uses, borrowed for the moment, makes its thread go on behind
//                 the call, as if the routine had returned. Never inside the C library, the loader
//                 or this library, whose locks would stay held, and never where the routine holds
//                 cancellation off. (32-bit product only.)
//   What is left  cannot be ended without harm and is left to itself.
#pragma once

#include <pthread.h>

#include <csignal>
#include <cstdint>

namespace nrpc {

// Once, before the first routine thread exists.
void PrepareEnding();

// Calls `act` for each thread of the owner still inside its routine (never for the calling thread)
// and answers how many there are. The handles stay valid during the call.
using VisitThreads = int32_t (*)(void *owner, void (*act)(pthread_t thread));

// Cancels the threads, and after 200 ms breaks off what does not end, for at most a second. `mask`
// is the signal mask that the threads were given. Answers how many are left.
int32_t EndRoutineThreads(VisitThreads visit, void *owner, const sigset_t &mask);

} // namespace nrpc
