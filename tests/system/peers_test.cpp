// Raw peers of one server: what they send is served, thrown away, or ends their connection. All the
// while an honest client is served, and every connection is told of twice: when it comes and when
// it goes.
#include <map>

#include "system/support.h"

using namespace nrpc;
using namespace nrpc::tests;
using namespace std::string_literals;

namespace {

constexpr int32_t kMiB = 1 << 20;

class Peers : public SystemTest {
  protected:
    void SetUp() override {
        m_Server.emplace(false, [this](Server &server, const Event &event) {
            return event.Text == "hold" && Until([this] { return m_LetGo.load(); }) &&
                   server.SendText(event.Code, "late") && server.SendText(event.Handle, "push");
        });
        m_Honest = std::jthread([this](const std::stop_token &stop) {
            Client client(TheLibrary());
            EXPECT_TRUE(client.ClientConnect(m_Server->Port(), kLoopback));
            for (; !stop.stop_requested(); ++m_Served) {
                ASSERT_EQ(client.SendSynRequestText("honest", kPatienceMs).Text, "honest");
            }
        });
    }
    void TearDown() override {
        m_Honest = {}; // asks it to end and waits
        EXPECT_TRUE(Until([&] { return Count(kClientDisconnected) == m_Connected; }));
        EXPECT_EQ((*m_Server)->GetClientCount(), 0);
        std::map<int32_t, int> ends;
        for (const Event &event : m_Server->Book()) {
            ends[event.Handle] += event.Kind == kClientDisconnected;
        }
        for (const auto &[handle, count] : ends) {
            EXPECT_EQ(count, 1) << handle;
        }
        m_Server.reset();
        SystemTest::TearDown();
    }
    Peer Connect() {
        // More at once than the listening socket's backlog would wait for each other.
        EXPECT_TRUE(Until([&] { return m_Connected < Count(kClientConnected) + 8; }));
        ++m_Connected;
        return Peer(m_Server->Port());
    }
    size_t Count(int32_t kind, std::string_view text = {}) { return m_Server->Count(kind, text); }

    std::optional<EchoServer> m_Server;
    size_t m_Connected = 1;
    std::atomic<int> m_Served = 0;
    std::atomic<bool> m_LetGo = false;
    std::jthread m_Honest;
};

} // namespace

TEST_F(Peers, SilentAndStalledOnesHoldNobodyUp) {
    const Arrived whole = {"0011", Pattern(20000)};
    const std::string wire = Message(whole.Id, whole.Payload);
    const size_t stalls[] = {0, 10, 20, 12000};
    std::vector<Peer> peers;
    for (size_t i = 0; i < 80; ++i) {
        peers.push_back(Connect());
        peers.back().Send(wire.substr(0, stalls[i % 4]));
    }
    for (int i = 0; i < 5; ++i) {
        Connect().Send(Head("0011", 256 * kMiB, 0, kMiB));
    }
    const int served = m_Served;
    EXPECT_TRUE(Until([&] { return m_Served >= served + 5; }));
    for (size_t i = 0; i < peers.size(); ++i) {
        peers[i].Send(wire.substr(stalls[i % 4]));
    }
    for (Peer &peer : peers) {
        EXPECT_EQ(peer.Receive(), whole);
    }
}

TEST_F(Peers, GarbageIsThrownAwayButEndsAConnectionBehindAPacket) {
    std::vector<std::string> garbage = {"GET / HTTP/1.1\r\nHost: localhost\r\n\r\n",
                                        "\x16\x03\x01\x02\0\x01\0\x01\xfc\x03\x03"s + Pattern(60),
                                        "<Msg0000>0</Msg0000>",
                                        std::string(20, 0),
                                        Pattern(65536),
                                        "nMSG" + Message("0011", "evil").substr(4)};
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
    EXPECT_TRUE(Until([&] { return Count(kRequest, "before") == garbage.size(); }));
    EXPECT_EQ(Count(kRequest, "evil"), 0U);
}

TEST_F(Peers, LengthsAndIndexesDecideWhatIsAMessage) {
    Peer peer = Connect();
    for (const size_t chunkLen : {1U, 25U, 8191U, 8192U, 8193U, 1U << 20}) {
        const std::string payload =
            Pattern(chunkLen < 100 ? 100 : chunkLen - 19 - std::to_string(chunkLen).size());
        peer.Send(Message("0011", payload, chunkLen));
        EXPECT_EQ(peer.Receive(), (Arrived{"0011", payload})) << chunkLen;
    }
    std::vector<std::string> streams = {Packet("0011", 0, 0, "")};
    const std::string evil = Record("0011", "evil");
    for (const int32_t totalLen : {0, 1, 23, 25, 256 * kMiB}) {
        streams.push_back(Packet("0011", totalLen, 0, evil));
    }
    for (const auto &[first, second, text] : {std::tuple(0, 1, "whole"),
                                              {7, 8, "whole"},
                                              {0, 2, "evil"},
                                              {0, 0, "evil"},
                                              {1, 0, "evil"},
                                              {INT32_MAX, INT32_MIN, "either"}}) {
        const std::string content = Record("0011", text);
        const auto length = static_cast<int32_t>(content.size());
        streams.push_back(Packet("0011", length, first, content.substr(0, 9)) +
                          Packet("0011", length, second, content.substr(9)));
    }
    const std::string a = evil.substr(0, 9);
    const std::string b = evil.substr(9);
    streams.push_back(Packet("0011", 24, 0, a) + Packet("0012", 24, 0, a) +
                      Packet("0011", 24, 1, b) + Packet("0012", 24, 1, b));
    for (const std::string &stream : streams) {
        peer.Send(stream);
        EXPECT_EQ(peer.Ask("0013", "good"), "good") << stream;
    }
    EXPECT_TRUE(Until([&] { return Count(kRequest, "whole") == 2; }));
    EXPECT_EQ(Count(kRequest, "evil"), 0U);
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
    for (size_t at = 0; at < wire.size(); ++at) {
        peer.Send(wire.substr(at, 1));
    }
    EXPECT_EQ(peer.Receive(), whole);
    const std::string second = Message("0012", "second");
    for (const size_t cut : {second.size(), size_t{1}, size_t{25}}) {
        peer.Send(Message("0011", "first") + second.substr(0, cut));
        peer.Send(second.substr(cut));
        std::map<std::string, std::string> replies;
        for (int i = 0; i < 2; ++i) {
            const Arrived reply = peer.Receive().value_or(Arrived());
            replies[reply.Id] = reply.Payload;
        }
        EXPECT_EQ(replies["0011"] + replies["0012"], "firstsecond");
    }
}

