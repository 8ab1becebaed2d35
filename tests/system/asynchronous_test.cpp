// The asynchronous client: requests on their way, messages for the handler, and ends of all kinds.
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <set>

#include "system/support.h"

namespace nrpc::tests {

namespace {

class AsynchronousClient : public SystemTest {};

using Strings = std::vector<std::string>;

// A client of a server that the test plays, and a log of what reached its handler.
struct Played {
    using Act = std::function<void(Played &self, const std::string &text)>;

    // `act` runs inside the handler, after the message was noted down.
    void Connect(const Act &act = {}, Manner manner = kLeavesArguments) {
        const auto handler = [this, act, number = std::to_string(++Connections)](HostWord message) {
            const int32_t kind = Host.ClientGetMsgKind(message); // -1 while another thread ends it
            const std::string text = Host.GetResultText(message).value_or(kind == 0 ? "end" : "?");
            LastMessage = message;
            {
                const std::lock_guard<std::mutex> guard(Lock);
                Entries.push_back(number + text);
            }
            act ? act(*this, text) : void();
        };
        EXPECT_TRUE(Host.ClientConnect(Listening.Port(), kLoopback, handler, manner));
    }
    // Texts with the number of their connection in front.
    Strings Log() {
        const std::lock_guard<std::mutex> guard(Lock);
        return Entries;
    }
    int Count(const std::string &entry) {
        const Strings log = Log();
        return static_cast<int>(std::count(log.begin(), log.end(), entry));
    }
    bool UntilLogged(const std::string &entry) {
        return Until([&] { return Count(entry) > 0; });
    }

