// Peers that send more than anybody takes, mostly to clients: memory stays within its mark, TCP
// slows the peer, and what is asked next is answered.
#include <unistd.h>

#include <algorithm>
#include <deque>

#include "system/support.h"

namespace nrpc::tests {

namespace {

constexpr size_t kMiB = 1 << 20;
constexpr size_t kMark = 64 * kMiB; // what a client takes in advance

class Flood : public SystemTest {
  protected:
    void TearDown() override {
        m_Client.Release();
        m_Listener.Close();
        SystemTest::TearDown();
    }
    void Measure() { m_Before = TakeCensus().HeapBytes; }
    // What the heap has grown by since then.
    size_t Grown() const { return std::max(TakeCensus().HeapBytes, m_Before) - m_Before; }

    Listener m_Listener;
    Client m_Client{TheLibrary()};

  private:
    size_t m_Before = 0;
};

std::string Repeated(size_t count, const std::function<std::string(int32_t number)> &piece) {
    std::string all;
    for (size_t i = 0; i < count; ++i) {
        all += piece(static_cast<int32_t>(i));
    }
    return all;
}

} // namespace

TEST_F(Flood, StopsAtTheMarkOfASynchronousClientAndTheNextRequestIsAnswered) {
    EXPECT_TRUE(m_Client.ClientConnect(m_Listener.Port(), kLoopback));
    Peer peer = m_Listener.Accept();
    const std::string pushes =
        Repeated(1024, [](int32_t) { return Message("0005", Pattern(980)); });
    Measure();
    std::atomic<size_t> sent = 0;
    std::jthread flooding([&] {
        for (; sent < 2 * kMark && peer.Send(pushes); sent += pushes.size()) {
        }
    });
    EXPECT_TRUE(Until([&] { // it is held up
        const size_t before = sent;
        sleep(1);
        return before > 0 && sent == before;
    }));
    EXPECT_GT(Grown(), kMark / 2);
    EXPECT_LT(Grown(), kMark + kMark / 2);
    EXPECT_LT(sent, 2 * kMark);
    // It finds its reply behind all of the flood.
    auto asked = std::async(std::launch::async,
                            [&] { return m_Client.SendSynRequestText("x", 3 * kPatienceMs); });
    flooding.join();
    EXPECT_EQ(peer.Receive(), (Arrived{"0011", "x"}));
    peer.Send(Message("0011", "fine"));
    EXPECT_EQ(asked.get().Text, "fine");
    EXPECT_LT(Grown(), kMark + kMark / 2);
}

TEST_F(Flood, IsHeldUpByASlowHandler) {
    std::atomic<int> handled = 0;
    EXPECT_TRUE(m_Client.ClientConnect(m_Listener.Port(), kLoopback, [&](HostWord) {
        usleep(10000);
        ++handled;
    }));
    Peer peer = m_Listener.Accept();
    const std::string pushes =
        Repeated(64, [](int32_t) { return Message("0005", Pattern(16000)); });
    Measure();
    std::atomic<bool> all = false;
    std::jthread flooding([&] {
        for (size_t sent = 0; sent < 2 * kMark && peer.Send(pushes); sent += pushes.size()) {
        }
        all = true;
    });
    EXPECT_TRUE(Until([&] { return Grown() > kMark; }));
    sleep(2);
    EXPECT_LT(Grown(), kMark + kMark / 4);
    EXPECT_FALSE(all);
    EXPECT_GT(handled, 10);
    EXPECT_LT(MillisecondsOf([&] { m_Client.ClientdisConnect(); }), 5000);
    flooding.join();
    EXPECT_LT(Grown(), kMiB);
}

// Each byte that arrives is allowed a few of the heap, however it is wrapped.
TEST_F(Flood, OfPiecesCostsLittleMoreThanTheirBytes) {
    EchoServer server;
    for (const auto &[name, most, wire] :
         {std::tuple("much announced", 8,
                     Packet("0011", 256 * kMiB, 0, Pattern(1000)) +
                         Head("0011", 256 * kMiB, 1, kMiB)),
          {"grains", 3,
           Repeated(20000, [](int32_t i) { return Packet("0011", 256 * kMiB, i, "x"); })},
          {"empty chunks", 1, Repeated(20000, [](int32_t i) { return Head("0011", 100, i, 0); })},
          {"begun anew for ever", 1, Repeated(20000, [](int32_t i) {
               return Packet(i % 2 == 0 ? "0011" : "0012", kMiB, 0, "x");
           })}}) {
        const auto sendFrom = [&, most = size_t(most), &name = name,
                               &wire = wire](std::deque<Peer> &peers) {
            Measure();
            for (Peer &peer : peers) {
                peer.Send(wire);
            }
            sleep(1);
            EXPECT_LE(Grown(), peers.size() * wire.size() * most) << name;
        };
        std::deque<Peer> peers;
        while (peers.size() < 8) {
            peers.emplace_back(server.Port());
        }
        EXPECT_TRUE(Until([&] { return server->GetClientCount() == 8; }));
        sendFrom(peers);
        EXPECT_EQ(Peer(server.Port()).Ask("0011", "good"), "good") << name;
        for (const bool synchronous : {true, false}) {
            Client client(TheLibrary());
            std::atomic<int> messages = 0;
            EXPECT_TRUE(synchronous ? client.ClientConnect(m_Listener.Port(), kLoopback)
                                    : client.ClientConnect(m_Listener.Port(), kLoopback,
                                                           [&](HostWord) { ++messages; }));
            peers.clear();
            peers.push_back(m_Listener.Accept());
            sendFrom(peers);
            EXPECT_LE(messages, 1) << name; // the end, where such bytes end the connection
        }
        EXPECT_TRUE(Until([&] { return server->GetClientCount() == 0; })) << name;
    }
}

TEST_F(Flood, OfRecordsInOneMessageIsHandedOnWhole) {
    const auto records = static_cast<size_t>(Scaled(200000));
    const std::string message =
        Framed("0011", Repeated(records, [](int32_t) { return Record("0011", "x"); }));
    std::atomic<size_t> handled = 0;
    EXPECT_TRUE(m_Client.ClientConnect(m_Listener.Port(), kLoopback, [&](HostWord) { ++handled; }));
    {
        Peer peer = m_Listener.Accept();
        peer.Send(message);
        EXPECT_TRUE(Until([&] { return handled == records; }, 3 * kPatience)) << handled;
    }
    EXPECT_TRUE(Until([&] { return handled == records + 1; })) << "the end";

    handled = 0;
    Server server(TheLibrary());
    const int32_t port = FreePort();
    EXPECT_TRUE(server.StartServer(port, [&](HostWord) { ++handled; }));
    {
        Peer peer(port);
        Measure();
        peer.Send(message);
        EXPECT_TRUE(Until([&] { return handled == records + 1; }, 3 * kPatience)) << handled;
        EXPECT_TRUE(Until([&] { return Grown() < kMiB; }));
    }
    EXPECT_TRUE(Until([&] { return handled == records + 2; }));
}

} // namespace nrpc::tests
