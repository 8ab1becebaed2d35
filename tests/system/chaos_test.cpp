// Clients and their server with a proxy between them that cuts, delays, holds back, floods, ends
// and resets, by a plan from a seed, beside peers that misbehave. Every reply is right or missing,
// every connection that came is told of when it goes, and an honest client is served all the while.
// NRPC_CHAOS_CONNECTIONS and NRPC_CHAOS_SEED choose the length and the run.
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>
#include <list>

#include "system/support.h"

namespace nrpc::tests {

namespace {

constexpr int kClients = 20;
constexpr int32_t kTimeoutMs = 500;

void Close(int socket, bool roughly) {
    const linger none = {1, 0};
    if (roughly) {
        setsockopt(socket, SOL_SOCKET, SO_LINGER, &none, sizeof(none));
    }
    close(socket);
}

// --- the proxy --------------------------------------------------------------------------------

enum Fate { kFaithful, kSliced, kDelayed, kHeld, kFlooded, kEnded, kReset, kFateCount };

// One direction of a connection. What happens to it happens at the first end of a packet behind a
// number of bytes; ends come in the middle of packets too.
struct Flow {
    int From;
    int To;
    int Fate;
    size_t At;
    std::string Waiting = {};
    size_t Passed = 0;
    size_t LeftOfPacket = 0;
    std::string Head = {};
    int64_t ReadyMs = 0;

    bool IsDue() const { return Passed >= At; }
    bool IsBetweenPackets() const { return LeftOfPacket == 0 && Head.empty(); }
};

void Follow(Flow &flow, char byte) {
    ++flow.Passed;
    if (flow.LeftOfPacket > 0) {
        --flow.LeftOfPacket;
        return;
    }
    flow.Head += byte;
    if (flow.Head.size() == 20) {
        int32_t chunkLen = 0;
        std::memcpy(&chunkLen, &flow.Head[16], sizeof(chunkLen));
        flow.LeftOfPacket = static_cast<size_t>(chunkLen);
        flow.Head.clear();
    }
}

void PassOn(Flow &flow, size_t most) {
    const ssize_t sent = send(flow.To, flow.Waiting.data(), std::min(most, flow.Waiting.size()),
                              MSG_NOSIGNAL | MSG_DONTWAIT);
    for (ssize_t i = 0; i < sent; ++i) {
        Follow(flow, flow.Waiting[static_cast<size_t>(i)]);
    }
    flow.Waiting.erase(0, sent > 0 ? static_cast<size_t>(sent) : 0);
}

// False: this connection is to be ended.
bool Step(Flow &flow, Dice &dice) {
    if (NowMs() < flow.ReadyMs) {
        return true;
    }
    if (flow.Waiting.empty()) {
        char bytes[16384];
        const ssize_t len = recv(flow.From, bytes, sizeof(bytes), MSG_DONTWAIT);
        flow.Waiting.assign(bytes, len > 0 ? static_cast<size_t>(len) : 0);
        if (len == 0 || (len < 0 && errno != EAGAIN)) {
            return false;
        }
    }
    size_t most = 16384;
    if (!flow.IsDue()) {
        most = flow.At - flow.Passed;
    } else if (flow.Fate == kEnded || flow.Fate == kReset) {
        return false;
    } else if (flow.Fate == kHeld) {
        flow.ReadyMs = NowMs() + kTimeoutMs * 3 / 2;
        flow.Fate = kFaithful;
    } else if (flow.Fate == kFlooded && flow.IsBetweenPackets()) {
        flow.Waiting.insert(0, Pattern(100000, 7));
        flow.Fate = kFaithful;
    } else if (flow.Fate == kDelayed) {
        flow.ReadyMs = NowMs() + dice.Roll(30);
    } else if (flow.Fate == kSliced) {
        most = 1 + static_cast<size_t>(dice.Roll(flow.Passed < flow.At + 200 ? 20 : 4000));
    }
    PassOn(flow, most);
    return true;
}

class Proxy {
  public:
    Proxy(int32_t server, uint32_t seed) : m_Server(server), m_Dice(seed) {}
    int32_t Port() const { return m_Listening.Port(); }
    int Connections() const { return m_Connections; }

  private:
    struct Link {
        Peer Client;
        int Server;
        Flow There;
        Flow Back;
    };

