#include "host/overdue.h"

#include <dlfcn.h>
#include <elf.h>
#include <execinfo.h>
#include <link.h>
#include <sys/auxv.h>
#include <ucontext.h>
#include <gnu/libc-version.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "host/host_call.h"
#include "host/routine.h"
#include "support/threads.h"

namespace nrpc {

#if defined(__i386__)

// --- protected code ---------------------------------------------------------------------------

namespace {

struct CodeRange {
    HostWord Begin;
    HostWord End;
};

// Code in which no thread may be broken off, because it may hold a lock there that others need: the
// C library, whatever provides malloc, the unwinder, the loader, the kernel's page, and this
// library. Collected once: the loader's lock, needed for it, might later be held by the very thread
// to be ended.
constexpr int kMaxRanges = 24;
CodeRange s_Protected[kMaxRanges];
int s_ProtectedCount;

} // namespace

static bool Contains(const dl_phdr_info &object, HostWord address) {
    for (int i = 0; i < object.dlpi_phnum; ++i) {
        const auto &header = object.dlpi_phdr[i];
        const HostWord begin = object.dlpi_addr + header.p_vaddr;
        if (header.p_type == PT_LOAD && address - begin < header.p_memsz) {
            return true;
        }
    }
    return false;
}

// Where malloc really is; 0 when its address is only the program's way to call it.
static HostWord MallocMark() {
    Dl_info object;
    void *symbol = nullptr;
    void *address = reinterpret_cast<void *>(&std::malloc);
    const bool isDefined = dladdr1(address, &object, &symbol, RTLD_DL_SYMENT) != 0 &&
                           symbol != nullptr &&
                           static_cast<const ElfW(Sym) *>(symbol)->st_shndx != SHN_UNDEF;
    return isDefined ? reinterpret_cast<HostWord>(address) : 0;
}

static bool IsProtected(const dl_phdr_info &object) {
    // No program takes the address of the version function, so it is no detour either.
    const HostWord marks[] = {reinterpret_cast<HostWord>(&gnu_get_libc_version), MallocMark(),
                              getauxval(AT_BASE), getauxval(AT_SYSINFO_EHDR),
                              reinterpret_cast<HostWord>(&s_Protected)};
    for (const HostWord mark : marks) {
        if (mark != 0 && Contains(object, mark)) {
            return true;
        }
    }
    return std::strstr(object.dlpi_name, "libgcc_s.so") != nullptr;
}

static int ProtectObject(dl_phdr_info *object, size_t, void *) {
    if (!IsProtected(*object)) {
        return 0;
    }
    for (int i = 0; i < object->dlpi_phnum && s_ProtectedCount < kMaxRanges; ++i) {
        const auto &header = object->dlpi_phdr[i];
        if (header.p_type == PT_LOAD && (header.p_flags & PF_X) != 0) {
            const HostWord begin = object->dlpi_addr + header.p_vaddr;
            s_Protected[s_ProtectedCount++] = {begin, begin + header.p_memsz};
        }
    }
    return 0;
}

static bool IsProtectedCode(HostWord address) {
    for (int i = 0; i < s_ProtectedCount; ++i) {
        if (address - s_Protected[i].Begin < s_Protected[i].End - s_Protected[i].Begin) {
            return true;
        }
    }
    return false;
}

// --- breaking off -----------------------------------------------------------------------------

// Runs on the overdue thread. The shield is up in commands, and a routine may hold cancellation
// off itself: then the thread goes on.
static void BreakOff(int, siginfo_t *, void *where) {
    const int savedErrno = errno;
    const RoutineThread *thread = ThisRoutineThread();
    auto &registers = static_cast<ucontext_t *>(where)->uc_mcontext.gregs;
    if (thread != nullptr && thread->MayBreakOff != 0 &&
        !IsProtectedCode(static_cast<HostWord>(registers[REG_EIP]))) {
        int state = PTHREAD_CANCEL_DISABLE;
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &state);
        if (state == PTHREAD_CANCEL_ENABLE) {
            registers[REG_EIP] = static_cast<greg_t>(AfterHostCall());
            registers[REG_ESP] = static_cast<greg_t>(thread->CallFrame);
        }
    }
    errno = savedErrno;
}

namespace {

// The borrowed signal, shared by all who end threads at the moment.
pthread_mutex_t s_SignalLock = PTHREAD_MUTEX_INITIALIZER;
int s_SignalUsers;
int s_Signal;

} // namespace

