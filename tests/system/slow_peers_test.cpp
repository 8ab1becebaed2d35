// Crowds of peers that send slowly, never read or announce much, and too many of them: an honest
// one is served as well as beside as many silent ones, no processor burns, memory stays bounded.
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <deque>
#include <fstream>

#include "system/support.h"

using namespace nrpc;
using namespace nrpc::tests;

namespace {

constexpr int32_t kMiB = 1 << 20;

class SlowPeers : public SystemTest {
  protected:
    void TearDown() override {
        m_Server.reset();
        SystemTest::TearDown();
    }
    void Connect(size_t count) { // never more at once than the listening socket's backlog holds
        while (m_Crowd.size() < count) {
            EXPECT_TRUE(
                Until([&] { return m_Crowd.size() < m_Server->Count(kClientConnected) + 8; }));
            m_Crowd.emplace_back(m_Server->Port());
        }
        EXPECT_TRUE(
            Until([&] { return (*m_Server)->GetClientCount() == static_cast<int>(count); }));
    }
    void Leave() {
        m_Crowd.clear();
        EXPECT_TRUE(Until([&] { return (*m_Server)->GetClientCount() == 0; }));
    }

    std::optional<EchoServer> m_Server{std::in_place, false};
    std::deque<Peer> m_Crowd;
};

struct Served {
    double MedianMs;
    double WorstMs;
    double CpuShare; // of one processor, while nobody but the crowd is there
};

double CpuShare(double seconds) {
    const clock_t cpu = clock();
    usleep(static_cast<useconds_t>(seconds * 1e6));
    return static_cast<double>(clock() - cpu) / CLOCKS_PER_SEC / seconds;
}

Served Serve(int32_t port) {
    const double share = CpuShare(1);
    Peer honest(port);
    std::vector<int64_t> times;
    for (int i = 0; i < 9; ++i) {
        times.push_back(MillisecondsOf([&] { EXPECT_EQ(honest.Ask("0011", "good"), "good"); }));
        usleep(20 * 1000);
    }
    std::sort(times.begin(), times.end());
    return {static_cast<double>(times[4]), static_cast<double>(times.back()), share};
}

// Like a client that is paged out: its system takes little on its behalf.
void ReadNothing(Peer &peer) {
    const int length = 4096;
    setsockopt(peer.Descriptor(), SOL_SOCKET, SO_RCVBUF, &length, sizeof(length));
}

// --- limits of the process --------------------------------------------------------------------

class Limit {
  public:
    Limit(__rlimit_resource resource, rlim_t value) : m_Resource(resource) {
        getrlimit(resource, &m_Before);
        const rlimit now = {value, m_Before.rlim_max};
        EXPECT_EQ(setrlimit(resource, &now), 0);
    }
    ~Limit() { setrlimit(m_Resource, &m_Before); }
    Limit(const Limit &) = delete;
    Limit &operator=(const Limit &) = delete;

  private:
    const __rlimit_resource m_Resource;
    rlimit m_Before = {};
};

int64_t MillisecondsOfClock(clockid_t clock) {
    timespec now = {};
    clock_gettime(clock, &now);
    return now.tv_sec * int64_t{1000} + now.tv_nsec / 1000000;
}

} // namespace

TEST_F(SlowPeers, CostAnHonestOneNoMoreThanSilentOnesDo) {
    struct Crowd {
        const char *Name;
        size_t Count;
        size_t Requests; // of each, whose replies are not read; 0: they send a byte every 3 s
    };
    const std::string wire = Message("0011", Pattern(20000));
    const std::string much = Message("0011", Pattern(kMiB));
    for (const auto &[name, count, requests] : {Crowd{"19 that dribble", 19, 0},
                                                {"1 that never reads", 1, 4},
                                                {"50 that never read", 50, 4},
                                                {"100 that dribble", 100, 0}}) {
        Connect(count);
        const Served quiet = Serve(m_Server->Port());
        const size_t asked = m_Server->Count(kRequest);
        for (size_t i = 0; i < count * requests; ++i) {
            ReadNothing(m_Crowd[i % count]);
            m_Crowd[i % count].Send(much);
        }
        const auto dribble = [&](const std::stop_token &stop) {
            for (size_t i = 0; requests == 0 && !stop.stop_requested(); ++i) {
                m_Crowd[i % count].Send({&wire[i / count], 1});
                usleep(3000000 / static_cast<useconds_t>(count));
            }
        };
        std::jthread dribbling(dribble);
        const auto allAsked = [&] { return m_Server->Count(kRequest) == asked + count * requests; };
        EXPECT_TRUE(Until(allAsked, 3 * kPatience));
        const size_t most = count * requests * kMiB / 4;
        EXPECT_TRUE(Until([&] { return TakeCensus().HeapBytes >= most; })) << "no reply waits";
        // Soon all of them are made; after half a minute they would be given up.
        EXPECT_TRUE(Until([] { return CpuShare(0.5) < 0.4; }, 10)) << name;
        const Served beside = Serve(m_Server->Port());
        dribbling = {};
        printf("%s: median %.0f ms, worst %.0f ms, processor %.2f; as many silent ones: %.0f, "
               "%.0f, %.2f\n",
               name, beside.MedianMs, beside.WorstMs, beside.CpuShare, quiet.MedianMs,
               quiet.WorstMs, quiet.CpuShare);
        EXPECT_LE(beside.MedianMs, 3 * quiet.MedianMs + 10) << name;
        EXPECT_LE(beside.WorstMs, 2000) << name;
        EXPECT_LE(beside.CpuShare, 2 * quiet.CpuShare + 0.15) << name;
        Leave();
    }
}

