// host/routine.h: the one place where a routine of the host is called, and where a thread that
// stays in one past its time is ended.
//
//   Convention  a routine gets one word and may pop it or leave it; it may change callee-saved
//               registers, the direction flag and the floating-point control words, and leave
//               values on the floating-point stack: all are put back.
//   Threads     a thread that runs host code owns a RoutineThread, registered for its lifetime.
//               The cancel shield is down only inside the routine, with cancellation deferred.
//   Ending      a routine is left in three ways: it returns; the thread is ended in it (cancelled
//               at a blocking call, or by the routine itself), then OnEnd runs and nothing else of
//               the thread; or it is broken off while computing, then RunRoutine returns as if it
//               had returned. Frames of the host are not unwound: they may carry no tables.
#pragma once

#include <pthread.h>

#include <csignal>

#include "host/frame.h"

namespace nrpc {

struct RoutineThread {
    // Set before EnterRoutineThread. Releases all that the thread holds, itself included: the
    // thread ended inside a routine. Runs on that thread, shield up, as its last act.
    void (*OnEnd)(RoutineThread *thread);
    // The object on whose behalf the thread runs.
    const void *Object;
    // Read by the signal handler on this thread only.
    volatile std::sig_atomic_t InRoutine;
    // Where the stack stood when the routine was called; valid while InRoutine is not 0.
    HostWord CallFrame;
};

// Makes what all routine threads share. False: no thread may run host code. Safe to repeat.
bool PrepareRoutines();

// Registers the calling thread and gives it the signal mask `mask`. False when it cannot be
// registered; it must then not run host code.
bool EnterRoutineThread(RoutineThread *thread, const sigset_t &mask);
// Before the thread returns; `thread` is the caller's again.
void LeaveRoutineThread(RoutineThread *thread);

// Calls `routine` with the word `message`. Does not return when the thread is ended inside it.
void RunRoutine(RoutineThread *thread, HostWord routine, const void *message);

// True when the calling thread runs a routine on behalf of `object`.
bool IsRoutineThreadOf(const void *object);

// Calls `act` for each thread of the owner still inside its routine (never for the calling thread)
// and answers how many there are. The handles stay valid during the call.
using VisitThreads = int32_t (*)(void *owner, void (*act)(pthread_t thread));

// Ends overdue threads: cancels them, and after 200 ms breaks off those that compute without ever
// blocking, for at most a second. Never inside the C library or the loader, whose locks would die
// with the thread. Answers how many are left: those are left to themselves.
int32_t EndRoutineThreads(VisitThreads visit, void *owner);

// Calls any routine of the host with three words, as RunRoutine does with one, on any thread.
HostWord CallHostFunction(HostWord function, HostWord first, HostWord second, HostWord third);

} // namespace nrpc
