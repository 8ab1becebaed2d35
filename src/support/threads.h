// support/threads.h: threads, locks, pauses and the clock.
//
//   Locks      taken through LockGuard, but for ProcessLock, which a worker may have to release
//              when its thread ends inside the handler. The order in which two may be held:
//                  pool lock          -> handle-list lock of that pool
//                  ProcessLock        -> whatever a command called by the handler takes
//                  RequestLock        -> the client's list locks
//                  client-list lock   -> the lock of the budget's accounts
//              Everything else holds one lock at a time. No lock is held across a socket wait.
//   Cancelling a library thread keeps the cancel shield up (cancellation disabled) in all library
//              code; host/routine lowers it around a call of a host routine and nowhere else. So
//              a cancelled thread never holds a lock of the library or of the allocator.
//   Time       milliseconds of a clock that cannot be set.
#pragma once

#include <pthread.h>

#include <atomic>
#include <csignal>
#include <cstddef>
#include <cstdint>

#include "support/annotations.h"

namespace nrpc {

// A plain, non-recursive mutex on the heap. A null handle stands for no lock: entering, leaving and
// deleting it do nothing.
struct CAPABILITY("lock") CriticalSection {
    pthread_mutex_t Mutex;
};
using LockHandle = CriticalSection *;

// Null when memory is exhausted or the mutex cannot be made.
LockHandle MyCreateCriticalSection();
void MyDeleteCriticalSection(LockHandle lock);
void MyEnterCriticalSection(LockHandle lock) ACQUIRES_LOCK(lock);
void MyLeaveCriticalSection(LockHandle lock) RELEASES_LOCK(lock);

// Waits for the lock only as long as `flag` is not 0 (looked at ten times a second). True: entered.
bool MyEnterCriticalSectionWhile(LockHandle lock, const std::atomic<int32_t> &flag)
    TRIES_LOCK(true, lock);

class SCOPED_CAPABILITY LockGuard {
  public:
    [[nodiscard]] explicit LockGuard(LockHandle lock) ACQUIRES_LOCK(lock) : m_Lock(lock) {
        MyEnterCriticalSection(lock);
    }
    ~LockGuard() RELEASES_LOCK() { MyLeaveCriticalSection(m_Lock); }
    LockGuard(const LockGuard &) = delete;
    LockGuard &operator=(const LockGuard &) = delete;

  private:
    LockHandle m_Lock;
};

// Keeps cancellation away from the calling thread as long as it lives. Every command holds one: a
// thread cancelled meanwhile ends when the outermost shield comes down.
class CancelShield {
  public:
    [[nodiscard]] CancelShield() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &m_Before); }
    ~CancelShield() {
        pthread_setcancelstate(m_Before, nullptr);
        pthread_testcancel(); // acts only where no outer shield stands
    }
    CancelShield(const CancelShield &) = delete;
    CancelShield &operator=(const CancelShield &) = delete;

  private:
    int m_Before = PTHREAD_CANCEL_ENABLE;
};

// What a thread runs; its result is not used.
using ThreadRoutine = void *(*)(void *);

// Stack of a thread that never runs host code, in bytes: 32 bits of address space hold few stacks.
inline constexpr size_t kLibraryStackLen = 256 * 1024;
// The size that the process gives its threads.
inline constexpr size_t kDefaultStackLen = 0;

// Starts a joinable thread and stores its id. Result 1, or 0 when it could not be started.
// The thread starts with every asynchronous signal blocked (SIGSEGV, SIGBUS, SIGFPE, SIGILL,
// SIGTRAP and SIGSYS stay open), so that the host's handlers run on the host's threads.
int32_t MyCreateThread(pthread_t *thread, ThreadRoutine routine, void *arg, size_t stackLen);

// The first act of every library thread: cancellation deferred and the cancel shield up.
// `name` has at most 15 characters. Result of the last call, 0 when it worked.
int32_t MySetThreadAttribute(const char *name);

// Requests the end of a thread. It ends where it next waits with the shield down.
int32_t MyTerminateThread(pthread_t thread);

// Joins a thread that is about to end. False when it has not ended after `limitMs` milliseconds.
bool MyJoinThread(pthread_t thread, uint32_t limitMs);

// Pauses the calling thread for the whole time, signals or not. 0 returns at once.
int32_t MySleep(uint32_t durationMs);

// Milliseconds since some fixed moment; never set back.
uint64_t MonotonicMs();

} // namespace nrpc
