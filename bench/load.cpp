#include "load.h"

#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>

namespace nrpc::bench {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// What threads of the load itself are given; hundreds of them run in one process.
static constexpr size_t kStackLen = 128 * 1024;

static double UsSince(Clock::time_point start) {
    return std::chrono::duration<double, std::micro>(Clock::now() - start).count();
}

static double SecondsBetween(Clock::time_point start, Clock::time_point end) {
    return std::chrono::duration<double>(end - start).count();
}

static Clock::time_point After(Clock::time_point start, double seconds) {
    return start +
           std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
}

// --- requests and replies ---------------------------------------------------------------------

// What every request holds behind its first bytes.
static const Bytes &Pattern() {
    static const Bytes s_Pattern = [] {
        Bytes bytes(kGreatestSize);
        std::minstd_rand random(1);
        for (uint8_t &byte : bytes) {
            byte = static_cast<uint8_t>(random() >> 8);
        }
        return bytes;
    }();
    return s_Pattern;
}

Replies::Replies(uint32_t connection) : m_Connection(connection), m_Request(Pattern()) {}

ByteSpan Replies::Next(size_t size) {
    const std::lock_guard<std::mutex> guard(m_Lock);
    const auto number = static_cast<uint32_t>(m_Sizes.size());
    std::memcpy(m_Request.data(), &m_Connection, sizeof(m_Connection));
    std::memcpy(m_Request.data() + sizeof(m_Connection), &number, sizeof(number));
    m_Sizes.push_back(static_cast<uint32_t>(size));
    m_Count.Sent += 1;
    return ByteSpan(m_Request).first(size);
}

bool Replies::IsRight(ByteSpan reply) {
    uint32_t head[2] = {};
    if (reply.size() < kLeastSize) {
        return false;
    }
    std::memcpy(head, reply.data(), sizeof(head));
    if (head[0] != m_Connection || head[1] >= m_Sizes.size() || m_Sizes[head[1]] != reply.size()) {
        return false;
    }
    m_Sizes[head[1]] = 0;
    return std::memcmp(reply.data() + kLeastSize, Pattern().data() + kLeastSize,
                       reply.size() - kLeastSize) == 0;
}

void Replies::Take(ByteSpan reply) {
    const std::lock_guard<std::mutex> guard(m_Lock);
    if (!IsRight(reply)) {
        m_Count.Wrong += 1;
        return;
    }
    m_Count.Right += 1;
    if (UnderWayLocked() == m_AwaitedMost) {
        m_Fewer.notify_one();
    }
}

bool Replies::Await(uint64_t most, milliseconds limit) {
    std::unique_lock<std::mutex> guard(m_Lock);
    m_AwaitedMost = most;
    return m_Fewer.wait_for(guard, limit, [&] { return UnderWayLocked() <= most; });
}

uint64_t Replies::UnderWay() const {
    const std::lock_guard<std::mutex> guard(m_Lock);
    return UnderWayLocked();
}

Counts Replies::Count() const {
    const std::lock_guard<std::mutex> guard(m_Lock);
    return m_Count;
}

// A synchronous request and the check of its reply.
static bool Ask(SyncClient &client, Replies &replies, size_t size) {
    Bytes reply;
    if (!client.Request(replies.Next(size), reply)) {
        return false;
    }
    replies.Take(reply);
    return true;
}

static uint64_t LostOf(const Counts &count) {
    return count.Sent - std::min(count.Sent, count.Right + count.Wrong);
}

static Counts operator+(const Counts &a, const Counts &b) {
    return {a.Sent + b.Sent, a.Right + b.Right, a.Wrong + b.Wrong};
}

// Smallest value that this part of all does not exceed; 0 when there are none. Sorts the values.
static double Quantile(std::vector<double> &values, double part) {
    if (values.empty()) {
        return 0;
    }
    std::sort(values.begin(), values.end());
    const auto rank = static_cast<size_t>(part * static_cast<double>(values.size()));
    return values[std::min(rank, values.size() - 1)];
}

// --- threads of the load ----------------------------------------------------------------------

// Runs body(0) to body(count - 1) at the same time, on small stacks.
template <typename Body>
static void RunThreads(uint32_t count, const Body &body) {
    struct Start {
        const Body *Run;
        uint32_t Index;
    };
    std::vector<Start> starts(count);
    std::vector<pthread_t> threads(count);
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, kStackLen);
    for (uint32_t i = 0; i < count; ++i) {
        starts[i] = {&body, i};
        const auto routine = [](void *arg) -> void * {
            const auto *start = static_cast<const Start *>(arg);
            (*start->Run)(start->Index);
            return nullptr;
        };
        if (pthread_create(&threads[i], &attributes, routine, &starts[i]) != 0) {
            throw std::runtime_error("no more threads");
        }
    }
    pthread_attr_destroy(&attributes);
    for (const pthread_t thread : threads) {
        pthread_join(thread, nullptr);
    }
}

