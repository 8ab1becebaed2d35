// The synchronous client, and what both modes share, against a server that the test plays itself.
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <future>

#include "system/support.h"

namespace nrpc::tests {

namespace {

auto InBackground(auto act) {
    return std::async(std::launch::async, act);
}

std::string IdOf(int number) {
    return std::to_string(number + 10000).substr(1);
}

class SynchronousClient : public SystemTest {
  protected:
    void TearDown() override {
        m_Client.Release();
        m_Listener.Close();
        SystemTest::TearDown();
    }
    bool Connects(const Handler &handler = {}) {
        return handler ? m_Client.ClientConnect(m_Listener.Port(), kLoopback, handler)
                       : m_Client.ClientConnect(m_Listener.Port(), kLoopback);
    }
    Peer Connect() {
        EXPECT_TRUE(Connects());
        return m_Listener.Accept();
    }
    // The reply, or the result if it is not 1, of a request whose number must be the next one; its
    // id replaces each #### in what the peer answers.
    std::string Ask(Peer &peer, std::string answer, int32_t timeoutMs = kPatienceMs) {
        auto asked = InBackground([=, this] {
            const TextReply reply = m_Client.SendSynRequestText("request", timeoutMs);
            return reply.Result == 1 ? reply.Text : std::to_string(reply.Result);
        });
        const std::string id = IdOf(m_Number++);
        EXPECT_EQ(peer.Receive(), (Arrived{id, "request"}));
        for (size_t at = 0; (at = answer.find("####", at)) != answer.npos; at += 4) {
            answer.replace(at, 4, id);
        }
        peer.Send(answer);
        return asked.get();
    }
    void ExpectServed(Peer &peer) { EXPECT_EQ(Ask(peer, Message("####", "fine")), "fine"); }

