// Clients that ask, connect, disconnect and go at random: of servers that start, stop and kick from
// several threads each, and through a wire that cuts, delays, holds back, floods, ends and resets.
// Every reply is right or missing, every end is told of once, and nothing is left behind.
// NRPC_JITTER_SEED and NRPC_STORM_ROUNDS, NRPC_CHAOS_SEED and NRPC_CHAOS_CONNECTIONS choose the run
// and its length.
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <deque>
#include <list>
#include <map>

#include "system/support.h"

namespace nrpc::tests {

namespace {

// --- clients ----------------------------------------------------------------------------------

struct Tally {
    std::atomic<int> Asked = 0;
    std::atomic<int> Right = 0;
};

// A place for a client object. One that was released lives, to be misused, until another takes its
// place and nobody is inside any more.
class StormyClient {
  public:
    StormyClient(int number, Tally &tally) : m_Name('c' + std::to_string(number)), m_Tally(tally) {
        Renew();
    }

    void Act(Dice &dice, int32_t port) {
        const std::shared_ptr<Client> client = Current();
        switch (dice.Roll(16)) {
        case 0:
            client->Release();
            Renew();
            break;
        case 1:
            client->ClientdisConnect();
            break;
        case 2:
        case 3:
            client->ClientConnect(port, kLoopback);
            break;
        case 4:
        case 5:
            client->ClientConnect(port, kLoopback, Listen(client, dice.Roll(40)));
            break;
        case 6:
            client->SendSynRequestText(NewRequest(dice), 0);
            break;
        default:
            m_Tally.Asked += client->SendAsynRequestText(NewRequest(dice));
            const std::string request = NewRequest(dice);
            // Now and then with enough time for a machine that has much else to do.
            const int32_t timeoutMs = dice.Roll(4) == 0 ? 3000 : 400;
            const TextReply reply = client->SendSynRequestText(request, timeoutMs);
            m_Tally.Asked += reply.Result >= 0;
            if (reply.Result == 1) {
                EXPECT_EQ(reply.Text, request);
                Take(reply.Text);
            }
        }
    }
    void Release() { Current()->Release(); }

  private:
    static std::string RequestOf(const std::string &head, size_t length) {
        return head + Pattern(length, static_cast<uint32_t>(length));
    }
    std::string NewRequest(Dice &dice) {
        const auto length = static_cast<size_t>(dice.Roll(3) * dice.Roll(10000));
        const std::lock_guard<std::mutex> guard(m_Lock);
        const std::string head = m_Name + '/' + std::to_string(++m_Number) + ';';
        m_Open[head] = length;
        return RequestOf(head, length);
    }
    // A reply to what this client has asked, and to nothing else, and once.
    void Take(const std::string &reply) {
        const std::lock_guard<std::mutex> guard(m_Lock);
        const auto asked = m_Open.extract(reply.substr(0, reply.find(';') + 1));
        const bool isRight = asked && reply == RequestOf(asked.key(), asked.mapped());
        EXPECT_TRUE(isRight) << reply.substr(0, 100);
        m_Tally.Right += isRight;
    }
    // After so many messages the handler ends its own connection or its object.
    Handler Listen(const std::weak_ptr<Client> &object, int patience) {
        auto left = std::make_shared<std::atomic<int>>(patience);
        auto ends = std::make_shared<std::atomic<int>>(0);
        return [this, object, left, ends](HostWord message) {
            const std::shared_ptr<Client> client = object.lock();
            ASSERT_TRUE(client) << "a message after the release";
            if (client->ClientGetMsgKind(message) == kConnectionClosed) {
                EXPECT_EQ(++*ends, 1);
            } else if (const auto text = client->GetResultText(message); text && text != "push") {
                Take(*text);
            }
            if (--*left == 0) {
                client->ClientdisConnect();
            } else if (*left == -1) {
                client->Release();
            }
        };
    }
    std::shared_ptr<Client> Current() {
        const std::lock_guard<std::mutex> guard(m_Lock);
        return m_Current;
    }
    void Renew() {
        auto fresh = std::make_shared<Client>(TheLibrary());
        const std::lock_guard<std::mutex> guard(m_Lock);
        std::swap(m_Current, fresh);
    }