// --- commands ---------------------------------------------------------------------------------

static const Program *s_Program;
static std::vector<std::string> s_Args; // what follows the command

static uint32_t Number(size_t index) {
    return static_cast<uint32_t>(std::stoul(s_Args.at(index)));
}
static uint16_t Port() {
    return static_cast<uint16_t>(Number(0));
}
static double Seconds(size_t index) {
    return std::stod(s_Args.at(index));
}

// The next line of the input; false at its end.
static bool ReadLine(std::string &line) {
    char buffer[64];
    if (std::fgets(buffer, sizeof(buffer), stdin) == nullptr) {
        return false;
    }
    line = buffer;
    return true;
}

static void Say(const char *line) {
    std::puts(line);
    std::fflush(stdout);
}

static void AwaitEndOfInput() {
    std::string line;
    while (ReadLine(line)) {
    }
}

static int RunServer() {
    s_Program->Serve(
        Port(), [] { Say("{\"ready\": true}"); }, AwaitEndOfInput);
    return 0;
}

static int RunLatency() {
    const uint32_t size = Number(1);
    const uint32_t count = Number(2);
    const auto client = s_Program->ConnectSync(Port());
    Replies replies(0);
    bool answered = Ask(*client, replies, size); // warms up, not counted in the times
    std::vector<double> times;
    const auto start = Clock::now();
    const auto end = After(start, Seconds(3));
    while (answered && times.size() < count && Clock::now() < end) {
        const auto sent = Clock::now();
        answered = Ask(*client, replies, size);
        times.push_back(UsSince(sent));
    }
    const double seconds = SecondsBetween(start, Clock::now());
    const Counts counts = replies.Count();
    const auto done = static_cast<double>(times.size());
    std::printf("{\"p50_us\": %.2f, \"p99_us\": %.2f, \"per_s\": %.3f, \"mib_s\": %.4f, "
                "\"count\": %zu, \"wrong\": %" PRIu64 ", \"lost\": %" PRIu64 "}\n",
                Quantile(times, 0.5), Quantile(times, 0.99), done / seconds,
                done * 2 * size / (1024 * 1024) / seconds, times.size(), counts.Wrong,
                LostOf(counts));
    std::fflush(stdout);
    _exit(0); // how long the end of a connection takes is not asked
}

// Sends until `end` and then waits for what is still under way. Answers the replies per second
// between `warmUp` and `end`.
static double Pipeline(AsyncClient &client, Replies &replies, uint32_t size, uint32_t limit,
                       Clock::time_point warmUp, Clock::time_point end) {
    Clock::time_point warmAt;
    uint64_t warmCount = 0;
    auto now = Clock::now();
    for (bool isWarm = false; now < end; now = Clock::now()) {
        if (!isWarm && now >= warmUp) {
            isWarm = true;
            warmAt = now;
            warmCount = replies.Count().Right;
        }
        // Once the limit is reached, a tenth is sent at a time: waking for each reply would cost
        // more than many a library does.
        if (replies.UnderWay() >= limit) {
            client.Await(replies, limit - std::max(limit / 10, 1u), milliseconds(100));
        } else if (!client.Send(replies.Next(size))) {
            throw std::runtime_error("a request was refused");
        }
    }
    const auto counted = static_cast<double>(replies.Count().Right - warmCount);
    const double rate = counted / SecondsBetween(warmAt, now);
    client.Await(replies, 0, kPatience);
    return rate;
}

