#include "host/routine.h"

#include <atomic>

#include "host/host_call.h"
#include "host/overdue.h"

namespace nrpc {

static pthread_key_t s_ThreadKey;
static std::atomic<bool> s_Prepared;

// Counts the forks that lead to this process.
static std::atomic<uint32_t> s_Forks;

static void NoteFork() {
    ++s_Forks;
}

static void ThreadEndedInRoutine(void *value) {
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    auto *thread = static_cast<RoutineThread *>(value);
    thread->OnEnd(thread);
}

bool EnterRoutineThread(RoutineThread *thread, const sigset_t &mask) {
    thread->InRoutine = 0;
    thread->MayBreakOff = 0;
    if (pthread_setspecific(s_ThreadKey, thread) != 0) {
        return false;
    }
    pthread_sigmask(SIG_SETMASK, &mask, nullptr);
    return true;
}

void LeaveRoutineThread(RoutineThread *) {
    pthread_setspecific(s_ThreadKey, nullptr);
}

// The thread ends: its stack is no longer that of the call, though destructors of the host's
// thread-local data may still compute on it.
static void NoteEnding(void *thread) {
    static_cast<RoutineThread *>(thread)->MayBreakOff = 0;
}

// The shield is down in here.
static void CallRoutine(RoutineThread *thread, HostWord routine, const void *message) {
    pthread_cleanup_push(NoteEnding, thread);
    thread->MayBreakOff = 1;
    pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, nullptr);
    CallHost(routine, reinterpret_cast<HostWord>(message), 0, 0, &thread->CallFrame);
    // The routine may have changed both.
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    pthread_setcanceltype(PTHREAD_CANCEL_DEFERRED, nullptr);
    thread->MayBreakOff = 0;
    pthread_cleanup_pop(0);
}

void RunRoutine(RoutineThread *thread, HostWord routine, const void *message) {
    const uint32_t forks = s_Forks;
    thread->InRoutine = 1;
    CallRoutine(thread, routine, message);
    thread->InRoutine = 0;
    if (forks != s_Forks) {
        // The routine forked, and this is the child: the thread that goes on here has none of the
        // others beside it, and the sockets are the parent's.
        pthread_setspecific(s_ThreadKey, nullptr);
        pthread_exit(nullptr);
    }
}

const RoutineThread *ThisRoutineThread() {
    return s_Prepared ? static_cast<RoutineThread *>(pthread_getspecific(s_ThreadKey)) : nullptr;
}

bool IsRoutineThreadOf(const void *object) {
    const RoutineThread *thread = ThisRoutineThread();
    return thread != nullptr && thread->InRoutine != 0 && thread->Object == object;
}

static void Prepare() {
    PrepareEnding();
    pthread_atfork(nullptr, nullptr, NoteFork);
    s_Prepared = pthread_key_create(&s_ThreadKey, ThreadEndedInRoutine) == 0;
}

bool PrepareRoutines() {
    static pthread_once_t s_Once = PTHREAD_ONCE_INIT;
    pthread_once(&s_Once, Prepare);
    return s_Prepared;
}

} // namespace nrpc