    int m_Number = 11;
    Listener m_Listener;
    Client m_Client{TheLibrary()};
};

} // namespace

TEST_F(SynchronousClient, WritesRequestsToTheByteAndRefusesWhatIsNone) {
    Peer peer = Connect();
    ByteSetVariable content(TheHeap(), BytesOf("old"));
    const auto ask = [&](const Value &bytes, int32_t timeoutMs = kPatienceMs) {
        const Value timeout = Value::Integer(timeoutMs);
        return m_Client.Call("SendSynRequestBin", {bytes, Value::Output(content), timeout}).Number;
    };
    for (const auto &[dimensions, count] : {std::pair(0, 5), {2, 5}, {-1, 5}, {1, -5}, {1, 0}}) {
        const Value wrong = Value::WrongByteSet(dimensions, count, BytesOf("bytes"));
        EXPECT_EQ(ask(wrong), -1);
        EXPECT_EQ(m_Client.Call("SendAsynRequestBin", {wrong}).Number, 0);
    }
    EXPECT_EQ(ask(Value::NullByteSet()), -1);
    EXPECT_EQ(ask(Value::ByteSet(BytesOf("x")), -1), -1);
    EXPECT_EQ(m_Client.SendSynRequestText("x", INT32_MIN).Result, -1);
    EXPECT_EQ(m_Client.SendSynRequestText("", kPatienceMs).Result, -1);
    EXPECT_FALSE(m_Client.SendAsynRequestText("x") || m_Client.SendAsynRequestBin(BytesOf("x")));
    EXPECT_EQ(content.Get().size(), 3U);

    // None of them took a number.
    auto asked = InBackground([&] { return m_Client.SendSynRequestText("hello", INT32_MAX); });
    EXPECT_EQ(peer.Read(45), std::string("NMSG0011\x19\0\0\0\0\0\0\0\x19\0\0\0", 20) +
                                 "<Msg0011>5</Msg0011>hello");
    peer.Send(Message("0011", std::string("text\0rest", 9)));
    EXPECT_EQ(asked.get().Text, "text"); // a text ends at the zero byte, bytes do not
    for (const bool hostHasMemory : {true, false}) {
        hostHasMemory ? TheHeap().StopFailing() : TheHeap().FailAllocation(1, true);
        auto result = InBackground([&] { return ask(Value::ByteSet(BytesOf("hello"))); });
        const std::string id = peer.Receive().value_or(Arrived{}).Id;
        peer.Send(Message(id, std::string("text\0rest", 9)));
        EXPECT_EQ(result.get(), hostHasMemory ? 1 : -1) << id;
        EXPECT_TRUE(content.Get().size() == 9 || (content.IsNull() && !hostHasMemory));
    }
    m_Number = 14;
    EXPECT_EQ(Ask(peer, Message("####", "lost")), "-1");
    TheHeap().StopFailing();
    ExpectServed(peer);
}

TEST_F(SynchronousClient, NumbersRequestsTo9999AndThenFrom0010) {
    Peer peer = Connect();
    auto seen = InBackground([&] {
        std::vector<std::string> ids;
        while (const auto arrived = peer.Receive()) { // until the client ends
            if (arrived->Id != "0001") {
                ids.push_back(arrived->Id);
            }
            peer.Send(arrived->Payload == "last" ? Message(arrived->Id, "reply") : "");
        }
        return ids;
    });
    for (int number = 11; number <= 9999; ++number) {
        ASSERT_EQ(m_Client.SendSynRequestText("x", 0).Result, 0); // sent, or out of time already
    }
    EXPECT_EQ(m_Client.SendSynRequestText("last", kPatienceMs).Text, "reply");
    m_Client.ClientdisConnect();
    const std::vector<std::string> ids = seen.get();
    ASSERT_GT(ids.size(), 1000U);
    EXPECT_TRUE(std::is_sorted(ids.begin(), ids.end() - 1));
    EXPECT_EQ(ids.back(), "0010");
}

TEST_F(SynchronousClient, TellsASilentServerAndDiscardsWhatComesTooLate) {
    Peer peer = Connect();
    const int64_t begin = NowMs();
    EXPECT_EQ(Ask(peer, "", 1200), "0");
    EXPECT_GE(NowMs() - begin, 1200);
    EXPECT_LE(NowMs() - begin, kSanitized ? 5000 : 2500);
    EXPECT_EQ(peer.Read(44), Message("0001", "0011"));
    peer.Send(Message("0011", "late") + Message("0005", "pushed") + Message("0011", "double"));
    EXPECT_EQ(Ask(peer, Message("0009", "pushed") + Message("####", "x") + Message("####", "x")),
              "x");
    ExpectServed(peer);
}

TEST_F(SynchronousClient, WaitsOnWhilePacketsOfItsReplyKeepComing) {
    Peer peer = Connect();
    const std::string content = Pattern(20000);
    const std::string wire = Message("0011", content, 2500);
    auto asked = InBackground([&] { return m_Client.SendSynRequestText("x", 1500); });
    EXPECT_TRUE(peer.Receive());
    for (size_t at = 0; at < wire.size(); at += 2600) { // packets begin anywhere in a piece
        peer.Send(wire.substr(at, 2600));
        usleep(300 * 1000); // in all, longer than the time-out
    }
    EXPECT_EQ(asked.get().Text, content);
}

TEST_F(SynchronousClient, TakesNothingButTheSoundReplyToItsRequest) {
    Peer peer = Connect();
    const std::string split = Message("####", "reply", 20);
    const std::string garbage = "HTTP/1.1 400 Bad Request";
    for (const std::string &wire :
         {garbage, Record("0000", ""), Message("0000", ""), Message("####", ""),
          Framed("####", Record("0999", "reply")),
          Framed("####", "<Msg####>4294967301</Msg####>reply"),
          Head("####", 25, 0, -25) + Record("####", "reply"),
          Head("####", 26, 0, 25) + Record("####", "reply"),
          split.substr(0, 40) + Message("0009", "between") + split.substr(40)}) {
        // With the last message it is clear that none of that id is under way any more.
        EXPECT_EQ(Ask(peer, wire + Message("0009", "other"), 300), "0") << wire;
        EXPECT_EQ(peer.Read(44), Message("0001", IdOf(m_Number - 1)));
    }
    for (const std::string &wire :
         {Framed("0999", Record("####", "reply")),
          Framed("####", Record("0999", "other") + Record("####", "reply") + "trailer"),
          split.substr(0, 40) + Message("####", "reply", 13),
          Message("####", "reply") + garbage}) { // the connection is over then
        EXPECT_EQ(Ask(peer, wire), "reply") << wire;
    }
    EXPECT_LT(m_Client.SendSynRequestText("x", 300).Result, 1);
}

TEST_F(SynchronousClient, APacketBegunIsFinishedBeforeTheNextRequest) {
    Peer peer = Connect();
    const std::string big = Pattern(16 << 20);
    const std::string wire = Message("0011", big);
    const int64_t begin = NowMs();
    EXPECT_EQ(m_Client.SendSynRequestBin(BytesOf(big), 500).Result, 0);
    EXPECT_GE(NowMs() - begin, 500);
    auto asked = InBackground([&] { return m_Client.SendSynRequestText("next", kPatienceMs); });
    std::string head;
    for (size_t at = 0; (head = peer.Read(20)).substr(4, 4) == "0011"; at += 8212) {
        ASSERT_EQ(head + peer.Read(kChunkLen), wire.substr(at, 8212)) << at; // whole packets
    }
    EXPECT_EQ(head + peer.Read(24), Message("0012", "next")); // and no cancel before it
    peer.Send(Message("0012", "reply"));
    EXPECT_EQ(asked.get().Text, "reply");
}

TEST_F(SynchronousClient, ConnectsToSoundAddressesOnly) {
    const int32_t port = m_Listener.Port();
    const std::string longName(70, 'a'); // no resolver is asked for such a name
    for (const char *address :
         {"127.0.0.256", "127.0.0.1.5", "1277.0.0.1", "127..0.1", "", longName.c_str()}) {
        EXPECT_FALSE(m_Client.ClientConnect(port, address)) << address;
    }
    for (const int32_t wrong : {65536, 70000, 65536 + port, -1, INT32_MIN, FreePort()}) {
        EXPECT_FALSE(m_Client.ClientConnect(wrong, kLoopback)) << wrong;
        EXPECT_FALSE(m_Client.ClientConnect(wrong, kLoopback, [](HostWord) {})) << wrong;
    }
    const auto connect = [&](const Value &address, bool synchronous, const Value &routine) {
        const Value mode = Value::Logical(synchronous);
        return m_Client.Call("ClientConnect", {Value::Integer(port), address, mode, routine})
            .Number;
    };
    EXPECT_EQ(connect(Value::NullText(), true, Value::Omitted()), 0);
    EXPECT_EQ(connect(Value::Text(kLoopback), false, Value::Omitted()), 0); // a handler is needed
    for (const char *name : {"127.0.0.1", "127.000.000.001", "localhost"}) {
        EXPECT_TRUE(m_Client.ClientConnect(port, name)) << name;
        m_Listener.Accept();
        m_Client.ClientdisConnect();
    }
    EXPECT_EQ(connect(Value::Text(kLoopback), true, Value::Subroutine(1)), 1); // but not looked at
    Peer peer = m_Listener.Accept();
    ExpectServed(peer);
}

TEST_F(SynchronousClient, ASecondConnectionNeedsTheEndOfTheFirst) {
    std::atomic<int> messages = 0;
    const Handler handler = [&](HostWord) { ++messages; };
    std::optional<Peer> peer(Connect());
    EXPECT_FALSE(Connects() || Connects(handler));
    ExpectServed(*peer);
    for (int round = 0; round < 2; ++round) {
        peer.reset(); // lost, which a synchronous client does not report
        m_Client.ClientdisConnect();
        m_Client.ClientdisConnect();
        EXPECT_EQ(m_Client.SendSynRequestText("x", kPatienceMs).Result, -1);
        ASSERT_TRUE(Connects(handler));
        peer.emplace(m_Listener.Accept());
        EXPECT_FALSE(Connects() || Connects(handler));
        EXPECT_EQ(m_Client.SendSynRequestText("x", kPatienceMs).Result, -1);
        peer.reset(); // lost, and reported: no disconnect is needed
        ASSERT_TRUE(Until([&] { return Connects(round == 0 ? handler : Handler()); }));
        peer.emplace(m_Listener.Accept());
    }
    ExpectServed(*peer);
    EXPECT_TRUE(messages == 2 || messages == 3) << "one loss may be told of before the disconnect";
}

TEST_F(SynchronousClient, CommandsOfObjectsThatAreNotAliveFail) {
    Client released(TheLibrary());
    const HostWord stale = released.Members()[1];
    released.Release();
    HostWord foreign[64] = {};
    for (const HostWord word : {HostWord{0}, stale, reinterpret_cast<HostWord>(foreign)}) {
        Client dead(TheLibrary(), kNeverConstructed);
        dead.Members()[1] = word;
        EXPECT_FALSE(dead.ClientConnect(m_Listener.Port(), kLoopback));
        EXPECT_FALSE(dead.ClientConnect(m_Listener.Port(), kLoopback, [](HostWord) {}));
        EXPECT_EQ(dead.SendSynRequestText("x", kPatienceMs).Result, -1);
        EXPECT_EQ(dead.SendSynRequestBin(BytesOf("x"), kPatienceMs).Result, -1);
        EXPECT_FALSE(dead.SendAsynRequestText("x") || dead.SendAsynRequestBin(BytesOf("x")));
        EXPECT_FALSE(dead.GetResultText(1) || dead.GetResultBin(1));
        EXPECT_EQ(dead.ClientGetMsgKind(1), -1);
        dead.ClientdisConnect();
        dead.Call("ReleaseClient");
        EXPECT_FALSE(dead.SpareFirst().Written || dead.SpareSecond().Written);
    }
    EXPECT_EQ(TheLibrary().Call("SendAsynRequestText", nullptr, {Value::Text("x")}).Number, 0);
    EXPECT_EQ(TheLibrary().Call("ClientGetMsgKind", nullptr, {Value::Integer(1)}).Number, -1);
}

TEST_F(SynchronousClient, TeardownEndsTheRequestOfAnotherThread) {
    const auto cycle = [](int number) {
        Listener listener;
        Client client(TheLibrary());
        EXPECT_TRUE(client.ClientConnect(listener.Port(), kLoopback));
        Peer peer = listener.Accept();
        auto asked = InBackground([&] { return client.SendSynRequestText("x", kPatienceMs); });
        if (number % 3 == 0) {
            EXPECT_TRUE(peer.Receive());
            peer.Send(Message("0011", Pattern(9000)).substr(0, 8500)); // amid the reply
        }
        const int64_t begin = NowMs();
        number % 2 == 0 ? client.Release() : client.ClientdisConnect();
        EXPECT_EQ(asked.get().Result, -1) << number;
        EXPECT_LT(NowMs() - begin, 5000);
        EXPECT_TRUE(peer.ReadToEnd());
    };
    RepeatSideBySide({cycle, cycle, cycle, cycle}, Scaled(25));
}

TEST_F(SynchronousClient, ReleaseEndsAConnectThatNobodyAnswers) {
    Listener full(0);
    Peer crowd(full.Port()); // no more than one may wait
    auto connected = InBackground([&] { return m_Client.ClientConnect(full.Port(), kLoopback); });
    EXPECT_EQ(connected.wait_for(std::chrono::milliseconds(300)), std::future_status::timeout);
    EXPECT_LT(MillisecondsOf([&] { m_Client.Release(); }), 4000);
    EXPECT_FALSE(connected.get());
}

TEST_F(SynchronousClient, AForkedChildCannotDisturbItsParentsConnection) {
    Peer peer = Connect();
    const pid_t child = fork();
    if (child == 0) {
        alarm(20);
        const bool failed = m_Client.SendSynRequestText("x", 1000).Result == -1 && !Connects();
        m_Client.ClientdisConnect();
        m_Client.Release();
        _exit(failed ? 0 : 1);
    }
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
    ExpectServed(peer); // nothing else was written, and nothing ended
}

} // namespace nrpc::tests