    Listener Listening;
    std::atomic<int> Connections = 0;
    std::atomic<HostWord> LastMessage = 0;
    std::mutex Lock;
    Strings Entries;           // under Lock
    Client Host{TheLibrary()}; // ends first
};

} // namespace

TEST_F(AsynchronousClient, EveryReplyOfThousandsReachesItsHandlerOnce) {
    const auto requests = static_cast<size_t>(Scaled(1000));
    EchoServer server;
    std::vector<std::atomic<int>> seen(32 * requests);
    std::atomic<size_t> total = 0;
    std::vector<std::unique_ptr<Client>> clients;
    for (size_t i = 0; i < 32; ++i) {
        auto &client = *clients.emplace_back(std::make_unique<Client>(TheLibrary()));
        EXPECT_TRUE(client.ClientConnect(server.Port(), kLoopback, [&, i](HostWord message) {
            const size_t place = std::stoul(client.GetResultText(message).value_or("0"));
            seen[place] += place / requests == i ? 1 : 100;
            ++total;
        }));
    }
    for (size_t i = 0; i < seen.size(); ++i) {
        EXPECT_TRUE(
            clients[i % 32]->SendAsynRequestText(std::to_string(i % 32 * requests + i / 32)));
    }
    EXPECT_TRUE(Until([&] { return total >= seen.size(); }, 3 * kPatience)) << total;
    clients.clear();
    EXPECT_TRUE(
        std::all_of(seen.begin(), seen.end(), [](const auto &count) { return count == 1; }));
}

TEST_F(AsynchronousClient, WhatWaitsGoesNewestFirst) {
    std::atomic<bool> goOn = false;
    Played client;
    client.Connect([&](Played &, const std::string &text) {
        EXPECT_TRUE(Until([&] { return text != "hold" || goOn; }));
    });
    Peer peer = client.Listening.Accept();
    const std::string big = Pattern(16 << 20);
    EXPECT_TRUE(client.Host.SendAsynRequestText("")); // accepted, never sent, without a number
    EXPECT_TRUE(client.Host.SendAsynRequestBin(BytesOf(big)));
    EXPECT_EQ(peer.Read(8), "NMSG0011"); // from now on the sending is busy
    for (const char *text : {"first", "", "second", "third"}) {
        EXPECT_TRUE(client.Host.SendAsynRequestText(text));
    }
    const std::string wire = Message("0011", big).substr(8);
    EXPECT_TRUE(peer.Read(wire.size()) == wire);
    EXPECT_EQ(peer.Receive(), (Arrived{"0012", "third"}));
    EXPECT_EQ(peer.Receive(), (Arrived{"0013", "second"}));
    EXPECT_EQ(peer.Receive(), (Arrived{"0014", "first"}));

    const auto newestFirst = [&] { // if all arrived in time
        goOn = false;
        const size_t before = client.Log().size();
        peer.Send(Message("0005", "hold"));
        EXPECT_TRUE(Until([&] { return client.Log().size() > before; }));
        peer.Send(Message("0006", "a") + Message("0007", "b") + Message("0008", "c"));
        usleep(20000);
        goOn = true;
        EXPECT_TRUE(Until([&] { return client.Log().size() == before + 4; }));
        const Strings log = client.Log();
        EXPECT_EQ(std::set<std::string>(log.end() - 4, log.end()).size(), 4U);
        return Strings(log.end() - 3, log.end()) == Strings{"1c", "1b", "1a"};
    };
    EXPECT_TRUE(Until(newestFirst));
}

TEST_F(AsynchronousClient, HandlersOfEveryMannerReadTheirMessages) {
    const auto read = [](Played &self, const std::string &text) {
        EXPECT_EQ(self.Host.ClientGetMsgKind(0), -1);
        EXPECT_FALSE(self.Host.GetResultText(0) || self.Host.GetResultBin(0));
        EXPECT_EQ(self.Host.ClientGetMsgKind(self.LastMessage), text != "end");
        EXPECT_EQ(self.Host.GetResultBin(self.LastMessage).value_or(Bytes()).size(),
                  text == "end" ? 0U : 9U);
        TextVariable first(TheHeap(), "old");
        ByteSetVariable second(TheHeap(), BytesOf("old"));
        const Value message = Value::Address(self.LastMessage);
        TheHeap().FailAllocation(1, true); // the host has no memory
        EXPECT_EQ(self.Host.Call("GetResultText", {message, Value::Output(first)}).Number, 0);
        EXPECT_EQ(self.Host.Call("GetResultBin", {message, Value::Output(second)}).Number, 0);
        TheHeap().StopFailing();
        EXPECT_TRUE(first.IsNull() || first.Get() == "old");
        EXPECT_TRUE(second.IsNull() || second.Get().size() == 3);
    };
    for (const Manner manner : kManners) {
        Played client;
        client.Connect(read, manner);
        Peer peer = client.Listening.Accept();
        EXPECT_EQ(client.Host.SendSynRequestText("x", kPatienceMs).Result, -1);
        EXPECT_EQ(client.Host.SendSynRequestBin(BytesOf("x"), kPatienceMs).Result, -1);
        peer.Send(Message("0005", std::string("text\0rest", 9)));
        EXPECT_TRUE(client.UntilLogged("1text"));
        peer.Close();
        EXPECT_TRUE(client.UntilLogged("1end"));
    }
}

TEST_F(AsynchronousClient, EveryLossIsReportedOnceAndNoDisconnectIs) {
    enum Ending { kEnd, kReset, kStay, kOwnDisconnect };
    const std::string reply = Message("0011", Pattern(9000));
    const std::pair<std::string, Ending> kWays[] = {
        {"", kEnd},
        {"", kReset},
        {Message("0000", ""), kStay},
        {Message("0000", ""), kEnd},
        {Record("0000", ""), kEnd},
        {reply.substr(0, 8212 + 7), kEnd},
        {reply.substr(0, 9000), kReset},
        {Message("0005", "x") + "HTTP/1.1 400 Bad Request", kStay},
        {Message("0005", "x"), kOwnDisconnect},
    };
    for (const auto &[wire, ending] : kWays) {
        Played client;
        client.Connect();
        Peer peer = client.Listening.Accept();
        peer.Send(wire);
        if (ending == kOwnDisconnect) {
            client.Host.ClientdisConnect();
        } else if (ending != kStay) {
            ending == kEnd ? peer.Close() : peer.Reset();
        }
        EXPECT_TRUE(Until([&] { return !client.Host.SendAsynRequestText("x"); })) << wire;
        EXPECT_FALSE(client.Host.SendAsynRequestBin(BytesOf("x")));
        EXPECT_EQ(client.Host.ClientGetMsgKind(1), -1);
        EXPECT_FALSE(client.Host.GetResultText(1) || client.Host.GetResultBin(1));
        client.Connect(); // and meets nothing of the first connection
        Peer second = client.Listening.Accept();
        second.Send(Message("0005", "y"));
        EXPECT_TRUE(client.UntilLogged("2y"));
        client.Host.Release();
        EXPECT_EQ(client.Count("1end"), ending != kOwnDisconnect) << wire;
        EXPECT_EQ(client.Count("2end") + client.Count("2x"), 0);
    }
}

TEST_F(AsynchronousClient, DisconnectsPromptlyFromAServerThatDoesNotRead) {
    Played client;
    client.Connect();
    Peer peer = client.Listening.Accept();
    const std::string text = Pattern(16384);
    for (int i = 0; i < 2000; ++i) {
        EXPECT_TRUE(client.Host.SendAsynRequestText(text));
    }
    EXPECT_LT(MillisecondsOf([&] { client.Host.ClientdisConnect(); }), 5000);
    client.Connect();
    EXPECT_TRUE(client.Host.SendAsynRequestText("new"));
    EXPECT_EQ(client.Listening.Accept().Receive().value_or(Arrived{}).Payload, "new");
}

TEST_F(AsynchronousClient, TeardownWorksAtAnyMomentAndLeavesNothing) {
    enum When { kInMessage, kAtItsEnd, kOutside, kAfterReset };
    enum What { kDisconnect, kRelease, kReconnect };
    const auto cycle = [](When when, What what) {
        Played client;
        std::atomic<bool> done = false;
        const auto act = [&done, when, what](Played &self, const std::string &text) {
            if (!done && when == (text == "end" ? kAtItsEnd : kInMessage)) {
                what == kRelease ? self.Host.Release() : self.Host.ClientdisConnect();
                what == kReconnect ? self.Connect() : void();
                done = true;
            }
        };
        client.Connect(act);
        Peer peer = client.Listening.Accept();
        for (int i = 0; i < 50; ++i) {
            peer.Send(Message("0005", "1"));
        }
        if (when == kAtItsEnd || when == kAfterReset) {
            when == kAtItsEnd ? peer.Close() : peer.Reset();
        }
        if (when == kOutside || when == kAfterReset) {
            client.Host.SendAsynRequestText("x");
            what == kRelease ? client.Host.Release() : client.Host.ClientdisConnect();
            what == kReconnect ? client.Connect() : void();
            done = true;
        }
        EXPECT_TRUE(Until([&] { return done.load(); }));
        std::optional<Peer> second;
        if (what == kReconnect) {
            second.emplace(client.Listening.Accept());
            second->Send(Message("0005", "2"));
            EXPECT_TRUE(client.UntilLogged("22"));
        }
        EXPECT_TRUE(when == kAtItsEnd || when == kAfterReset || peer.ReadToEnd());
        client.Host.Release();
        EXPECT_EQ(client.Count("12") + client.Count("21") + client.Count("2end"), 0);
        EXPECT_LE(client.Count("11"), when == kInMessage ? 1 : 50);
        EXPECT_LE(client.Count("1end"), when == kAtItsEnd || when == kAfterReset);
    };
    std::vector<std::function<void(int)>> acts;
    for (const When when : {kInMessage, kAtItsEnd, kOutside, kAfterReset}) {
        for (const What what : {kDisconnect, kRelease, kReconnect}) {
            acts.push_back([=](int) { cycle(when, what); });
        }
    }
    RepeatSideBySide(acts, Scaled(100));
}

TEST_F(AsynchronousClient, DisconnectCancelsAHandlerThatStays) {
    static volatile bool s_Stays = true;
    const Played::Act kWays[] = {
        [](Played &, const std::string &) {
            while (s_Stays) {
                pause();
            }
        },
        [](Played &, const std::string &) {
            while (s_Stays) {
            }
        },
        [](Played &, const std::string &) { pthread_exit(nullptr); },
    };
    for (const Played::Act &way : kWays) {
        Played client;
        client.Connect(way);
        Peer peer = client.Listening.Accept();
        peer.Send(Message("0005", "a"));
        EXPECT_TRUE(client.UntilLogged("1a"));
        peer.Send(Message("0006", "b"));
        EXPECT_LT(MillisecondsOf([&] { client.Host.ClientdisConnect(); }), 5000);
        EXPECT_TRUE(peer.ReadToEnd());
        client.Connect();
        Peer second = client.Listening.Accept();
        second.Send(Message("0005", "c"));
        EXPECT_TRUE(client.UntilLogged("2c"));
        EXPECT_EQ(client.Log().size(), 2U);
    }
}

TEST_F(AsynchronousClient, PushesReachThoseWhoReadPastThoseWhoDoNot) {
    constexpr size_t kRounds = 20;
    EchoServer server;
    std::vector<Peer> peers;
    std::vector<std::unique_ptr<Client>> clients;
    std::atomic<size_t> received = 0;
    const auto connected = [&](size_t count) {
        for (; peers.size() + clients.size() < count;) {
            peers.emplace_back(server.Port());
        }
        EXPECT_TRUE(Until([&] { return server->GetClientCount() == static_cast<int>(count); }));
        return server->GetAllClient().value_or(std::vector<int32_t>());
    };
    const std::string much = Pattern(6 << 20);
    for (const int32_t handle : connected(10)) { // these never read
        EXPECT_TRUE(server->SendBinary(handle, BytesOf(much)));
    }
    for (int i = 0; i < 20; ++i) {
        auto &client = *clients.emplace_back(std::make_unique<Client>(TheLibrary()));
        EXPECT_TRUE(client.ClientConnect(server.Port(), kLoopback, [&](HostWord message) {
            received += client.GetResultText(message) == "push";
        }));
    }
    const std::vector<int32_t> handles = connected(100);
    for (size_t i = 0; i < kRounds * handles.size(); ++i) {
        EXPECT_TRUE(server->SendText(handles[i % handles.size()], "push"));
    }
    for (size_t i = 10 * kRounds; i < peers.size() * kRounds; ++i) {
        EXPECT_EQ(peers[i / kRounds].Receive().value_or(Arrived{}).Payload, "push") << i;
    }
    EXPECT_TRUE(Until([&] { return received == clients.size() * kRounds; })) << received;
    clients.clear();
}

} // namespace nrpc::tests
