#include "host/routine.h"

#include <elf.h>
#include <execinfo.h>
#include <link.h>
#include <sys/auxv.h>
#include <ucontext.h>

#include <cerrno>
#include <cstdlib>

#include "support/threads.h"

namespace nrpc {

// --- the call itself --------------------------------------------------------------------------

#if defined(__i386__)

// HostWord NrpcCallHost(function, first, second, third, HostWord *frame)
// The words lie at a 16-byte boundary, so that the stack pointer is found again by rounding down
// whether the callee popped none, one or three of them; what must survive lies above them. `frame`
// receives the boundary's address: a call is broken off by going on at NrpcAfterHost with the stack
// pointer there.
asm(R"(
    .pushsection .text
    .hidden NrpcCallHost
    .hidden NrpcAfterHost
    .globl NrpcCallHost
    .globl NrpcAfterHost
    .type NrpcCallHost, @function
NrpcCallHost:
    .cfi_startproc
    pushl %ebp
    .cfi_def_cfa_offset 8
    .cfi_offset %ebp, -8
    movl %esp, %ebp
    .cfi_def_cfa_register %ebp
    pushl %ebx
    pushl %esi
    pushl %edi
    .cfi_offset %ebx, -12
    .cfi_offset %esi, -16
    .cfi_offset %edi, -20
    subl $32, %esp
    andl $-16, %esp
    movl %ebp, 16(%esp)
    fnstcw 20(%esp)
    stmxcsr 24(%esp)
    movl 12(%ebp), %eax
    movl %eax, 0(%esp)
    movl 16(%ebp), %eax
    movl %eax, 4(%esp)
    movl 20(%ebp), %eax
    movl %eax, 8(%esp)
    movl 24(%ebp), %eax
    movl %esp, (%eax)
    call *8(%ebp)
    andl $-16, %esp
NrpcAfterHost:
    cld
    fninit
    fldcw 20(%esp)
    ldmxcsr 24(%esp)
    movl 16(%esp), %ebp
    leal -12(%ebp), %esp
    popl %edi
    popl %esi
    popl %ebx
    popl %ebp
    .cfi_def_cfa %esp, 4
    ret
    .cfi_endproc
    .size NrpcCallHost, . - NrpcCallHost
    .popsection
)");
extern "C" HostWord NrpcCallHost(HostWord function, HostWord first, HostWord second, HostWord third,
                                 HostWord *frame);
extern "C" char NrpcAfterHost;

#else

// Other machines know one convention only.
static HostWord NrpcCallHost(HostWord function, HostWord first, HostWord second, HostWord third,
                             HostWord *) {
    return reinterpret_cast<HostWord (*)(HostWord, HostWord, HostWord)>(function)(first, second,
                                                                                  third);
}

#endif

HostWord CallHostFunction(HostWord function, HostWord first, HostWord second, HostWord third) {
    HostWord frame = 0;
    return NrpcCallHost(function, first, second, third, &frame);
}

// --- routine threads --------------------------------------------------------------------------

static pthread_key_t s_ThreadKey;
// Written once, before the first routine thread exists.
static bool s_Prepared;
static bool s_CanCancel;

static void ThreadEndedInRoutine(void *value) {
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    auto *thread = static_cast<RoutineThread *>(value);
    thread->OnEnd(thread);
}

bool EnterRoutineThread(RoutineThread *thread, const sigset_t &mask) {
    thread->InRoutine = 0;
    if (pthread_setspecific(s_ThreadKey, thread) != 0) {
        return false;
    }
    pthread_sigmask(SIG_SETMASK, &mask, nullptr);
    return true;
}

void LeaveRoutineThread(RoutineThread *) {
    pthread_setspecific(s_ThreadKey, nullptr);
}

void RunRoutine(RoutineThread *thread, HostWord routine, const void *message) {
    thread->InRoutine = 1;
    pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, nullptr);
    NrpcCallHost(routine, reinterpret_cast<HostWord>(message), 0, 0, &thread->CallFrame);
    // The routine may have changed both.
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    pthread_setcanceltype(PTHREAD_CANCEL_DEFERRED, nullptr);
    thread->InRoutine = 0;
}

static RoutineThread *ThisThread() {
    return s_Prepared ? static_cast<RoutineThread *>(pthread_getspecific(s_ThreadKey)) : nullptr;
}

bool IsRoutineThreadOf(const void *object) {
    const RoutineThread *thread = ThisThread();
    return thread != nullptr && thread->InRoutine != 0 && thread->Object == object;
}

// --- breaking off a routine that computes -----------------------------------------------------

#if defined(__i386__)