TEST_F(Peers, AConnectionThatEndsAnywhereIsToldOfOnce) {
    for (const std::string &wire : {Message("0011", "evil"), Message("0011", Pattern(20000))}) {
        for (size_t cut = 0; cut < wire.size(); cut += wire.size() < 100 ? 3U : 1571U) {
            for (const bool reset : {false, true}) {
                Peer peer = Connect();
                peer.Send(wire.substr(0, cut));
                reset ? peer.Reset() : peer.Close();
            }
        }
    }
    EXPECT_EQ(Count(kRequest), Count(kRequest, "honest")) << "none of them asked";
}

TEST_F(Peers, TagsAreReadByTheRuleOrNotAtAll) {
    Peer peer = Connect();
    for (const auto &[tag, payload] : {std::pair("<Msg0011>4</Msg0011>", "fine"),
                                       {"<Msg0011>00004</Msg0011>", "fine"},
                                       {"<Msg0011>+4</Msg0011>", "evil"},
                                       {"<Msg0011>-4</Msg0011>", "evil"},
                                       {"<Msg0011> 4</Msg0011>", "evil"},
                                       {"<Msg0011>4x</Msg0011>", "evil"},
                                       {"<Msg0011>5</Msg0011>", "evil"},
                                       {"<Msg0011>0</Msg0011>", "evil"},
                                       {"<Msg0011></Msg0011>", "evil"},
                                       {"<Msg0011></Msg0011>", ""},
                                       {"<Msg0011>2147483647</Msg0011>", "evil"},
                                       {"<Msg0011>4294967300</Msg0011>", "evil"},
                                       {"<Msg0011>18446744073709551620</Msg0011>", "evil"},
                                       {"<Msg0011>4</Msg0011", "evil"},
                                       {"<msg0011>4</msg0011>", "evil"},
                                       {"Msg00011>4</Msg0011>", "evil"},
                                       {"<Msg%s%n>5</Msg%s%n>", "either"},
                                       {"%s%n%s%n%s%n%s%n%s%n", "evil"}}) {
        peer.Send(Framed("0011", tag + std::string(payload)));
        EXPECT_EQ(peer.Ask("0012", "good"), "good") << tag;
    }
    peer.Send(Framed("0011",
                     Record("0011", "fine") + Record("0013", "fine") + "<Msg0014>5</Msg0014>evil"));
    for (const std::string id : {"0000", "0002", "0003", "0004", "0005", "0006", "0009"}) {
        EXPECT_EQ(peer.Ask(id, id), id) << "reserved, but a request";
    }
    EXPECT_TRUE(Until([&] { return Count(kRequest, "fine") == 4; }));
    EXPECT_EQ(Count(kRequest, "evil"), 0U);
}

TEST_F(Peers, ACancelDropsLateRepliesButNoPushes) {
    Peer peer = Connect();
    peer.Send(Message("0011", "hold"));
    EXPECT_TRUE(Until([&] { return Count(kRequest, "hold") == 1; }));
    for (const std::string &payload : {std::string(), Pattern(5000), std::string("0011")}) {
        peer.Send(Message("0001", payload));
    }
    for (int i = 0; i < 5; ++i) { // the cancel may be slower than the first of them
        EXPECT_TRUE(Until([&] { return peer.Ask("0012", "good", 0.5) == "good"; }));
    }
    m_LetGo = true;
    std::string ids;
    for (const char *last : {"0006", "0013"}) {
        while (const auto arrived = peer.Receive()) {
            ids += arrived->Id + " ";
            if (arrived->Id == last) {
                break;
            }
        }
        peer.Send(Message("0013", "good"));
    }
    EXPECT_NE(ids.find("0006"), std::string::npos) << ids;
    EXPECT_NE(ids.find("0013"), std::string::npos) << ids;
    EXPECT_EQ(ids.find("0011"), std::string::npos) << ids;
    EXPECT_EQ(Count(kRequest, "0011"), 0U) << "a cancel is no request";
}

TEST_F(Peers, RepliesAreFramedToTheByte) {
    Peer peer = Connect();
    const std::string hello = "NMSG0011\x19\0\0\0\0\0\0\0\x19\0\0\0<Msg0011>5</Msg0011>hello"s;
    peer.Send(hello);
    EXPECT_EQ(peer.Read(45), hello);
    const std::string record = "<Msg0012>20000</Msg0012>" + Pattern(20000);
    const std::string packets =
        "NMSG0012\x38\x4e\0\0\0\0\0\0\0\x20\0\0"s + record.substr(0, 8192) +
        "NMSG0012\x38\x4e\0\0\x01\0\0\0\0\x20\0\0"s + record.substr(8192, 8192) +
        "NMSG0012\x38\x4e\0\0\x02\0\0\0\x38\x0e\0\0"s + record.substr(16384);
    peer.Send(packets);
    EXPECT_EQ(peer.Read(packets.size()), packets);
}