    const std::string m_Name;
    Tally &m_Tally;
    std::mutex m_Lock; // guards all below
    int m_Number = 0;
    std::map<std::string, size_t> m_Open; // what was asked: head and length
    std::shared_ptr<Client> m_Current;
};

// --- servers ----------------------------------------------------------------------------------

// A server object that several threads start and stop. Each start has a book of its own.
class StormyServer {
  public:
    void Start(bool serial) {
        auto book = std::make_shared<Book>();
        const int32_t port = FreePort();
        const auto handler = [this, book](HostWord message) { Handle(message, *book); };
        if (m_Server.StartServer(port, handler, serial)) {
            m_Port = port;
            const std::lock_guard<std::mutex> guard(m_Lock);
            m_Books.push_back(book);
        }
    }
    void Stop() { m_Server.StopServer(); }
    void Annoy(Dice &dice) {
        for (const int32_t handle : m_Server.GetAllClient().value_or(std::vector<int32_t>())) {
            switch (dice.Roll(8)) {
            case 0:
                m_Server.Disconnect(handle);
                break;
            case 1:
                m_Server.SendText(handle, "push");
                break;
            default:
                m_Server.GetClientIPAddr(handle);
            }
        }
    }
    int32_t Port() const { return m_Port; }
    void ExpectSoundBooks() {
        EXPECT_FALSE(m_Books.empty());
        for (const auto &book : m_Books) {
            for (const auto &[handle, connected] : book->Connected) {
                EXPECT_GE(connected, 0);
            }
        }
    }

  private:
    struct Book {
        std::mutex Lock;
        std::map<int32_t, int> Connected; // by handle: connects without an end
    };
    void Handle(HostWord message, Book &book) {
        const int32_t kind = m_Server.GetMsgKind(message);
        const int32_t handle = m_Server.GetClientHandle(message).value_or(0);
        if (const auto request = m_Server.GetRequestBin(message); request && kind == kRequest) {
            m_Server.SendBinary(request->Code, request->Content);
        } else if (kind == kClientConnected || kind == kClientDisconnected) {
            const std::lock_guard<std::mutex> guard(book.Lock);
            book.Connected[handle] += kind == kClientConnected ? 1 : -1;
        }
    }

    std::mutex m_Lock;
    std::vector<std::shared_ptr<Book>> m_Books;
    std::atomic<int32_t> m_Port = 1;
    Server m_Server{TheLibrary()}; // ends first
};

// --- the wire ---------------------------------------------------------------------------------

enum Fate { kFaithful, kFlooded, kSliced, kDelayed, kHeld, kEnded, kReset, kFateCount };

// One direction of a connection. What happens to it happens behind a number of bytes, but for the
// flood, which comes first: behind part of a packet it would be content.
struct Flow {
    int From, To, Fate;
    size_t At;
    std::string Waiting = {};
    size_t Passed = 0;
    int64_t ReadyMs = 0;
};

// False: this connection is to be ended.
bool Step(Flow &flow, Dice &dice) {
    if (NowMs() < flow.ReadyMs) {
        return true;
    }
    if (flow.Waiting.empty()) {
        char bytes[16384];
        const ssize_t len = recv(flow.From, bytes, sizeof(bytes), MSG_DONTWAIT);
        if (len <= 0) {
            return len < 0 && errno == EAGAIN;
        }
        const bool floods = flow.Fate == kFlooded && flow.Passed == 0;
        flow.Waiting = (floods ? Pattern(100000) : "").append(bytes, static_cast<size_t>(len));
    }
    size_t most = flow.Waiting.size();
    if (flow.Passed < flow.At) {
        most = flow.At - flow.Passed;
    } else if (flow.Fate == kEnded || flow.Fate == kReset) {
        return false;
    } else if (flow.Fate == kHeld) {
        flow.ReadyMs = NowMs() + 700;
        flow.Fate = kFaithful;
    } else if (flow.Fate == kDelayed) {
        flow.ReadyMs = NowMs() + dice.Roll(30);
    } else if (flow.Fate == kSliced) {
        most = 1 + static_cast<size_t>(dice.Roll(flow.Passed < flow.At + 200 ? 20 : 4000));
    }
    const ssize_t sent = send(flow.To, flow.Waiting.data(), std::min(most, flow.Waiting.size()),
                              MSG_NOSIGNAL | MSG_DONTWAIT);
    flow.Passed += static_cast<size_t>(std::max<ssize_t>(sent, 0));
    flow.Waiting.erase(0, static_cast<size_t>(std::max<ssize_t>(sent, 0)));
    return true;
}

class Proxy {
  public:
    Proxy(int32_t server, uint32_t seed) : m_Server(server), m_Dice(seed) {}
    int32_t Port() const { return m_Listening.Port(); }
    int Connections() const { return m_Connections; }

