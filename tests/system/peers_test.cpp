// Raw peers of one server: what they send is served, thrown away, or ends their connection. All the
// while an honest client is served, and the end of each connection is told of once.
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <ctime>
#include <deque>

#include "system/support.h"

using namespace nrpc;
using namespace nrpc::tests;
using namespace std::string_literals;

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
                                        "\x16\x03\x01\x02\0\x01\0\x01\xfc"s + Pattern(60),
                                        "<Msg0000>0</Msg0000>",
                                        std::string(20, 0),
                                        Pattern(65536),
                                        "nMSG" + Message("0011", "evil")};
    for (const auto &[totalLen, chunkLen] : {std::pair(-1, 24),
                                             {INT32_MIN, 24},
                                             {256 * kMiB + 1, 24},
                                             {INT32_MAX, 24},
                                             {24, -1},
                                             {24, -20},
                                             {24, INT32_MIN},
                                             {24, 0},
                                             {kMiB + 1, kMiB + 1},
                                             {INT32_MAX, INT32_MAX - 20}}) {
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

TEST_F(Peers, LengthsAndIndexesDecideWhatIsAMessage) {
    Peer peer = Connect();
    for (const size_t size :
         {1U, 100U, 8191U, 8192U, 8193U, 1U << 20}) { // of a lone packet's chunk
        const std::string payload =
            Pattern(size - std::min(size - 1, 19 + std::to_string(size).size()));
        peer.Send(Message("0011", payload, size));
        EXPECT_EQ(peer.Receive(), (Arrived{"0011", payload})) << size;
    }
    const std::string evil = Record("0011", "evil");
    const std::string front = evil.substr(0, 9);
    const std::string back = evil.substr(9);
    std::vector<std::string> streams = {
        Packet("0011", 0, 0, ""), Packet("0011", 24, 0, front) + Packet("0012", 24, 0, front) +
                                      Packet("0011", 24, 1, back) + Packet("0012", 24, 1, back)};
    for (const int32_t totalLen : {0, 1, 23, 25, 256 * kMiB}) {
        streams.push_back(Packet("0011", totalLen, 0, evil));
    }
    for (const auto &[first, second, text] : {std::tuple(0, 1, "fine"),
                                              {7, 8, "fine"},
                                              {0, 2, "evil"},
                                              {0, 0, "evil"},
                                              {1, 0, "evil"},
                                              {INT32_MAX, INT32_MIN, "wrap"}}) {
        const std::string record = Record("0011", text);
        streams.push_back(Packet("0011", 24, first, record.substr(0, 9)) +
                          Packet("0011", 24, second, record.substr(9)));
    }
    for (const std::string &stream : streams) {
        peer.Send(stream);
        EXPECT_EQ(peer.Ask("0013", "good"), "good") << stream;
    }
    EXPECT_TRUE(Until([&] { return CountRequests("fine") == 2; }));
    EXPECT_EQ(CountRequests("evil"), 0U);
}

TEST_F(Peers, ARequestArrivesHoweverItIsCut) {
    Peer peer = Connect();
    const Arrived whole = {"0011", Pattern(20000)};
    const std::string wire = Message(whole.Id, whole.Payload);
    const auto isNearHead = [](size_t at) { return at % 8212 < 21 || at % 8212 > 8200; };
    for (size_t cut = 1; cut < wire.size(); cut += isNearHead(cut) ? 1U : 390U) {
        peer.Send(wire.substr(0, cut));
        usleep(1000); // mostly enough to be read on its own
        peer.Send(wire.substr(cut));
        ASSERT_EQ(peer.Receive(), whole) << cut;
    }
    for (const char &byte : wire) {
        peer.Send({&byte, 1});
    }
    EXPECT_EQ(peer.Receive(), whole);
    const std::string second = Message("0012", "second");
    for (const size_t cut : {second.size(), size_t{1}, size_t{25}}) {
        peer.Send(Message("0011", "second") + second.substr(0, cut));
        peer.Send(second.substr(cut));
        const Arrived replies[] = {peer.Receive().value_or(Arrived()),
                                   peer.Receive().value_or(Arrived())};
        EXPECT_EQ(replies[0].Payload + replies[1].Payload, "secondsecond");
        EXPECT_NE(replies[0].Id, replies[1].Id);
    }
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

TEST_F(Peers, TagsAreReadByTheRuleOrNotAtAll) {
    std::vector<std::string> contents = {"<Msg0011></Msg0011>",
                                         "<Msg0011>4</Msg0011evil",
                                         "<msg0011>4</msg0011>evil",
                                         "Msg00011>4</Msg0011>evil",
                                         "<Msg%s%n>4</Msg%s%n>mean",
                                         "%s%n%s%n%s%n%s%n%s%n%s%n",
                                         Record("0011", "fine") + Record("0013", "fine") +
                                             "<Msg0014>5</Msg0014>evil"};
    for (const char *count : {"+4", "-4", " 4", "4x", "5", "0", "", "2147483647", "4294967300",
                              "18446744073709551620", "99999999999999999999"}) {
        contents.push_back("<Msg0011>"s + count + "</Msg0011>evil");
    }
    contents.push_back("<Msg0011>00004</Msg0011>fine");
    Peer peer = Connect();
    for (const std::string &content : contents) {
        peer.Send(Framed("0011", content));
        EXPECT_EQ(peer.Ask("0012", "good"), "good") << content;
    }
    for (const char *id : {"0000", "0002", "0003", "0004", "0005", "0006", "0009"}) {
        EXPECT_EQ(peer.Ask(id, id), id) << "reserved, but a request";
    }
    EXPECT_TRUE(Until([&] { return CountRequests("fine") == 3; }));
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

TEST_F(Peers, RepliesAreFramedToTheByte) {
    const std::string record = "<Msg0012>20000</Msg0012>" + Pattern(20000);
    const std::string large = "NMSG0012\x38\x4e\0\0\0\0\0\0\0\x20\0\0"s + record.substr(0, 8192) +
                              "NMSG0012\x38\x4e\0\0\x01\0\0\0\0\x20\0\0"s +
                              record.substr(8192, 8192) +
                              "NMSG0012\x38\x4e\0\0\x02\0\0\0\x38\x0e\0\0"s + record.substr(16384);
    Peer peer = Connect();
    for (const std::string &wire :
         {"NMSG0011\x19\0\0\0\0\0\0\0\x19\0\0\0<Msg0011>5</Msg0011>hello"s, large}) {
        peer.Send(wire);
        EXPECT_EQ(peer.Read(wire.size()), wire);
    }
}

TEST_F(Peers, AcceptingWaitsQuietlyForDescriptors) {
    EXPECT_TRUE(Until([&] { return m_Served > 3; })); // a wait in accept has its descriptor
    const int late = socket(AF_INET, SOCK_STREAM, 0);
    const int free = dup(late);
    close(free);
    rlimit before = {};
    getrlimit(RLIMIT_NOFILE, &before);
    const rlimit one = {static_cast<rlim_t>(free) + 1, before.rlim_max};
    EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &one), 0);
    Peer peer = Connect(); // takes the last
    EXPECT_EQ(peer.Ask("0011", "fine"), "fine");
    sockaddr_in address = {AF_INET, htons(static_cast<uint16_t>(m_Server->Port())), {}, {}};
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(connect(late, reinterpret_cast<sockaddr *>(&address), sizeof(address)), 0);
    ++m_Connected;
    const clock_t begin = clock();
    usleep(500 * 1000);
    EXPECT_LT(clock() - begin, CLOCKS_PER_SEC / 4);
    EXPECT_EQ(m_Server->Count(kClientConnected), 2U);
    EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
    EXPECT_TRUE(Until([&] { return m_Server->Count(kClientConnected) == 3; }));
    close(late);
}