static int RunPipeline() {
    const uint32_t connections = Number(1);
    const uint32_t size = Number(2);
    const uint32_t limit = Number(3);
    const double seconds = Seconds(4);
    struct Connection {
        explicit Connection(uint32_t number) : Results(number) {}
        Replies Results;
        std::unique_ptr<AsyncClient> Client; // goes first
        double Rate = 0;
    };
    std::vector<std::unique_ptr<Connection>> all;
    for (uint32_t i = 0; i < connections; ++i) {
        all.push_back(std::make_unique<Connection>(i));
        all.back()->Client = s_Program->ConnectAsync(Port(), all.back()->Results);
    }
    const auto start = Clock::now();
    RunThreads(connections, [&](uint32_t i) {
        all[i]->Rate = Pipeline(*all[i]->Client, all[i]->Results, size, limit,
                                After(start, seconds / 4), After(start, seconds));
    });
    Counts counts = {};
    double rate = 0;
    for (const auto &connection : all) {
        counts = counts + connection->Results.Count();
        rate += connection->Rate;
    }
    std::printf("{\"per_s\": %.2f, \"mib_s\": %.4f, \"count\": %" PRIu64 ", \"wrong\": %" PRIu64
                ", \"lost\": %" PRIu64 "}\n",
                rate, rate * 2 * size / (1024 * 1024), counts.Right, counts.Wrong, LostOf(counts));
    std::fflush(stdout);
    _exit(0);
}

static int RunIdle() {
    std::vector<std::unique_ptr<SyncClient>> clients;
    std::string line;
    while (ReadLine(line)) {
        const size_t wanted = std::stoul(line);
        while (clients.size() < wanted) {
            clients.push_back(s_Program->ConnectSync(Port()));
        }
        std::printf("{\"connected\": %zu}\n", clients.size());
        std::fflush(stdout);
    }
    _exit(0);
}

static int RunFirst() {
    std::string line;
    ReadLine(line);
    const auto client = s_Program->ConnectSync(Port());
    Replies replies(0);
    Ask(*client, replies, 64);
    const auto now = Clock::now().time_since_epoch();
    const Counts counts = replies.Count();
    std::printf("{\"at_s\": %.9f, \"wrong\": %" PRIu64 ", \"lost\": %" PRIu64 "}\n",
                std::chrono::duration<double>(now).count(), counts.Wrong, LostOf(counts));
    std::fflush(stdout);
    _exit(0);
}

// Connects, waits for a line, and lets each client ask once a second, evenly spread. The first turn
// warms up. Then a reply that takes longer than a second ends the run. Nothing counts as lost here:
// too much is asked on purpose.
static int RunMany() {
    const uint32_t count = Number(1);
    const auto seconds = static_cast<uint32_t>(Seconds(2));
    std::vector<std::unique_ptr<SyncClient>> clients;
    for (uint32_t i = 0; i < count; ++i) {
        clients.push_back(s_Program->ConnectSync(Port()));
    }
    Say("{\"connected\": true}");
    std::string line;
    ReadLine(line);
    std::atomic<bool> late = false;
    std::atomic<uint64_t> wrong = 0;
    std::mutex lock;
    double longest = 0;
    const auto start = Clock::now();
    RunThreads(count, [&](uint32_t i) {
        Replies replies(i);
        double own = 0;
        for (uint32_t turn = 0; turn <= seconds && !late; ++turn) {
            std::this_thread::sleep_until(After(start, turn + static_cast<double>(i) / count));
            const auto sent = Clock::now();
            const bool answered = Ask(*clients[i], replies, 64);
            if (turn == 0) {
                continue;
            }
            own = std::max(own, UsSince(sent));
            if (!answered || own > 1e6) {
                late = true;
            }
        }
        wrong += replies.Count().Wrong;
        const std::lock_guard<std::mutex> guard(lock);
        longest = std::max(longest, own);
    });
    std::printf("{\"late\": %s, \"longest_us\": %.0f, \"wrong\": %" PRIu64 ", \"lost\": 0}\n",
                late ? "true" : "false", longest, wrong.load());
    std::fflush(stdout);
    _exit(0);
}

// --- clients that come and go -----------------------------------------------------------------

namespace {
struct Mixed {
    std::mutex Lock; // guards all below
    Counts Count = {};
    uint64_t Sessions = 0;
    std::vector<double> Times; // of synchronous requests of 64 bytes since the last sample
};
} // namespace