namespace {

struct CodeRange {
    HostWord Begin;
    HostWord End;
};

// Code in which no thread may be broken off, because it may hold a lock there that others need: the
// C library, whatever provides malloc, the loader, the kernel's page, and this library. Collected
// once: the loader's lock, needed for it, might later be held by the very thread to be ended.
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

static int ProtectObject(dl_phdr_info *object, size_t, void *) {
    const HostWord marks[] = {reinterpret_cast<HostWord>(&pthread_create),
                              reinterpret_cast<HostWord>(&std::malloc), getauxval(AT_BASE),
                              getauxval(AT_SYSINFO_EHDR), reinterpret_cast<HostWord>(&s_Protected)};
    for (const HostWord mark : marks) {
        if (mark == 0 || !Contains(*object, mark)) {
            continue;
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
    return 0;
}

static void CollectProtectedCode() {
    dl_iterate_phdr(ProtectObject, nullptr);
}

static bool IsProtectedCode(HostWord address) {
    for (int i = 0; i < s_ProtectedCount; ++i) {
        if (address - s_Protected[i].Begin < s_Protected[i].End - s_Protected[i].Begin) {
            return true;
        }
    }
    return false;
}

// Runs on the overdue thread. The shield is up in commands, and a routine may hold cancellation
// off itself: then the thread goes on.
static void BreakOff(int, siginfo_t *, void *where) {
    const int savedErrno = errno;
    const RoutineThread *thread = ThisThread();
    auto &registers = static_cast<ucontext_t *>(where)->uc_mcontext.gregs;
    if (thread != nullptr && thread->InRoutine != 0 &&
        !IsProtectedCode(static_cast<HostWord>(registers[REG_EIP]))) {
        int state = PTHREAD_CANCEL_DISABLE;
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &state);
        if (state == PTHREAD_CANCEL_ENABLE) {
            registers[REG_EIP] = static_cast<greg_t>(reinterpret_cast<HostWord>(&NrpcAfterHost));
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

// A real-time signal that nobody handles; 0 when every one is in use.
static int UnusedSignal() {
    for (int number = SIGRTMAX; number >= SIGRTMIN; --number) {
        struct sigaction action = {};
        if (sigaction(number, nullptr, &action) == 0 && (action.sa_flags & SA_SIGINFO) == 0 &&
            action.sa_handler == SIG_DFL) {
            return number;
        }
    }
    return 0;
}

static int BorrowSignal() {
    pthread_mutex_lock(&s_SignalLock);
    if (s_SignalUsers++ == 0) {
        s_Signal = UnusedSignal();
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

static void ReturnSignal() {
    pthread_mutex_lock(&s_SignalLock);
    if (--s_SignalUsers == 0 && s_Signal != 0) {
        // Ignoring it first discards what a thread that blocks it has pending: with the default
        // disposition it would end the process the day the thread unblocks it.
        struct sigaction action = {};
        action.sa_handler = SIG_IGN;
        sigaction(s_Signal, &action, nullptr);
        action.sa_handler = SIG_DFL;
        sigaction(s_Signal, &action, nullptr);
        s_Signal = 0;
    }
    pthread_mutex_unlock(&s_SignalLock);
}

static void SendSignal(pthread_t thread) {
    pthread_kill(thread, s_Signal);
}

#else

static void CollectProtectedCode() {}

#endif

// Cancelling needs the unwinder, which the C library loads when it first walks a stack: walking one
// here finds out whether it is there (without it cancelling would end the process) and keeps the
// loader, whose lock the overdue thread may hold, out of a later stop.
static bool LoadUnwinder() {
    void *frame = nullptr;
    return backtrace(&frame, 1) == 1;
}

static void Prepare() {
    CollectProtectedCode();
    s_CanCancel = LoadUnwinder();
    s_Prepared = pthread_key_create(&s_ThreadKey, ThreadEndedInRoutine) == 0;
}

bool PrepareRoutines() {
    static pthread_once_t s_Once = PTHREAD_ONCE_INIT;
    pthread_once(&s_Once, Prepare);
    return s_Prepared;
}

// --- ending overdue threads -------------------------------------------------------------------

static void Cancel(pthread_t thread) {
    MyTerminateThread(thread);
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

int32_t EndRoutineThreads(VisitThreads visit, void *owner) {
    constexpr uint32_t kBlockedMs = 200; // enough to end wherever the routine blocks
    [[maybe_unused]] constexpr uint32_t kComputingMs = 1000;
    int32_t left = visit(owner, Cancel);
    if (left > 0) {
        left = VisitUntilEnded(visit, owner, Count, kBlockedMs);
    }
#if defined(__i386__)
    if (left > 0) {
        if (BorrowSignal() != 0) {
            left = VisitUntilEnded(visit, owner, SendSignal, kComputingMs);
        }
        ReturnSignal();
    }
#endif
    return left;
}

} // namespace nrpc
