// host/routine.h: the one place where a routine of the host is called. What a routine may do to the
// machine is in host/host_call.h, how a thread that stays in one past its time is ended in
// host/overdue.h.
//
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
    // Inside a routine, also while the thread ends there.
    volatile std::sig_atomic_t InRoutine;
    // The call may be left as if the routine had returned. Read by the signal handler on this
    // thread only.
    volatile std::sig_atomic_t MayBreakOff;
    // Where the stack stood when the routine was called; valid while MayBreakOff is not 0.
    HostWord CallFrame;
};

// Makes what all routine threads share. False: no thread may run host code. Safe to repeat.
bool PrepareRoutines();

// Registers the calling thread and gives it the signal mask `mask`. False when it cannot be
// registered; it must then not run host code.
bool EnterRoutineThread(RoutineThread *thread, const sigset_t &mask);
// Before the thread returns; `thread` is the caller's again.
void LeaveRoutineThread(RoutineThread *thread);

// Calls `routine` with the word `message`. Does not return when the thread is ended inside it, nor
// in the child of a routine that forks and returns there: that process ends.
void RunRoutine(RoutineThread *thread, HostWord routine, const void *message);

// The calling thread, if it is registered.
const RoutineThread *ThisRoutineThread();
// True when the calling thread runs a routine on behalf of `object`.
bool IsRoutineThreadOf(const void *object);

} // namespace nrpc