static size_t AnySize(std::minstd_rand &random) {
    const auto bits = 3 + random() % 15; // 8 bytes to 128 KiB, as many of each order
    return (size_t{1} << bits) + random() % (size_t{1} << bits);
}

static void SyncSession(std::minstd_rand &random, Mixed &mixed, uint32_t thread) {
    Replies replies(thread);
    const auto client = s_Program->ConnectSync(Port());
    for (int i = 0; i < 10; ++i) {
        const auto start = Clock::now();
        Ask(*client, replies, 64);
        const double us = UsSince(start);
        Ask(*client, replies, AnySize(random));
        const std::lock_guard<std::mutex> guard(mixed.Lock);
        mixed.Times.push_back(us);
    }
    const std::lock_guard<std::mutex> guard(mixed.Lock);
    mixed.Count = mixed.Count + replies.Count();
    mixed.Sessions += 1;
}

static void AsyncSession(std::minstd_rand &random, Mixed &mixed, uint32_t thread) {
    Replies replies(thread);
    const auto client = s_Program->ConnectAsync(Port(), replies);
    for (int i = 0; i < 300; ++i) {
        if (!client->Send(replies.Next(AnySize(random)))) {
            throw std::runtime_error("a request was refused");
        }
        client->Await(replies, 20, kPatience);
    }
    client->Await(replies, 0, kPatience);
    const std::lock_guard<std::mutex> guard(mixed.Lock);
    mixed.Count = mixed.Count + replies.Count();
    mixed.Sessions += 1;
}

static int RunMixed() {
    constexpr uint32_t kThreads = 8;
    constexpr uint32_t kGreatestPauseMs = 1000; // between two sessions of a thread
    constexpr double kSampleS = 5;
    const auto start = Clock::now();
    const auto end = After(start, Seconds(1));
    const uint32_t seed = Number(2);
    Mixed mixed;
    std::thread sampler([&] {
        for (double at = kSampleS; After(start, at) < end; at += kSampleS) {
            std::this_thread::sleep_until(After(start, at));
            const std::lock_guard<std::mutex> guard(mixed.Lock);
            std::printf("{\"at_s\": %.1f, \"p50_us\": %.0f, \"p99_us\": %.0f, \"replies\": %" PRIu64
                        ", \"sessions\": %" PRIu64 "}\n",
                        at, Quantile(mixed.Times, 0.5), Quantile(mixed.Times, 0.99),
                        mixed.Count.Right, mixed.Sessions);
            std::fflush(stdout);
            mixed.Times.clear();
        }
    });
    RunThreads(kThreads, [&](uint32_t i) {
        std::minstd_rand random(seed + i);
        while (Clock::now() < end) {
            (i % 2 == 0 ? SyncSession : AsyncSession)(random, mixed, i);
            std::this_thread::sleep_for(milliseconds(random() % kGreatestPauseMs));
        }
    });
    sampler.join();
    std::printf("{\"replies\": %" PRIu64 ", \"sessions\": %" PRIu64 ", \"wrong\": %" PRIu64
                ", \"lost\": %" PRIu64 "}\n",
                mixed.Count.Right, mixed.Sessions, mixed.Count.Wrong, LostOf(mixed.Count));
    return 0;
}

// --- main -------------------------------------------------------------------------------------

static constexpr struct {
    const char *Name;
    size_t ArgCount;
    int (*Run)();
} s_Commands[] = {
    {"server", 1, RunServer}, {"latency", 4, RunLatency}, {"pipeline", 5, RunPipeline},
    {"idle", 1, RunIdle},     {"first", 1, RunFirst},     {"many", 3, RunMany},
    {"mixed", 3, RunMixed},
};

int Main(int argc, char **argv, const Program &program) {
    s_Program = &program;
    s_Args.assign(argv + std::min(argc, 2), argv + argc);
    try {
        for (const auto &command : s_Commands) {
            if (argc > 1 && std::strcmp(argv[1], command.Name) == 0 &&
                s_Args.size() == command.ArgCount) {
                return command.Run();
            }
        }
        std::fprintf(stderr, "see bench/load.h for the commands\n");
        return 2;
    } catch (const std::exception &error) {
        std::fprintf(stderr, "%s: %s\n", argv[0], error.what());
        return 1;
    }
}

} // namespace nrpc::bench
