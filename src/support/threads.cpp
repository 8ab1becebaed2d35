#include "support/threads.h"

#include <cerrno>
#include <ctime>

#include "support/heap.h"
#include "support/jitter.h"

namespace nrpc {

// A template, so that a pause of 32 bits costs no division of 64.
template <typename Milliseconds>
static timespec Timespec(Milliseconds ms) {
    timespec time = {};
    time.tv_sec = static_cast<time_t>(ms / 1000);
    time.tv_nsec = static_cast<long>(ms % 1000) * 1000000;
    return time;
}

LockHandle MyCreateCriticalSection() {
    auto *lock = NewRecord<CriticalSection>();
    if (lock != nullptr && pthread_mutex_init(&lock->Mutex, nullptr) != 0) {
        FreeRecord(lock);
        return nullptr;
    }
    return lock;
}

void MyDeleteCriticalSection(LockHandle lock) {
    if (lock != nullptr) {
        pthread_mutex_destroy(&lock->Mutex);
        FreeRecord(lock);
    }
}

void MyEnterCriticalSection(LockHandle lock) UNCHECKED_LOCKING {
    Jitter();
    if (lock != nullptr) {
        pthread_mutex_lock(&lock->Mutex);
    }
}

void MyLeaveCriticalSection(LockHandle lock) UNCHECKED_LOCKING {
    if (lock != nullptr) {
        pthread_mutex_unlock(&lock->Mutex);
    }
    Jitter();
}

static int LockWithin(pthread_mutex_t *mutex, uint32_t ms) {
#if defined(__SANITIZE_THREAD__)
    // The race build's runtime knows only the wall clock's form of this wait.
    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    const timespec until = Timespec(static_cast<uint64_t>(now.tv_sec) * 1000 +
                                    static_cast<uint64_t>(now.tv_nsec) / 1000000 + ms);
    return pthread_mutex_timedlock(mutex, &until);
#else
    const timespec until = Timespec(MonotonicMs() + ms);
    return pthread_mutex_clocklock(mutex, CLOCK_MONOTONIC, &until);
#endif
}

bool MyEnterCriticalSectionWhile(LockHandle lock,
                                 const std::atomic<int32_t> &flag) UNCHECKED_LOCKING {
    constexpr uint32_t kLookMs = 100;
    while (flag != 0) {
        if (lock == nullptr || LockWithin(&lock->Mutex, kLookMs) == 0) {
            return true;
        }
    }
    return false;
}

static sigset_t SignalsBlockedInLibraryThreads() {
    sigset_t blocked;
    sigfillset(&blocked);
    for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGSYS}) {
        sigdelset(&blocked, fault);
    }
    return blocked;
}

int32_t MyCreateThread(pthread_t *thread, ThreadRoutine routine, void *arg, size_t stackLen) {
    pthread_attr_t attributes;
    if (pthread_attr_init(&attributes) != 0) {
        return 0;
    }
    if (stackLen != kDefaultStackLen) {
        pthread_attr_setstacksize(&attributes, stackLen); // a refused size leaves the default
    }
    // The mask is inherited: blocking here leaves the new thread no moment with the host's mask.
    const sigset_t blocked = SignalsBlockedInLibraryThreads();
    sigset_t before;
    pthread_sigmask(SIG_SETMASK, &blocked, &before);
    int result = pthread_create(thread, &attributes, routine, arg);
    if (result == EINVAL) { // the program's thread-local data does not fit into that stack
        result = pthread_create(thread, nullptr, routine, arg);
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    pthread_attr_destroy(&attributes);
    Jitter();
    return result == 0 ? 1 : 0;
}

int32_t MySetThreadAttribute(const char *name) {
    pthread_setcanceltype(PTHREAD_CANCEL_DEFERRED, nullptr);
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    Jitter();
    return pthread_setname_np(pthread_self(), name);
}

int32_t MyTerminateThread(pthread_t thread) {
    return pthread_cancel(thread);
}

bool MyJoinThread(pthread_t thread, uint32_t limitMs) {
    const uint64_t until = MonotonicMs() + limitMs;
    while (pthread_tryjoin_np(thread, nullptr) == EBUSY) {
        if (MonotonicMs() >= until) {
            return false;
        }
        MySleep(1);
    }
    return true;
}

int32_t MySleep(uint32_t durationMs) {
    if (durationMs == 0) {
        return 0;
    }
    timespec left = Timespec(durationMs);
    int result = 0;
    do {
        result = clock_nanosleep(CLOCK_MONOTONIC, 0, &left, &left);
    } while (result == EINTR);
    Jitter();
    return result;
}

uint64_t MonotonicMs() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000 + static_cast<uint32_t>(now.tv_nsec) / 1000000;
}

} // namespace nrpc
