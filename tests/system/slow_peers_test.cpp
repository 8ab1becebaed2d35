// Crowds of peers that send slowly, never read or announce much, and too many of them: an honest
// one is served as well as beside as many silent ones, no processor burns, memory stays bounded.
#include <netinet/in.h>
#include <poll.h>
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

// Connections that are tried all at once. Each asks as soon as it stands, and stays once it is
// answered; until then it is tried anew every few seconds, as what a full backlog has lost may come
// back much later or never.
class Rush {
  public:
    Rush(int32_t port, size_t count) : m_Port(port), m_Peers(count, {-1, 0, 0}), m_Begun(count) {
        for (size_t i = 0; i < count; ++i) {
            Begin(i);
        }
    }
    ~Rush() {
        for (const pollfd &peer : m_Peers) {
            peer.fd < 0 ? 0 : close(peer.fd);
        }
    }
    Rush(const Rush &) = delete;
    Rush &operator=(const Rush &) = delete;
    // Whether so many are answered in time.
    bool Answered(size_t count, double seconds = kPatience) {
        return Until(
            [&] {
                poll(m_Peers.data(), m_Peers.size(), 10);
                for (size_t i = 0; i < m_Peers.size(); ++i) {
                    Serve(i);
                }
                return m_Answered >= count;
            },
            seconds);
    }
    void DismissAnswered() {
        for (pollfd &peer : m_Peers) {
            if (peer.fd >= 0 && peer.events == 0) {
                close(std::exchange(peer.fd, -1));
            }
        }
    }

  private:
    void Begin(size_t i) {
        sockaddr_in address = {AF_INET, htons(static_cast<uint16_t>(m_Port)), {}, {}};
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        m_Peers[i].fd < 0 ? 0 : close(m_Peers[i].fd);
        m_Peers[i] = {socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0), POLLOUT, 0};
        connect(m_Peers[i].fd, reinterpret_cast<sockaddr *>(&address), sizeof(address));
        m_Begun[i] = NowMs();
    }
    void Serve(size_t i) {
        pollfd &peer = m_Peers[i];
        const std::string message = Message("0011", "good");
        char reply[100];
        if (peer.fd < 0 || peer.events == 0) {
            return;
        }
        if ((peer.revents & peer.events) == 0) {
            NowMs() - m_Begun[i] > 3000 ? Begin(i) : void();
        } else if (peer.events == POLLOUT) {
            send(peer.fd, message.data(), message.size(), MSG_NOSIGNAL);
            peer.events = POLLIN;
        } else if (recv(peer.fd, reply, sizeof(reply), 0) > 0) {
            EXPECT_EQ(std::string_view(reply, message.size()), message);
            peer.events = 0;
            ++m_Answered;
        } else {
            Begin(i);
        }
    }

    const int32_t m_Port;
    std::vector<pollfd> m_Peers;
    std::vector<int64_t> m_Begun;
    size_t m_Answered = 0;
};

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
        Until([] { return CpuShare(0.5) < 0.4; }); // all of them are made
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

TEST_F(SlowPeers, FillNoMoreThanWhatTheySend) {
    const std::string part = Packet("0011", 256 * kMiB, 0, Pattern(1000));
    std::string grains;
    for (int32_t index = 0; index < 20000; ++index) {
        grains += Packet("0011", 256 * kMiB, index, "x");
    }
    std::string turns;
    for (int32_t turn = 0; turn < 20000; ++turn) {
        turns += Packet(turn % 2 == 0 ? "0011" : "0012", kMiB, 0, "x");
    }
    struct Case {
        const char *Name;
        size_t Count;
        std::string Bytes;
        size_t Most; // for each byte sent
    };
    for (const auto &[name, count, bytes, most] :
         {Case{"announce much", 300, part + Head("0011", 256 * kMiB, 1, kMiB), 8},
          {"send grains", 8, grains, 3},
          {"begin anew for ever", 8, turns, 1}}) {
        Connect(count);
        const size_t before = TakeCensus().HeapBytes;
        for (Peer &peer : m_Crowd) {
            peer.Send(bytes);
        }
        sleep(1);
        const size_t after = TakeCensus().HeapBytes;
        EXPECT_LE(after, before + count * bytes.size() * most) << name;
        EXPECT_EQ(Peer(m_Server->Port()).Ask("0011", "good"), "good") << name;
        Leave();
        EXPECT_TRUE(Until([&] { return TakeCensus().HeapBytes < before + kMiB; })) << name;
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
        const rlimit few = {64, 64};
        setrlimit(RLIMIT_NOFILE, &few);
        execl(NRPC_HOST_TOOL, "nrpc-host", "serve", "--quiet", "--port",
              std::to_string(port).c_str(), nullptr);
        _exit(127);
    }
    EXPECT_TRUE(Until([&] { return Rush(port, 1).Answered(1, 1); }));
    Rush rush(port, 200);
    EXPECT_TRUE(rush.Answered(40));
    clockid_t clock = 0;
    clock_getcpuclockid(server, &clock);
    const int64_t before = MillisecondsOfClock(clock);
    EXPECT_FALSE(rush.Answered(65, 2));
    EXPECT_LT(MillisecondsOfClock(clock) - before, kSanitized ? 2000 : 700);
    for (size_t count = 80; count <= 200; count += 40) {
        rush.DismissAnswered();
        EXPECT_TRUE(rush.Answered(count));
    }
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
