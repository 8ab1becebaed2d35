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
#include <deque>
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
static constexpr size_t kKeptBlocks = 2000;
static constexpr useconds_t kHoldUs = 700000;

namespace {

struct Block {
    size_t Size;
    uint32_t TakenAt;
};

struct Books {
    std::mutex Lock; // guards all below
    std::optional<Fault> Plan;
    std::map<Place, unsigned> Hits;
    std::map<uint8_t *, Block> Blocks;
    std::deque<std::pair<uint8_t *, Block>> Freed; // oldest in front
    std::map<int, uint32_t> Descriptors;           // and where they were opened
    std::vector<std::string> Misdeeds;
};

std::atomic<uintptr_t> s_Begin, s_End;
std::atomic<bool> s_Armed, s_Hurried;
std::atomic<unsigned> s_Fired;
thread_local char t_Thread[16] = "host";

} // namespace

// Never destroyed: threads of the library may outlive everything. What it allocates itself is none
// of the library's business.
static Books &TheBooks() {
    static auto *s_Books = new Books;
    return *s_Books;
}

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
    Books &books = TheBooks();
    std::unique_lock guard(books.Lock);
    const Place place = {call, OffsetOf(site), t_Thread};
    const unsigned count = ++books.Hits[place];
    const std::optional<Fault> &plan = books.Plan;
    if (!plan || plan->Where != place || count < plan->Nth ||
        (count > plan->Nth && !plan->ForEver)) {
        return kAsUsual;
    }
    const int outcome = plan->Outcome;
    guard.unlock();
    ++s_Fired;
    if (outcome == kHeldUp) {
        usleep(kHoldUs);
    }
    return outcome == kHeldUp ? static_cast<int>(kAsUsual) : outcome;
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
    Books &books = TheBooks();
    const std::lock_guard guard(books.Lock);
    books.Blocks[block] = {size, OffsetOf(site)};
    return block;
}

static void LookThrough(Books &books, const uint8_t *address, const Block &freed) {
    if (!HoldsOnly(address, freed.Size, kFreedByte)) {
        books.Misdeeds.push_back(Line("write after free, size", freed.Size, freed.TakenAt));
    }
}

static void Release(void *block, const void *site) {
    Books &books = TheBooks();
    const std::lock_guard guard(books.Lock);
    const auto found = books.Blocks.find(static_cast<uint8_t *>(block));
    if (found == books.Blocks.end()) {
        books.Misdeeds.push_back(Line("free of a block not its own", 0, OffsetOf(site)));
        return;
    }
    const auto [address, entry] = *found;
    books.Blocks.erase(found);
    if (!HoldsOnly(address + entry.Size, kGuardLen, kGuardByte)) {
        books.Misdeeds.push_back(Line("write behind a block, size", entry.Size, entry.TakenAt));
    }
    std::memset(block, kFreedByte, entry.Size);
    books.Freed.emplace_back(address, entry);
    if (books.Freed.size() > kKeptBlocks) {
        LookThrough(books, books.Freed.front().first, books.Freed.front().second);
        __libc_free(books.Freed.front().first);
        books.Freed.pop_front();
    }
}

static size_t SizeOf(void *block) {
    Books &books = TheBooks();
    const std::lock_guard guard(books.Lock);
    const auto found = books.Blocks.find(static_cast<uint8_t *>(block));
    return found == books.Blocks.end() ? 0 : found->second.Size;
}

// --- the book of descriptors ------------------------------------------------------------------

static int Opened(int descriptor, const void *site) {
    if (descriptor >= 0) {
        Books &books = TheBooks();
        const std::lock_guard guard(books.Lock);
        books.Descriptors[descriptor] = OffsetOf(site);
    }
    return descriptor;
}

static int OnDescriptor(const char *call, int descriptor, const void *site) {
    {
        Books &books = TheBooks();
        const std::lock_guard guard(books.Lock);
        if (!books.Descriptors.contains(descriptor)) {
            const std::string what = std::string(call) + " on a descriptor not its own:";
            books.Misdeeds.push_back(Line(what.c_str(), descriptor, OffsetOf(site)));
        }
    }
    return Verdict(call, site);
}

// --- the outside ------------------------------------------------------------------------------

void Watch(uintptr_t begin, uintptr_t end, const Fault *fault) {
    if (fault != nullptr) {
        TheBooks().Plan = *fault;
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

void PrintHits() {
    Books &books = TheBooks();
    const std::lock_guard guard(books.Lock);
    for (const auto &[place, count] : books.Hits) {
        printf("hit %s %x %s %u\n", place.Call.c_str(), place.Offset, place.Thread.c_str(), count);
    }
}

unsigned FiredCount() {
    return s_Fired;
}

std::vector<std::string> Outstanding() {
    Books &books = TheBooks();
    const std::lock_guard guard(books.Lock);
    std::vector<std::string> lines;
    for (const auto &[address, block] : books.Blocks) {
        lines.push_back(Line("block left, size", block.Size, block.TakenAt));
    }
    for (const auto &[descriptor, openedAt] : books.Descriptors) {
        lines.push_back(Line("descriptor left:", descriptor, openedAt));
    }
    return lines;
}

std::vector<std::string> Misdeeds() {
    Books &books = TheBooks();
    const std::lock_guard guard(books.Lock);
    for (const auto &[address, block] : books.Freed) {
        LookThrough(books, address, block);
    }
    return books.Misdeeds;
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
        const int error = IsWatched(SITE) ? OnDescriptor(#name, descriptor, SITE) : 0;             \
        errno = error != 0 ? error : errno;                                                        \
        return error != 0 ? -1 : NEXT(name) arguments;                                             \
    }
// Calls that move bytes.
#define MOVES_BYTES(name, type)                                                                    \
    ssize_t name(int descriptor, type bytes, size_t len, int flags) {                              \
        const int outcome = IsWatched(SITE) ? OnDescriptor(#name, descriptor, SITE) : 0;           \
        errno = outcome > 0 ? outcome : errno;                                                     \
        if (outcome > 0 || outcome == kEndOfStream) {                                              \
            return outcome > 0 ? -1 : 0;                                                           \
        }                                                                                          \
        return NEXT(name)(descriptor, bytes, outcome == kOneByte && len > 0 ? 1 : len, flags);     \
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
    const int error = Verdict("socket", SITE);
    errno = error != 0 ? error : errno;
    return error != 0 ? -1 : Opened(NEXT(socket)(domain, type, protocol), SITE);
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
    const int error = isWatched ? OnDescriptor("fcntl", descriptor, SITE) : 0;
    errno = error != 0 ? error : errno;
    const int result = error != 0 ? -1 : NEXT(fcntl)(descriptor, command, argument);
    return isWatched && command == F_DUPFD_CLOEXEC ? Opened(result, SITE) : result;
}

int close(int descriptor) {
    if (IsWatched(SITE)) {
        OnDescriptor("close", descriptor, SITE);
        Books &books = TheBooks();
        const std::lock_guard guard(books.Lock);
        books.Descriptors.erase(descriptor); // before another thread can get the number
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
