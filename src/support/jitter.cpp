#include "support/jitter.h"

#if defined(NRPC_JITTER)

#include <sched.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <ctime>

namespace nrpc {

static constexpr uint32_t kYieldOneIn = 8;
static constexpr uint32_t kSleepOneIn = 32;
static constexpr uint32_t kMaxSleepNs = 2000000;

// 0: no jitter in this run.
static uint32_t SeedOfRun() {
    const char *text = getenv("NRPC_JITTER_SEED"); // NOLINT(concurrency-mt-unsafe): never written
    return text != nullptr ? static_cast<uint32_t>(strtoul(text, nullptr, 10)) : 0;
}

// The next number of the calling thread; each thread has a series of its own.
static uint32_t NextRandom(uint32_t seed) {
    static std::atomic<uint32_t> s_Threads = 0;
    // Not dynamic: the thread sanitizer guesses where such a block begins, and is at times wrong.
    [[gnu::tls_model("initial-exec")]] static thread_local uint32_t s_State = 0;
    if (s_State == 0) {
        s_State = (seed + ++s_Threads) * 2654435761U | 1;
    }
    s_State ^= s_State << 13;
    s_State ^= s_State >> 17;
    s_State ^= s_State << 5;
    return s_State;
}

void Jitter() {
    const uint32_t seed = SeedOfRun();
    if (seed == 0) {
        return;
    }
    const int callersErrno = errno;
    const uint32_t random = NextRandom(seed);
    if (random % kSleepOneIn == 0) {
        const timespec moment = {0, static_cast<long>(random / kSleepOneIn % kMaxSleepNs)};
        nanosleep(&moment, nullptr);
    } else if (random % kYieldOneIn == 0) {
        sched_yield();
    }
    errno = callersErrno;
}

} // namespace nrpc

#endif