  private:
    struct Link {
        Peer Client, Server;
        Flow There, Back;
    };

    void Run(const std::stop_token &stop) {
        while (!stop.stop_requested()) {
            pollfd coming = {m_Listening.Descriptor(), POLLIN, 0};
            if (poll(&coming, 1, m_Links.empty() ? 10 : 1) > 0) {
                Accept();
            }
            m_Links.remove_if([this](Link &link) {
                const bool goesOn = Step(link.There, m_Dice) && Step(link.Back, m_Dice);
                if (!goesOn && (link.There.Fate == kReset || link.Back.Fate == kReset)) {
                    link.Server.Reset();
                    link.Client.Reset();
                }
                return !goesOn;
            });
        }
    }
    void Accept() {
        Peer client = m_Listening.Accept();
        Peer server(m_Server);
        const auto flow = [this](const Peer &from, const Peer &to) {
            const auto at = static_cast<size_t>(m_Dice.Roll(3) * m_Dice.Roll(9000));
            return Flow{from.Descriptor(), to.Descriptor(), m_Dice.Roll(kFateCount), at};
        };
        const Flow flows[] = {flow(client, server), flow(server, client)};
        m_Links.push_back({std::move(client), std::move(server), flows[0], flows[1]});
        ++m_Connections;
    }

