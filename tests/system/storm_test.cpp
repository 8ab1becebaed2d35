// Servers start, stop and kick, clients connect, ask, disconnect and go, all at random and from
// several threads each. Whatever happens, replies are right or missing, ends are told of once, and
// nothing is left. NRPC_JITTER_SEED chooses the run, NRPC_STORM_ROUNDS its length.
#include <deque>
#include <map>

#include "system/support.h"

namespace nrpc::tests {

namespace {

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
        for (const auto &book : m_Books) {
            for (const auto &[handle, count] : book->Ends) {
                EXPECT_LE(count, book->Connects[handle]);
            }
        }
    }
    size_t StartCount() const { return m_Books.size(); }

  private:
    struct Book {
        std::mutex Lock;
        std::map<int32_t, int> Connects, Ends;
    };
    void Handle(HostWord message, Book &book) {
        const int32_t kind = m_Server.GetMsgKind(message);
        const int32_t handle = m_Server.GetClientHandle(message).value_or(0);
        if (const auto request = m_Server.GetRequestBin(message); request && kind == kRequest) {
            m_Server.SendBinary(request->Code, request->Content);
        } else if (kind == kClientConnected || kind == kClientDisconnected) {
            const std::lock_guard<std::mutex> guard(book.Lock);
            ++(kind == kClientConnected ? book.Connects : book.Ends)[handle];
        }
    }

    std::mutex m_Lock;
    std::vector<std::shared_ptr<Book>> m_Books;
    std::atomic<int32_t> m_Port = 1;
    Server m_Server{TheLibrary()}; // ends first
};

// A place for a client object. One that was released stays there to be misused until the end.
class StormyClient {
  public:
    explicit StormyClient(int number) : m_Name('c' + std::to_string(number)) { Renew(); }

    void Act(Dice &dice, int32_t port, std::atomic<int> &answered) {
        Client &client = Current();
        const std::string text = m_Name + Pattern(static_cast<size_t>(dice.Roll(20000)));
        switch (dice.Roll(16)) {
        case 0:
            client.Release();
            Renew();
            break;
        case 1:
            client.ClientdisConnect();
            break;
        case 2:
        case 3:
            client.ClientConnect(port, kLoopback);
            break;
        case 4:
        case 5:
            client.ClientConnect(port, kLoopback, Listen(client, dice.Roll(40), answered));
            break;
        case 6:
            client.SendSynRequestText(text, 0);
            break;
        default:
            client.SendAsynRequestText(text);
            // Now and then with enough time for a machine that has much else to do.
            if (const auto reply = client.SendSynRequestText(text, dice.Roll(2) == 0 ? 300 : 3000);
                reply.Result == 1) {
                EXPECT_EQ(reply.Text, text);
                ++answered;
            }
        }
    }
    void ReleaseAll() {
        for (Client &client : m_All) {
            client.Release();
        }
    }

  private:
    // After so many messages the handler ends its own connection or its object.
    Handler Listen(Client &client, int patience, std::atomic<int> &answered) {
        auto left = std::make_shared<std::atomic<int>>(patience);
        auto ends = std::make_shared<std::atomic<int>>(0);
        return [this, &client, &answered, left, ends](HostWord message) {
            if (client.ClientGetMsgKind(message) == kConnectionClosed) {
                EXPECT_EQ(++*ends, 1);
            } else if (const auto text = client.GetResultText(message)) {
                EXPECT_TRUE(text == "push" || text->starts_with(m_Name)) << *text;
                answered += text == "push" ? 0 : 1;
            }
            if (--*left == 0) {
                client.ClientdisConnect();
            } else if (*left == -1) {
                client.Release();
            }
        };
    }
    Client &Current() {
        const std::lock_guard<std::mutex> guard(m_Lock);
        return m_All.back();
    }
    void Renew() {
        const std::lock_guard<std::mutex> guard(m_Lock);
        m_All.emplace_back(TheLibrary());
    }

    const std::string m_Name;
    std::mutex m_Lock;
    std::deque<Client> m_All; // under m_Lock; an element stays where it is
};

class Storm : public SystemTest {};

} // namespace

TEST_F(Storm, NothingIsMixedUpLostTwiceOrLeftBehind) {
    const uint32_t seed = FromEnvironment("NRPC_JITTER_SEED", 1);
    const uint32_t rounds = FromEnvironment("NRPC_STORM_ROUNDS", 2);
    SCOPED_TRACE("NRPC_JITTER_SEED=" + std::to_string(seed));
    std::atomic<int> answered = 0;
    StormyServer servers[2];
    std::deque<StormyClient> clients;
    for (int number = 0; number < 4; ++number) {
        clients.emplace_back(number);
    }
    std::vector<std::jthread> actors;
    for (uint32_t number = 0; number < 6; ++number) {
        actors.emplace_back([&, number](const std::stop_token &stop) {
            Dice dice(seed * 100 + number);
            while (!stop.stop_requested()) {
                clients[number % 4].Act(dice, servers[dice.Roll(2)].Port(), answered);
            }
        });
    }
    std::vector<std::jthread> owners;
    for (uint32_t number = 0; number < 4; ++number) { // two for each server
        owners.emplace_back([&, number] {
            Dice dice(seed * 100 + 50 + number);
            StormyServer &server = servers[number / 2];
            // On a machine with much else to do it takes more rounds until somebody is answered.
            for (uint32_t round = 0; round < rounds || (answered == 0 && round < 20); ++round) {
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
        EXPECT_GT(server.StartCount(), 0U);
        server.ExpectSoundBooks();
    }
    for (StormyClient &client : clients) {
        client.ReleaseAll();
    }
    EXPECT_GT(answered, 0);
    RecordProperty("answered", answered);
}

} // namespace nrpc::tests
