#include <dlfcn.h>
#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstring>
#include <ctime>
#include <map>
#include <mutex>
#include <optional>

#include "torture/torture.h"

extern "C" void *__libc_malloc(size_t size) noexcept;
extern "C" void *__libc_realloc(void *block, size_t size) noexcept;
extern "C" void __libc_free(void *block) noexcept;

namespace nrpc::torture {

static constexpr size_t kGuardLen = 16;
static constexpr uint8_t kGuardByte = 0xA7;
static constexpr uint8_t kFreedByte = 0xDB;
static constexpr useconds_t kHoldUs = 700000;

namespace {

struct Block {
    size_t Size;
    uint32_t TakenAt;
    bool Freed; // kept back for ever
};

struct Books {
    std::mutex Lock; // guards all below
    std::optional<Fault> Plan;
    std::map<Place, unsigned> Hits;
    std::map<uint8_t *, Block> Blocks;
    std::map<int, uint32_t> Descriptors; // and where they were opened
    std::vector<std::string> Misdeeds;
};

// The books, locked while it lives. They are never destroyed: threads of the library may outlive
// everything. What they allocate themselves is none of the library's business.
class OpenBooks {
  public:
    Books *operator->() const { return &TheBooks(); }

  private:
    static Books &TheBooks() {
        static auto *s_Books = new Books;
        return *s_Books;
    }
    const std::lock_guard<std::mutex> m_Guard{TheBooks().Lock};
};

std::atomic<uintptr_t> s_Begin, s_End;
std::atomic<bool> s_Armed, s_Hurried, s_Fired;
thread_local char t_Thread[16] = "host";

} // namespace

static bool IsWatched(const void *site) {
    return reinterpret_cast<uintptr_t>(site) - s_Begin < s_End - s_Begin;
}

static uint32_t OffsetOf(const void *site) {
    return static_cast<uint32_t>(reinterpret_cast<uintptr_t>(site) - s_Begin);
}

static std::string Line(const char *what, int64_t which, uint32_t offset) {
    char line[128];
    snprintf(line, sizeof(line), "%s %lld, %#x on %s", what, static_cast<long long>(which), offset,
             t_Thread);
    return line;
}

// What is to come of a call of the library: an error number, or one of the other outcomes.
static int Verdict(const char *call, const void *site) {
    if (!s_Armed) {
        return kAsUsual;
    }
    int outcome = kAsUsual;
    {
        const OpenBooks books;
        const Place place = {call, OffsetOf(site), t_Thread};
        const unsigned count = ++books->Hits[place];
        const std::optional<Fault> &plan = books->Plan;
        if (plan && plan->Where == place &&
            (count == plan->Nth || (count > plan->Nth && plan->ForEver))) {
            outcome = plan->Outcome;
            s_Fired = true;
        }
    }
    if (outcome == kHeldUp) {
        usleep(kHoldUs);
        return kAsUsual;
    }
    return outcome;
}

// Whether it fails; errno is set then.
static bool Fails(int error) {
    errno = error != kAsUsual ? error : errno;
    return error != kAsUsual;
}

// --- the book of blocks -----------------------------------------------------------------------

static bool HoldsOnly(const uint8_t *bytes, size_t count, uint8_t value) {
    return std::all_of(bytes, bytes + count, [value](uint8_t byte) { return byte == value; });
}

// Nothing of the library calls calloc: its block would be met as a foreign one.
static void *Take(const char *call, size_t size, const void *site) {
    auto *block = size > PTRDIFF_MAX - kGuardLen || Verdict(call, site) != kAsUsual
                      ? nullptr
                      : static_cast<uint8_t *>(__libc_malloc(size + kGuardLen));
    if (block == nullptr) {
        errno = ENOMEM;
        return nullptr;
    }
    std::memset(block + size, kGuardByte, kGuardLen);
    OpenBooks()->Blocks[block] = {size, OffsetOf(site), false};
    return block;
}

static void Release(void *block, const void *site) {
    const OpenBooks books;
    const auto found = books->Blocks.find(static_cast<uint8_t *>(block));
    if (found == books->Blocks.end() || found->second.Freed) {
        books->Misdeeds.push_back(Line("free of a block not its own", 0, OffsetOf(site)));
        return;
    }
    found->second.Freed = true;
    std::memset(block, kFreedByte, found->second.Size);
}

static size_t SizeOf(void *block) {
    const OpenBooks books;
    const auto found = books->Blocks.find(static_cast<uint8_t *>(block));
    return found == books->Blocks.end() ? 0 : found->second.Size;
}

// --- the book of descriptors ------------------------------------------------------------------

static int Opened(int descriptor, const void *site) {
    if (descriptor >= 0) {
        OpenBooks()->Descriptors[descriptor] = OffsetOf(site);
    }
    return descriptor;
}

static int OnDescriptor(const char *call, int descriptor, const void *site) {
    {
        const OpenBooks books;
        if (!books->Descriptors.contains(descriptor)) {
            const std::string what = std::string(call) + " on a descriptor not its own:";
            books->Misdeeds.push_back(Line(what.c_str(), descriptor, OffsetOf(site)));
        }
    }
    return Verdict(call, site);
}

// --- the outside ------------------------------------------------------------------------------

void Watch(uintptr_t begin, uintptr_t end, const Fault *fault) {
    if (fault != nullptr) {
        OpenBooks()->Plan = *fault;
    }
    s_Begin = begin;
    s_End = end;
}

void Arm(bool on) {
    s_Armed = on;
}

void Hurry() {
    s_Hurried = true;
}

std::map<Place, unsigned> Hits() {
    return OpenBooks()->Hits;
}

bool HasFired() {
    return s_Fired;
}

std::vector<std::string> Outstanding() {
    const OpenBooks books;
    std::vector<std::string> lines;
    for (const auto &[address, block] : books->Blocks) {
        block.Freed ? void() : lines.push_back(Line("block left, size", block.Size, block.TakenAt));
    }
    for (const auto &[descriptor, openedAt] : books->Descriptors) {
        lines.push_back(Line("descriptor left:", descriptor, openedAt));
    }
    return lines;
}

std::vector<std::string> Misdeeds() {
    const OpenBooks books;
    for (const auto &[address, block] : books->Blocks) {
        if (block.Freed && !HoldsOnly(address, block.Size, kFreedByte)) {
            books->Misdeeds.push_back(Line("write after free, size", block.Size, block.TakenAt));
        }
        if (!HoldsOnly(address + block.Size, kGuardLen, kGuardByte)) {
            books->Misdeeds.push_back(
                Line("write behind a block, size", block.Size, block.TakenAt));
        }
    }
    return books->Misdeeds;
}

} // namespace nrpc::torture