    void Run(const std::stop_token &stop) {
        while (!stop.stop_requested()) {
            pollfd coming = {m_Listening.Descriptor(), POLLIN, 0};
            if (poll(&coming, 1, m_Links.empty() ? 10 : 1) > 0) {
                Accept();
            }
            m_Links.remove_if([this](Link &link) {
                const bool goesOn = Step(link.There, m_Dice) && Step(link.Back, m_Dice);
                return !goesOn && (End(link), true);
            });
        }
        std::for_each(m_Links.begin(), m_Links.end(), End);
    }
    void Accept() {
        Peer client = m_Listening.Accept();
        const int from = client.Descriptor();
        const int to = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address = {AF_INET, htons(static_cast<uint16_t>(m_Server)), {}, {}};
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(connect(to, reinterpret_cast<sockaddr *>(&address), sizeof(address)), 0);
        const auto fate = [this](int a, int b) {
            const auto at = static_cast<size_t>(m_Dice.Roll(3) * m_Dice.Roll(9000));
            return Flow{a, b, m_Dice.Roll(kFateCount), at};
        };
        m_Links.push_back({std::move(client), to, fate(from, to), fate(to, from)});
        ++m_Connections;
    }
    static void End(Link &link) {
        const bool roughly = link.There.Fate == kReset || link.Back.Fate == kReset;
        Close(link.Server, roughly);
        roughly ? link.Client.Reset() : link.Client.Close();
    }