    const int32_t m_Server;
    Dice m_Dice;
    Listener m_Listening;
    std::list<Link> m_Links;
    std::atomic<int> m_Connections = 0;
    std::jthread m_Thread{[this](const std::stop_token &stop) { Run(stop); }}; // ends first
};

// --- who else is there ------------------------------------------------------------------------

void Misbehave(int32_t port, Dice dice, const std::stop_token &stop) {
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

void AskHonestly(int32_t port, std::vector<int64_t> &waits, const std::stop_token &stop) {
    for (Peer peer(port); !stop.stop_requested(); usleep(50000)) {
        const auto ask = [&] { EXPECT_EQ(peer.Ask("0011", "honest"), "honest"); };
        waits.push_back(MillisecondsOf(ask));
    }
    std::sort(waits.begin(), waits.end());
}

using Storm = SystemTest;
using Chaos = SystemTest;

} // namespace

TEST_F(Storm, NothingIsMixedUpLostTwiceOrLeftBehind) {
    const uint32_t seed = FromEnvironment("NRPC_JITTER_SEED", 1);
    const uint32_t rounds = FromEnvironment("NRPC_STORM_ROUNDS", 2);
    SCOPED_TRACE("NRPC_JITTER_SEED=" + std::to_string(seed));
    Tally tally;
    StormyServer servers[2];
    std::deque<StormyClient> clients;
    for (int number = 0; number < 4; ++number) {
        clients.emplace_back(number, tally);
    }
    std::vector<std::jthread> actors;
    for (uint32_t number = 0; number < 6; ++number) {
        actors.emplace_back([&, number](const std::stop_token &stop) {
            Dice dice(seed * 100 + number);
            while (!stop.stop_requested()) {
                clients[number % 4].Act(dice, servers[dice.Roll(2)].Port());
            }
        });
    }
    std::vector<std::jthread> owners;
    for (uint32_t number = 0; number < 4; ++number) { // two for each server
        owners.emplace_back([&, number] {
            Dice dice(seed * 100 + 50 + number);
            StormyServer &server = servers[number / 2];
            // On a machine with much else to do it takes more rounds until somebody is answered.
            for (uint32_t round = 0; round < rounds || (tally.Right == 0 && round < 20); ++round) {
                server.Start(dice.Roll(2) == 0);
                for (int turn = dice.Roll(40); turn >= 0; --turn) {
                    dice.Pause(100);
                    server.Annoy(dice);
                }
                server.Stop();
            }
        });
    }
    owners.clear();
    actors.clear();
    for (StormyServer &server : servers) {
        server.ExpectSoundBooks();
    }
    for (StormyClient &client : clients) {
        client.Release();
    }
    EXPECT_GT(tally.Right, 0);
    printf("%d of %d requests answered\n", tally.Right.load(), tally.Asked.load());
}

TEST_F(Chaos, EveryReplyIsRightOrMissingAndNobodyIsForgotten) {
    constexpr uint32_t kClients = 20;
    const uint32_t seed = FromEnvironment("NRPC_CHAOS_SEED", 1);
    const auto connections = static_cast<int>(FromEnvironment("NRPC_CHAOS_CONNECTIONS", 100));
    SCOPED_TRACE("NRPC_CHAOS_SEED=" + std::to_string(seed));
    Tally tally;
    std::vector<int64_t> waits; // of an honest client
    EchoServer server;
    {
        Proxy proxy(server.Port(), seed);
        std::vector<std::jthread> others;
        others.emplace_back(
            [&](const std::stop_token &stop) { AskHonestly(server.Port(), waits, stop); });
        for (uint32_t number = 0; number < 2; ++number) {
            others.emplace_back([&, number](const std::stop_token &stop) {
                Misbehave(server.Port(), Dice(seed * 100 + 50 + number), stop);
            });
        }
        std::vector<std::jthread> clients;
        for (uint32_t number = 0; number < kClients; ++number) {
            clients.emplace_back([&, number] {
                Dice dice(seed * 100 + number);
                StormyClient client(static_cast<int>(number), tally);
                while (proxy.Connections() < connections) {
                    client.Act(dice, proxy.Port());
                    dice.Pause(100);
                }
                client.Release();
            });
        }
    }
    EXPECT_TRUE(Until([&] { return server->GetClientCount() == 0; }));
    const auto count = [&](int32_t kind) { return server.Count(kind); };
    EXPECT_TRUE(Until([&] { return count(kClientConnected) == count(kClientDisconnected); }));
    const auto wait = [&](size_t percent) { return waits[(waits.size() - 1) * percent / 100]; };
    printf("seed %u: %zu connections, %d through the proxy; %d of %d requests answered; an honest "
           "client waited %d ms (half below), %d ms (99 of 100), %d ms (all)\n",
           seed, count(kClientConnected), connections, tally.Right.load(), tally.Asked.load(),
           static_cast<int>(wait(50)), static_cast<int>(wait(99)), static_cast<int>(wait(100)));
    EXPECT_GT(tally.Right, connections / 10);
    EXPECT_LE(wait(50), 300);
    EXPECT_LE(wait(99), 2000);
}

} // namespace nrpc::tests