using namespace nrpc::torture;

// --- the calls --------------------------------------------------------------------------------

// The function that the library would have called.
#define NEXT(name)                                                                                 \
    ([] {                                                                                          \
        static auto *const s_Next = reinterpret_cast<decltype(&::name)>(dlsym(RTLD_NEXT, #name));  \
        return s_Next;                                                                             \
    }())
#define SITE __builtin_return_address(0)

// Calls that answer an error number, and those on a descriptor that answer -1 and set errno.
#define ANSWERS(name, parameters, arguments)                                                       \
    int name parameters noexcept {                                                                 \
        const int error = IsWatched(SITE) ? Verdict(#name, SITE) : 0;                              \
        return error != 0 ? error : NEXT(name) arguments;                                          \
    }
#define ON_DESCRIPTOR(name, parameters, arguments)                                                 \
    int name parameters {                                                                          \
        return IsWatched(SITE) && Fails(OnDescriptor(#name, descriptor, SITE)) ? -1                \
                                                                               : NEXT(name)        \
                                                                                     arguments;    \
    }
// Calls that move bytes.
#define MOVES_BYTES(name, type)                                                                    \
    ssize_t name(int descriptor, type bytes, size_t len, int flags) {                              \
        const int outcome = IsWatched(SITE) ? OnDescriptor(#name, descriptor, SITE) : 0;           \
        if (outcome == kEndOfStream) {                                                             \
            return 0;                                                                              \
        }                                                                                          \
        return outcome > 0 && Fails(outcome)                                                       \
                   ? -1                                                                            \
                   : NEXT(name)(descriptor, bytes, outcome == kOneByte && len > 0 ? 1 : len,       \
                                flags);                                                            \
    }

#pragma GCC visibility push(default)
extern "C" {

void *malloc(size_t size) noexcept {
    return IsWatched(SITE) ? Take("malloc", size, SITE) : __libc_malloc(size);
}

void *realloc(void *block, size_t size) noexcept {
    if (!IsWatched(SITE)) {
        return __libc_realloc(block, size);
    }
    void *other = Take("realloc", size, SITE);
    if (other != nullptr && block != nullptr) {
        std::memcpy(other, block, std::min(size, SizeOf(block)));
        Release(block, SITE);
    }
    return other;
}

void free(void *block) noexcept {
    block != nullptr &&IsWatched(SITE) ? Release(block, SITE) : __libc_free(block);
}

int pthread_setname_np(pthread_t thread, const char *name) noexcept {
    if (IsWatched(SITE)) {
        strncpy(t_Thread, name, sizeof(t_Thread) - 1);
    }
    return NEXT(pthread_setname_np)(thread, name);
}

int pthread_setspecific(pthread_key_t key, const void *value) noexcept {
    const bool takesMemory = value != nullptr; // so it cannot fail without
    const int error = takesMemory && IsWatched(SITE) ? Verdict("pthread_setspecific", SITE) : 0;
    return error != 0 ? error : NEXT(pthread_setspecific)(key, value);
}

ANSWERS(pthread_create,
        (pthread_t * thread, const pthread_attr_t *kind, void *(*body)(void *), void *argument),
        (thread, kind, body, argument))
ANSWERS(pthread_attr_init, (pthread_attr_t * kind), (kind))
ANSWERS(pthread_mutex_init, (pthread_mutex_t * mutex, const pthread_mutexattr_t *kind),
        (mutex, kind))

ON_DESCRIPTOR(bind, (int descriptor, const sockaddr *address, socklen_t len) noexcept,
              (descriptor, address, len))
ON_DESCRIPTOR(listen, (int descriptor, int backlog) noexcept, (descriptor, backlog))
ON_DESCRIPTOR(connect, (int descriptor, const sockaddr *address, socklen_t len),
              (descriptor, address, len))
ON_DESCRIPTOR(shutdown, (int descriptor, int how) noexcept, (descriptor, how))
ON_DESCRIPTOR(setsockopt,
              (int descriptor, int level, int name, const void *value, socklen_t len) noexcept,
              (descriptor, level, name, value, len))
ON_DESCRIPTOR(getsockopt,
              (int descriptor, int level, int name, void *value, socklen_t *len) noexcept,
              (descriptor, level, name, value, len))
ON_DESCRIPTOR(getsockname, (int descriptor, sockaddr *address, socklen_t *len) noexcept,
              (descriptor, address, len))
ON_DESCRIPTOR(getpeername, (int descriptor, sockaddr *address, socklen_t *len) noexcept,
              (descriptor, address, len))
MOVES_BYTES(send, const void *)
MOVES_BYTES(recv, void *)

int getaddrinfo(const char *name, const char *service, const addrinfo *wanted, addrinfo **found) {
    const int outcome = IsWatched(SITE) ? Verdict("getaddrinfo", SITE) : 0;
    return outcome != 0 ? EAI_AGAIN : NEXT(getaddrinfo)(name, service, wanted, found);
}

// The C library declares that poll writes what it is given, and forgets that it reads it, too.
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
int poll(pollfd *watched, nfds_t count, int ms) {
    const int error = IsWatched(SITE) ? OnDescriptor("poll", watched->fd, SITE) : 0;
    if (error == kAsUsual) {
        return NEXT(poll)(watched, count, ms);
    }
    // What is there is reported in spite of signals, and none comes oftener than once a ms.
    const int ready = error == EINTR ? NEXT(poll)(watched, count, 1) : 0;
    errno = ready > 0 ? errno : error;
    return ready > 0 ? ready : -1;
}

int socket(int domain, int type, int protocol) noexcept {
    if (!IsWatched(SITE)) {
        return NEXT(socket)(domain, type, protocol);
    }
    return Fails(Verdict("socket", SITE)) ? -1 : Opened(NEXT(socket)(domain, type, protocol), SITE);
}

// A missing descriptor is noticed before anybody connects, an aborted connection takes one.
int accept4(int descriptor, sockaddr *address, socklen_t *len, int flags) {
    const bool isWatched = IsWatched(SITE);
    const int error = isWatched ? OnDescriptor("accept4", descriptor, SITE) : 0;
    const int accepted = error == EMFILE ? -1 : NEXT(accept4)(descriptor, address, len, flags);
    if (error == ECONNABORTED && accepted >= 0 && s_Armed) { // it may have waited beyond the fault
        NEXT(close)(accepted);
    } else if (error != EMFILE) {
        return isWatched ? Opened(accepted, SITE) : accepted;
    }
    errno = error;
    return -1;
}

int fcntl(int descriptor, int command, ...) {
    va_list list;
    va_start(list, command);
    void *argument = va_arg(list, void *);
    va_end(list);
    const bool isWatched = IsWatched(SITE);
    const bool fails = isWatched && Fails(OnDescriptor("fcntl", descriptor, SITE));
    const int result = fails ? -1 : NEXT(fcntl)(descriptor, command, argument);
    return isWatched && command == F_DUPFD_CLOEXEC ? Opened(result, SITE) : result;
}

int close(int descriptor) {
    if (IsWatched(SITE)) {
        OnDescriptor("close", descriptor, SITE);
        OpenBooks()->Descriptors.erase(descriptor); // before another thread can get the number
    }
    return NEXT(close)(descriptor);
}

int clock_nanosleep(clockid_t clock, int flags, const timespec *wanted, timespec *left) {
    const bool isCut = IsWatched(SITE) && s_Hurried && wanted->tv_sec > 0;
    const timespec cut = {0, 100000000L * std::min<long>(wanted->tv_sec, 9)};
    return NEXT(clock_nanosleep)(clock, flags, isCut ? &cut : wanted, left);
}

} // extern "C"
#pragma GCC visibility pop