    const int32_t m_Server;
    Dice m_Dice;
    Listener m_Listening;
    std::list<Link> m_Links;
    std::atomic<int> m_Connections = 0;
    std::jthread m_Thread{[this](const std::stop_token &stop) { Run(stop); }}; // ends first
};

// --- those who talk ---------------------------------------------------------------------------

struct Tally {
    std::atomic<int> Right = 0;
    std::atomic<int> Missing = 0;
    std::atomic<int> Wrong = 0;
};

// Names its sender, so that another's reply is noticed.
std::string RequestOf(int number, int connection, int sequence, Dice &dice) {
    const std::string name = std::to_string(number) + '/' + std::to_string(connection) + '/' +
                             std::to_string(sequence) + ';';
    return name + Pattern(static_cast<size_t>(dice.Roll(3) * dice.Roll(15000)));
}

void AskSynchronously(Client &client, const std::vector<std::string> &requests, Tally &tally) {
    for (size_t i = 0; i < requests.size(); ++i) {
        const ByteSpan bytes = BytesOf(requests[i]);
        const BinReply reply = client.SendSynRequestBin(bytes, kTimeoutMs);
        const bool isRight = reply.Content.size() == bytes.size() &&
                             std::equal(bytes.begin(), bytes.end(), reply.Content.begin());
        tally.Right += reply.Result == 1 && isRight;
        tally.Wrong += reply.Result == 1 && !isRight;
        tally.Missing += reply.Result != 1;
    }
}

struct Awaited {
    std::mutex Lock;
    std::vector<std::string> Requests;
    int Ends = 0;
};

void Take(Client &client, HostWord message, Awaited &awaited, Tally &tally) {
    const bool isEnd = client.ClientGetMsgKind(message) == kConnectionClosed;
    const std::string text = client.GetResultText(message).value_or("");
    const std::lock_guard<std::mutex> guard(awaited.Lock);
    awaited.Ends += isEnd;
    EXPECT_LE(awaited.Ends, 1);
    if (!isEnd) {
        const bool isRight = std::erase(awaited.Requests, text) == 1;
        ++(isRight ? tally.Right : tally.Wrong);
    }
}

void AskAsynchronously(Client &client, Awaited &awaited) {
    const std::vector<std::string> requests = awaited.Requests;
    for (const std::string &request : requests) {
        client.SendAsynRequestText(request);
    }
    Until(
        [&awaited] {
            const std::lock_guard<std::mutex> guard(awaited.Lock);
            return awaited.Requests.empty() || awaited.Ends > 0;
        },
        kTimeoutMs / 1000.0);
}

void TalkOnce(int32_t port, int number, int connection, Dice &dice, Tally &tally) {
    Awaited awaited;
    Client client(TheLibrary());
    for (int count = 1 + dice.Roll(4); count > 0; --count) {
        awaited.Requests.push_back(RequestOf(number, connection, count, dice));
    }
    if (dice.Roll(2) == 0) {
        if (client.ClientConnect(port, kLoopback)) {
            AskSynchronously(client, awaited.Requests, tally);
        }
        return;
    }
    const auto handler = [&](HostWord message) { Take(client, message, awaited, tally); };
    if (client.ClientConnect(port, kLoopback, handler)) {
        AskAsynchronously(client, awaited);
    }
    client.Release(); // and the handler with it
    tally.Missing += static_cast<int>(awaited.Requests.size());
}

void Misbehave(int32_t port, Dice &dice, const std::stop_token &stop) {
    const std::string wire = Message("0011", Pattern(50000));
    const std::string misdeeds[] = {
        "",
        "GET / HTTP/1.1\r\n\r\n",
        Pattern(65536),
        wire.substr(0, 13),
        wire.substr(0, 20000),
        wire + Pattern(100),
        wire + wire + wire, // and reads none of the replies
        Head("0011", 256 << 20, 0, 1 << 20) + Pattern(1000),
        Packet("0011", 24, 0, "<Msg0011>9</Msg0011>none"),
    };
    while (!stop.stop_requested()) {
        Peer peer(port);
        peer.Send(misdeeds[dice.Roll(std::size(misdeeds))]);
        dice.Pause(200);
        dice.Roll(2) == 0 ? peer.Reset() : peer.Close();
    }
}

struct Latencies {
    std::vector<int> Ms;
    int At(double part) {
        std::sort(Ms.begin(), Ms.end());
        return Ms[static_cast<size_t>(part * static_cast<double>(Ms.size() - 1))];
    }
};

void AskHonestly(int32_t port, Latencies &latencies, const std::stop_token &stop) {
    Peer peer(port);
    while (!stop.stop_requested()) {
        const auto ask = [&] { EXPECT_EQ(peer.Ask("0011", "honest"), "honest"); };
        latencies.Ms.push_back(static_cast<int>(MillisecondsOf(ask)));
        usleep(50000);
    }
}

class Chaos : public SystemTest {};

} // namespace

TEST_F(Chaos, EveryReplyIsRightOrMissingAndNobodyIsForgotten) {
    const uint32_t seed = FromEnvironment("NRPC_CHAOS_SEED", 1);
    const auto connections =
        static_cast<int>(FromEnvironment("NRPC_CHAOS_CONNECTIONS", kSanitized ? 100 : 200));
    SCOPED_TRACE("NRPC_CHAOS_SEED=" + std::to_string(seed));
    Tally tally;
    Latencies latencies;
    EchoServer server;
    int made = 0;
    {
        Proxy proxy(server.Port(), seed);
        std::vector<std::jthread> others;
        others.emplace_back(
            [&](const std::stop_token &stop) { AskHonestly(server.Port(), latencies, stop); });
        for (uint32_t number = 0; number < 2; ++number) {
            others.emplace_back([&, number](const std::stop_token &stop) {
                Dice dice(seed * 100 + 50 + number);
                Misbehave(server.Port(), dice, stop);
            });
        }
        std::vector<std::jthread> clients;
        for (int number = 0; number < kClients; ++number) {
            clients.emplace_back([&, number] {
                Dice dice(seed * 100 + static_cast<uint32_t>(number));
                for (int turn = 0; proxy.Connections() < connections; ++turn) {
                    TalkOnce(proxy.Port(), number, turn, dice, tally);
                }
            });
        }
        clients.clear();
        made = proxy.Connections();
    }
    EXPECT_TRUE(Until([&] { return server->GetClientCount() == 0; }));
    EXPECT_TRUE(
        Until([&] { return server.Count(kClientConnected) == server.Count(kClientDisconnected); }));
    printf(
        "seed %u: %d connections through the proxy of %zu in all; replies: %d right, %d missing, "
        "%d wrong; an honest client waited %d ms (half below), %d ms (99 of 100), %d ms "
        "(all)\n",
        seed, made, server.Count(kClientConnected), tally.Right.load(), tally.Missing.load(),
        tally.Wrong.load(), latencies.At(0.5), latencies.At(0.99), latencies.At(1));
    EXPECT_EQ(tally.Wrong, 0);
    EXPECT_GT(tally.Right, connections / 10);
    EXPECT_LE(latencies.At(0.5), 300);
    EXPECT_LE(latencies.At(0.99), 2000);
}

} // namespace nrpc::tests
