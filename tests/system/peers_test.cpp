// Raw peers of one server: what they send is served, thrown away, or ends their connection. All the
// while an honest client is served, and the end of each connection is told of once.

#include <deque>

#include "system/support.h"

using namespace nrpc;
using namespace nrpc::tests;

namespace {

constexpr int32_t kMiB = 1 << 20;

class Peers : public SystemTest {
  protected:
    void TearDown() override {
        m_Honest = {}; // asks it to end and waits
        EXPECT_TRUE(Until([&] { return m_Server->Count(kClientDisconnected) == m_Connected; }));
        EXPECT_EQ((*m_Server)->GetClientCount(), 0);
        EXPECT_TRUE(Until([&] { return TakeCensus().Descriptors <= m_Descriptors; }));
        m_Server.reset();
        SystemTest::TearDown();
    }
    Peer Connect() { // never more at once than the listening socket's backlog holds
        EXPECT_TRUE(Until([&] { return m_Connected < m_Server->Count(kClientConnected) + 8; }));
        ++m_Connected;
        return Peer(m_Server->Port());
    }
    size_t CountRequests(std::string_view text) { return m_Server->Count(kRequest, text); }

    std::atomic<int> m_Served = 0;
    std::atomic<bool> m_LetGo = false;
    std::optional<EchoServer> m_Server{
        std::in_place, false, [this](Server &server, const Event &event) {
            return event.Text == "hold" && Until([this] { return m_LetGo.load(); }) &&
                   server.SendText(event.Code, "late") && server.SendText(event.Handle, "push");
        }};
    const int m_Descriptors = TakeCensus().Descriptors;
    size_t m_Connected = 1;
    std::jthread m_Honest{[this](const std::stop_token &stop) {
        Client client(TheLibrary());
        EXPECT_TRUE(client.ClientConnect(m_Server->Port(), kLoopback));
        for (; !stop.stop_requested(); ++m_Served) {
            EXPECT_EQ(client.SendSynRequestText("honest", kPatienceMs).Text, "honest");
        }
    }};
};

} // namespace

TEST_F(Peers, SilentAndStalledOnesHoldNobodyUp) {
    const Arrived whole = {"0011", Pattern(20000)};
    const std::string wire = Message(whole.Id, whole.Payload);
    const size_t stalls[] = {0, 10, 20, 12000};
    std::deque<Peer> peers;
    for (size_t i = 0; i < 80; ++i) {
        peers.emplace_back(Connect()).Send(wire.substr(0, stalls[i % 4]));
    }
    Peer announcer = Connect();
    announcer.Send(Head("0011", 256 * kMiB, 0, kMiB));
    const int served = m_Served;
    EXPECT_TRUE(Until([&] { return m_Served >= served + 5; }));
    for (size_t i = 0; i < peers.size(); ++i) {
        peers[i].Send(wire.substr(stalls[i % 4]));
        EXPECT_EQ(peers[i].Receive(), whole);
    }
}

TEST_F(Peers, GarbageIsThrownAwayButEndsAConnectionBehindAPacket) {
    std::vector<std::string> garbage = {"GET / HTTP/1.1\r\nHost: localhost\r\n\r\n",
                                        "<Msg0000>0</Msg0000>", Pattern(65536),
                                        "nMSG" + Message("0011", "evil")};
    for (const auto &[totalLen, chunkLen] :
         {std::pair(-1, 24), {256 * kMiB + 1, 24}, {24, -20}, {24, 0}, {kMiB + 1, kMiB + 1}}) {
        garbage.push_back(Head("0011", totalLen, 0, chunkLen) + Record("0011", "evil"));
    }
    for (const std::string &bytes : garbage) {
        Peer first = Connect();
        first.Send(bytes);
        EXPECT_TRUE(Until([&] { return first.Ask("0012", "good", 0.5) == "good"; })) << bytes;
        Peer behind = Connect();
        behind.Send(Message("0011", "before") + bytes);
        EXPECT_TRUE(behind.ReadToEnd()) << bytes;
    }
    EXPECT_TRUE(Until([&] { return CountRequests("before") == garbage.size(); }));
    EXPECT_EQ(CountRequests("evil"), 0U);
}

TEST_F(Peers, AConnectionThatEndsAnywhereIsToldOfOnce) {
    for (const std::string &wire : {Message("0011", "evil"), Message("0011", Pattern(20000))}) {
        for (size_t cut = 0; cut < wire.size(); cut += wire.size() < 100 ? 3U : 1571U) {
            Connect().Send(wire.substr(0, cut));
            Peer peer = Connect();
            peer.Send(wire.substr(0, cut));
            peer.Reset();
        }
    }
    EXPECT_EQ(CountRequests(""), CountRequests("honest")) << "none of them asked";
    Peer reader = Connect();
    reader.Send(Message("0011", Pattern(4 * kMiB)));
    EXPECT_EQ(reader.Read(20).size(), 20U);
    reader.Reset(); // in the middle of the reply
}

TEST_F(Peers, ReservedIdsAreRequestsAndBadRecordsNothing) {
    Peer peer = Connect();
    for (const char *content :
         {"<Msg%s%n>4</Msg%s%n>mean", "<Msg0011>4294967300</Msg0011>evil",
          "<Msg0011>4</Msg0011>fine<Msg0013>4</Msg0013>fine<Msg0014>5</Msg0014>evil"}) {
        peer.Send(Framed("0011", content));
        EXPECT_EQ(peer.Ask("0012", "good"), "good") << content;
    }
    for (const char *id : {"0000", "0002", "0003", "0004", "0005", "0006", "0009"}) {
        EXPECT_EQ(peer.Ask(id, id), id);
    }
    EXPECT_TRUE(Until([&] { return CountRequests("fine") == 2; }));
    EXPECT_EQ(CountRequests("evil"), 0U);
}

TEST_F(Peers, AnAbandonedRequestGetsNoReplyButPushesArrive) {
    Peer peer = Connect();
    peer.Send(Message("0011", "hold"));
    EXPECT_TRUE(Until([&] { return CountRequests("hold") == 1; }));
    peer.Send(Message("0001", "") + Message("0001", Pattern(5000)) + Message("0001", "0011"));
    for (int i = 0; i < 5; ++i) { // the cancel may be slower than the first of them
        EXPECT_TRUE(Until([&] { return peer.Ask("0012", "good", 5) == "good"; }));
    }
    m_LetGo = true;
    EXPECT_EQ(peer.Receive(), (Arrived{"0006", "push"}));
    peer.Send(Message("0013", "good"));
    EXPECT_EQ(peer.Receive(), (Arrived{"0013", "good"}));
    EXPECT_EQ(CountRequests("0011"), 0U) << "a cancel is no request";
}