// A real-time signal that nobody handles and that the threads to be ended do not block (whoever
// blocks one waits for it in another way); 0 when there is none.
static int UnusedSignal(const sigset_t &blocked) {
    for (int number = SIGRTMAX; number >= SIGRTMIN; --number) {
        struct sigaction action = {};
        if (sigismember(&blocked, number) == 0 && sigaction(number, nullptr, &action) == 0 &&
            (action.sa_flags & SA_SIGINFO) == 0 && action.sa_handler == SIG_DFL) {
            return number;
        }
    }
    return 0;
}

static int BorrowSignal(const sigset_t &blocked) {
    pthread_mutex_lock(&s_SignalLock);
    if (s_SignalUsers++ == 0) {
        s_Signal = UnusedSignal(blocked);
        struct sigaction action = {};
        action.sa_sigaction = BreakOff;
        action.sa_flags = SA_SIGINFO | SA_RESTART;
        if (s_Signal != 0 && sigaction(s_Signal, &action, nullptr) != 0) {
            s_Signal = 0;
        }
    }
    const int number = s_Signal;
    pthread_mutex_unlock(&s_SignalLock);
    return number;
}

static void DisownSignal() {
    struct sigaction action = {};
    if (s_Signal == 0 || sigaction(s_Signal, nullptr, &action) != 0 ||
        (action.sa_flags & SA_SIGINFO) == 0 || action.sa_sigaction != BreakOff) {
        return; // the program has taken it meanwhile
    }
    // Ignoring it first discards what a thread that blocks it has pending: with the default
    // disposition it would end the process the day the thread unblocks it.
    action = {};
    action.sa_handler = SIG_IGN;
    sigaction(s_Signal, &action, nullptr);
    action.sa_handler = SIG_DFL;
    sigaction(s_Signal, &action, nullptr);
}

static void ReturnSignal() {
    pthread_mutex_lock(&s_SignalLock);
    if (--s_SignalUsers == 0) {
        DisownSignal();
        s_Signal = 0;
    }
    pthread_mutex_unlock(&s_SignalLock);
}

// The threads that had borrowed it, one of them maybe with the lock, are not in the child.
static void ReturnSignalInChild() {
    s_SignalLock = PTHREAD_MUTEX_INITIALIZER;
    DisownSignal();
    s_SignalUsers = 0;
    s_Signal = 0;
}

static void SendSignal(pthread_t thread) {
    pthread_kill(thread, s_Signal);
}

#endif

// --- ending overdue threads -------------------------------------------------------------------

static bool s_CanCancel; // written once, by PrepareEnding

static void Cancel(pthread_t thread) {
    if (s_CanCancel) {
        MyTerminateThread(thread);
    }
}
static void Count(pthread_t) {}

// Calls `act` every millisecond until no thread is left or the time is over.
static int32_t VisitUntilEnded(VisitThreads visit, void *owner, void (*act)(pthread_t),
                               uint32_t limitMs) {
    const uint64_t until = MonotonicMs() + limitMs;
    int32_t left = visit(owner, act);
    while (left > 0 && MonotonicMs() < until) {
        MySleep(1);
        left = visit(owner, act);
    }
    return left;
}

int32_t EndRoutineThreads(VisitThreads visit, void *owner, [[maybe_unused]] const sigset_t &mask) {
    constexpr uint32_t kBlockedMs = 200; // enough to end wherever the routine blocks
    [[maybe_unused]] constexpr uint32_t kComputingMs = 1000;
    int32_t left = visit(owner, Cancel);
    if (left > 0) {
        left = VisitUntilEnded(visit, owner, Count, kBlockedMs);
    }
#if defined(__i386__)
    if (left > 0) {
        if (BorrowSignal(mask) != 0) {
            left = VisitUntilEnded(visit, owner, SendSignal, kComputingMs);
        }
        ReturnSignal();
    }
#endif
    return left;
}

// --- preparation ------------------------------------------------------------------------------

// Cancelling needs the unwinder, which the C library loads when it first walks a stack: walking one
// here finds out whether it is there (without it cancelling would end the process) and keeps the
// loader, whose lock the overdue thread may hold, out of a later stop.
static bool LoadUnwinder() {
    void *frame = nullptr;
    return backtrace(&frame, 1) == 1;
}

void PrepareEnding() {
    s_CanCancel = LoadUnwinder();
#if defined(__i386__)
    dl_iterate_phdr(ProtectObject, nullptr);
    pthread_atfork(nullptr, nullptr, ReturnSignalInChild);
#endif
}

} // namespace nrpc