// More than the budget of 512 MiB, each within the limit of one message.
TEST_F(SlowPeers, ThatFillTheBudgetLoseTheNewestMessages) {
    constexpr size_t kCount = 12;
    constexpr int32_t kEach = 56;
    if (kSanitized) {
        GTEST_SKIP() << "the sanitizers keep as much again";
    }
    Connect(kCount);
    const std::string chunk = Pattern(kMiB);
    for (int32_t index = 0; index < kEach; ++index) {
        for (Peer &peer : m_Crowd) {
            peer.Send(Packet("0011", 256 * kMiB, index, chunk));
        }
    }
    EXPECT_TRUE(Until([&] { return m_Server->Count(kClientDisconnected) > 0; }));
    EXPECT_LT(TakeCensus().HeapBytes, size_t{600} * kMiB);
    EXPECT_GT((*m_Server)->GetClientCount(), 4);
    EXPECT_EQ(Peer(m_Server->Port()).Ask("0011", chunk), chunk);
    Leave();
}

TEST_F(SlowPeers, FifteenHundredAreAllAnswered) {
    const Limit descriptors(RLIMIT_NOFILE, 4096);
    const auto count = static_cast<size_t>(Scaled(1500));
    Connect(count);
    for (Peer &peer : m_Crowd) {
        peer.Send(Message("0011", "good"));
    }
    for (Peer &peer : m_Crowd) {
        ASSERT_EQ(peer.Receive(60), (Arrived{"0011", "good"}));
    }
    Leave();
}

TEST_F(SlowPeers, AreServedUpToTheDescriptorsAndTheRestWhenSomeLeave) {
    const int32_t port = FreePort();
    const pid_t server = fork(); // a process of its own has descriptors of its own
    if (server == 0) {
        const rlimit few = {40, 40};
        setrlimit(RLIMIT_NOFILE, &few);
        execl(NRPC_HOST_TOOL, "nrpc-host", "serve", "--quiet", "--port",
              std::to_string(port).c_str(), nullptr);
        _exit(127);
    }
    EXPECT_TRUE(Until([&] { return Client(TheLibrary()).ClientConnect(port, kLoopback); }));
    do {
        m_Crowd.emplace_back(port);
    } while (m_Crowd.back().Ask("0011", "good", 3) == "good");
    const size_t served = m_Crowd.size() - 1;
    EXPECT_GT(served, 20U);
    while (m_Crowd.size() < served + 8) { // as many as the backlog surely holds
        m_Crowd.emplace_back(port).Send(Message("0011", "good"));
    }
    clockid_t clock = 0;
    clock_getcpuclockid(server, &clock);
    const int64_t before = MillisecondsOfClock(clock);
    EXPECT_FALSE(m_Crowd[served].Receive(2));
    EXPECT_LT(MillisecondsOfClock(clock) - before, kSanitized ? 2000 : 700);
    for (size_t i = 0; i < 12; ++i) {
        m_Crowd[i].Close();
    }
    for (size_t i = served; i < m_Crowd.size(); ++i) {
        EXPECT_EQ(m_Crowd[i].Receive(), (Arrived{"0011", "good"}));
    }
    m_Crowd.clear();
    kill(server, SIGTERM);
    int status = -1;
    waitpid(server, &status, 0);
    EXPECT_EQ(status, 0);
}

TEST_F(SlowPeers, AreServedWithAsManyThreadsAsTheMemoryHolds) {
    if (kSanitized) {
        GTEST_SKIP() << "the sanitizers reserve address space of their own";
    }
    (*m_Server)->StopServer();
    EXPECT_TRUE((*m_Server)->SetPoolThreadNum(200, 400));
    size_t pages = 0;
    std::ifstream("/proc/self/statm") >> pages;
    const int threads = TakeCensus().Threads;
    {
        const Limit space(RLIMIT_AS, static_cast<rlim_t>(pages) * 4096 + size_t{40} * kMiB);
        m_Server->Start(false);
        EXPECT_EQ(Peer(m_Server->Port()).Ask("0011", "good"), "good");
    }
    const int started = TakeCensus().Threads - threads;
    EXPECT_GE(started, 4 * 2 + 1) << "each pool has a manager and a worker";
    EXPECT_LT(started, 4 * 201) << "the limit was felt";
    EXPECT_EQ(Peer(m_Server->Port()).Ask("0011", "good"), "good");
    (*m_Server)->StopServer();
}
