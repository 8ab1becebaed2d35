// The commands of a server as its host sees them: starts and stops, handlers that do not come back,
// what is refused, an exhausted heap, foreign calling manners, and the connected clients.
#include <malloc.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <cfenv>
#include <deque>

#include "system/support.h"

using namespace nrpc;
using namespace nrpc::tests;

namespace {

using Lifecycle = SystemTest;
using Commands = SystemTest;
using Servers = std::deque<EchoServer>;

void ExpectStopInTime(EchoServer &server) {
    const int64_t duration = MillisecondsOf([&] { server->StopServer(); });
    EXPECT_GE(duration, 4300);
    EXPECT_LE(duration, kSanitized ? 12000 : 6000);
}

void StopTogether(Servers &servers) {
    std::vector<std::jthread> threads;
    for (EchoServer &server : servers) {
        threads.emplace_back(ExpectStopInTime, std::ref(server));
    }
}

} // namespace

// --- starts and stops -------------------------------------------------------------------------

TEST_F(Lifecycle, HandlerCallsOverlapInParallelModeOnly) {
    const std::optional<bool> modes[] = {true, std::nullopt, false};
    std::atomic<int> inside[3] = {};
    std::atomic<int> met[3] = {};
    Servers servers;
    std::deque<Peer> peers;
    for (size_t i = 0; i < 12; ++i) { // four of each
        if (i % 4 == 0) {
            servers.emplace_back(modes[i / 4],
                                 [&inside = inside[i / 4], &met = met[i / 4]](auto &...) {
                                     ++inside;
                                     met += Until([&] { return inside > 1 || met > 0; }, 0.3);
                                     --inside;
                                     return false;
                                 });
        }
        peers.emplace_back(servers.back().Port()).Send(Message("0011", "hello"));
    }
    for (Peer &peer : peers) {
        EXPECT_EQ(peer.Receive(), (Arrived{"0011", "hello"}));
    }
    EXPECT_EQ(met[0], 0);
    EXPECT_EQ(met[1], 0) << "a mode left out is serial";
    EXPECT_GT(met[2], 0);
    StopTogether(servers);
    EXPECT_EQ(servers[0].Count(kClientDisconnected), 0U) << "a stop is no message";
}

TEST_F(Lifecycle, AStopLeavesOtherServersAloneAndTheServerStartsAgain) {
    const int threads = TakeCensus().Threads;
    const auto runs = [=](int count) { return TakeCensus().Threads == threads + count; };
    Servers stopped(1);
    EXPECT_TRUE(Until([&] { return runs(4 * (1 + 5) + 1); }));
    Servers other(1);
    Peer here(stopped[0].Port());
    Peer there(other[0].Port());
    EXPECT_EQ(here.Ask("0011", "hello"), "hello");
    EXPECT_FALSE(stopped[0]->StartServer(FreePort(), [](HostWord) {})) << "already started";
    EXPECT_FALSE(stopped[0]->SetPoolThreadNum(1, 1)) << "already started";
    std::atomic<bool> ended = false;
    std::jthread stop([&] { StopTogether(stopped), ended = true; });
    while (!ended) {
        EXPECT_EQ(there.Ask("0011", "hello"), "hello");
        EXPECT_EQ(Peer(other[0].Port()).Ask("0011", "newcomer"), "newcomer");
    }
    EXPECT_EQ(here.ReadToEnd(), "");
    EXPECT_LT(MillisecondsOf([&] { stopped[0]->StopServer(); }), 2000) << "already stopped";
    stop = {};

    const Census before = TakeCensus();
    const int32_t taken = other[0].Port();
    for (const int32_t port : {taken, 65536, -1, INT32_MIN, FreePort() | 1 << 16}) {
        EXPECT_FALSE(stopped[0]->StartServer(port, [](HostWord) {})) << port;
    }
    EXPECT_FALSE(stopped[0]->StartServer(FreePort(), HostWord{0})) << "no handler";
    ExpectBack(before, 4096, 100);
    EXPECT_TRUE(stopped[0]->SetPoolThreadNum(1, 1));
    for (const auto &[least, greatest] : {std::pair(0, 5), {6, 5}, {-1, -1}, {INT32_MIN, 1}}) {
        EXPECT_FALSE(stopped[0]->SetPoolThreadNum(least, greatest));
    }
    StopTogether(other);
    stopped[0].Start(true);
    EXPECT_TRUE(Until([&] { return runs(4 * (1 + 1) + 1); })) << "the sizes were kept";
    EXPECT_EQ(Peer(stopped[0].Port()).Ask("0011", "hello"), "hello");
    EXPECT_GE(MillisecondsOf([&] { stopped[0]->Release(); }), 4000) << "stops first";
}

TEST_F(Lifecycle, AServerCanBeStoppedAndReleasedFromInsideItsHandlers) {
    std::atomic<int> entered = 0;
    std::atomic<int> finished = 0;
    const auto act = [&](Server &server, const Event &event) {
        if (event.Text == "hello") {
            return false;
        }
        ++entered;
        if (event.Text == "late") { // while the stop waits for this handler
            EXPECT_TRUE(Until([&] { return entered == 7; }));
            sleep(1);
        }
        event.Text == "stop" ? server.StopServer() : void(server.Call("ServerRelease"));
        ++finished; // nothing after it: the server may go
        return true;
    };
    Servers servers;
    std::deque<Peer> peers;
    for (const std::vector<const char *> &texts :
         {std::vector{"stop"}, {"stop"}, {"stop"}, {"stop"}, {"release"}, {"late", "stop"}}) {
        servers.emplace_back(servers.size() == 1, act);
        for (const char *text : texts) {
            peers.emplace_back(servers.back().Port()).Send(Message("0011", text));
            EXPECT_TRUE(Until([&] { return servers.back().Count(kRequest, text) == 1; }));
        }
    }
    EXPECT_TRUE(Until([&] { return entered == 7; }));
    servers[2]->StopServer(); // from outside as well
    servers[3]->Call("ServerRelease");
    EXPECT_TRUE(Until([&] { return finished == 7; }));
    for (Peer &peer : peers) {
        EXPECT_EQ(peer.ReadToEnd(), "");
    }
    for (EchoServer &server : servers) {
        EXPECT_EQ(server->GetClientCount(), -1);
    }
    for (int i = 0; i < 3; ++i) {
        EXPECT_FALSE(servers.back()->SetPoolThreadNum(1, 2)) << "released";
        servers.pop_back();
    }
    for (EchoServer &server : servers) {
        server.Start(true);
        EXPECT_EQ(Peer(server.Port()).Ask("0011", "hello"), "hello");
    }
    StopTogether(servers);
}

TEST_F(Lifecycle, AReleaseInsideTheFirstConnectMessageEndsTheServer) {
    const auto startAndRelease = [] {
        const int32_t port = FreePort();
        std::atomic<bool> released = false;
        Server server(TheLibrary());
        std::jthread connecting([&] { // the first connect may be faster than the start
            EXPECT_TRUE(Until([&] {
                Client(TheLibrary()).ClientConnect(port, kLoopback);
                return released.load();
            }));
        });
        server.StartServer(port, [&](HostWord message) {
            if (server.GetMsgKind(message) == kClientConnected) {
                server.Call("ServerRelease");
                released = true;
            }
        });
        connecting.join();
        EXPECT_TRUE(Until([&] { return !Client(TheLibrary()).ClientConnect(port, kLoopback); }));
    };
    for (int round = 0; round < 3; ++round) {
        std::vector<std::jthread> starters(6);
        std::generate(starters.begin(), starters.end(),
                      [&] { return std::jthread(startAndRelease); });
    }
}

// --- handlers still inside when the stop runs -------------------------------------------------

namespace {

std::mutex s_Held;
std::atomic<bool> s_LetGo;
FILE *const s_Null = fopen("/dev/null", "w");

// Of the host, and older than anything of the library's.
void DestroySlowly(void *) {
    for (const int64_t end = NowMs() + 700; NowMs() < end;) {
        for (int i = 0; i < 10000000; ++i) {
            asm volatile("");
        }
    }
}
const pthread_key_t s_SlowlyDestroyed = [] {
    pthread_key_t key = 0;
    pthread_key_create(&key, DestroySlowly);
    return key;
}();

struct Overdue {
    const char *Name;
    void (*Stay)(Server &server);
};
const Overdue kOverdue[] = {
    {"Sleeps", [](Server &) { sleep(1000); }},
    {"Spins", [](Server &) { asm volatile("1: jmp 1b"); }},
    {"WaitsForAMutex", [](Server &) { const std::lock_guard<std::mutex> guard(s_Held); }},
    {"EndsItsThread", [](Server &) { pthread_exit(nullptr); }},
    {"CallsCommands",
     [](Server &server) {
         while (!server.SendText(server.GetClientCount(), "nobody")) {
             server.GetAllClient();
         }
     }},
    {"ComputesWhileItEnds",
     [](Server &) {
         pthread_setspecific(s_SlowlyDestroyed, &s_Held);
         sleep(1000);
     }},
    {"HoldsLocksOfTheCLibrary", // nearly all the time
     [](Server &) {
         while (fputs("busy ", s_Null) >= 0) {
             mallinfo2();
         }
     }},
    {"CannotBeCancelled",
     [](Server &) {
         pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
         Until([] { return s_LetGo.load(); }, 1000);
     }},
};

class CancelOverdue : public SystemTest, public testing::WithParamInterface<Overdue> {};

} // namespace

TEST_P(CancelOverdue, StopReturnsInItsTimeAndTheServerServesAgain) {
    const auto stay = [](Server &server, const Event &event) {
        const bool stays = event.Text == "stay";
        stays ? GetParam().Stay(server) : void();
        return stays;
    };
    Servers servers; // outlive what is left behind
    std::deque<Peer> peers;
    std::deque<Peer> waiting;
    std::unique_lock<std::mutex> held(s_Held);
    for (size_t i = 0; i < 4; ++i) {
        const bool serial = i % 2 == 0;
        const Manner manner = kManners[i / 2 * (std::size(kManners) - 1)];
        EchoServer &server = servers.emplace_back(serial, stay, manner);
        peers.emplace_back(server.Port()).Send(Message("0011", "stay"));
        EXPECT_TRUE(Until([&] { return server.Count(kRequest, "stay") == 1; }));
        if (!serial || GetParam().Name == std::string("EndsItsThread")) {
            EXPECT_EQ(peers[i].Ask("0012", "hello"), "hello");
        } else {
            waiting.emplace_back(server.Port()).Send(Message("0011", "waits for its turn"));
        }
    }
    StopTogether(servers);
    for (size_t i = 0; i < 4; ++i) {
        EXPECT_EQ(peers[i].ReadToEnd(), "");
        servers[i].Start(i % 2 == 0);
        EXPECT_EQ(Peer(servers[i].Port()).Ask("0011", "hello"), "hello");
    }
    StopTogether(servers);
    s_LetGo = true;
    held.unlock();
    peers.clear();
    waiting.clear();
    ExpectNothingLeft();
}

INSTANTIATE_TEST_SUITE_P(Handler, CancelOverdue, testing::ValuesIn(kOverdue),
                         [](const auto &test) { return std::string(test.param.Name); });

// --- what is refused --------------------------------------------------------------------------

namespace {

// Calls that must fail, on variables that they must leave alone.
struct Refusals {
    explicit Refusals(Server &server) : Host(server) {}
    ~Refusals() {
        EXPECT_EQ(Text.Get() + Code.Get(), "textcode");
        EXPECT_EQ(Content.Get(), Bytes{7});
        EXPECT_EQ(Number.Get(), 7);
        EXPECT_EQ(Numbers.Get(), std::vector<int32_t>{7});
    }
    void Call(std::string_view command, std::initializer_list<Value> args) {
        const Library &library = TheLibrary();
        const uint32_t type = library.Info().Commands[library.CommandIndex(command)].ReturnType;
        const bool isLogical = type == kLogical && command != "ServerSetTimeout";
        const CallResult result = Host.Call(command, args);
        EXPECT_EQ(result.Number, isLogical          ? 0
                                 : type == kInteger ? -1
                                                    : kUntouchedNumber)
            << command;
        EXPECT_FALSE(result.WrittenBeyond) << command;
    }
    void CallForMessage(HostWord message, const Value &code, const Value &text,
                        const Value &content, const Value &number) {
        Call("GetRequestText", {Value::Address(message), code, text});
        Call("GetRequestBin", {Value::Address(message), code, content});
        Call("GetClientHandle", {Value::Address(message), number});
    }
    void CallForNoMessage() {
        CallForMessage(0, Value::Output(Code), Value::Output(Text), Value::Output(Content),
                       Value::Output(Number));
        Call("GetMsgKind", {Value::Address(0)});
    }
    void CallForHandle(int32_t handle) {
        CallSend(Value::Integer(handle));
        Call("GetClientIPAddr", {Value::Integer(handle), Value::Output(Text)});
        Call("Disconnect", {Value::Integer(handle)});
    }
    void CallSend(const Value &to) {
        Call("SendText", {to, Value::Text("good")});
        Call("SendBinary", {to, Value::ByteSet(BytesOf("good"))});
    }

    Server &Host;
    TextVariable Text{TheHeap(), "text"};
    TextVariable Code{TheHeap(), "code"};
    ByteSetVariable Content{TheHeap(), Bytes{7}};
    IntegerVariable Number{TheHeap(), 7};
    IntegerArrayVariable Numbers{TheHeap(), {7}};
};

} // namespace

TEST_F(Commands, OfAnObjectNotStartedOrNotAliveRefuseEverything) {
    Server neverConstructed(TheLibrary(), kNeverConstructed);
    Server released(TheLibrary());
    Server created(TheLibrary()); // before the other's address is free again
    released.Release();
    for (Server *server : {&neverConstructed, &released, &created}) {
        const uint64_t freed = TheHeap().CallCounts().Free + TheHeap().CallCounts().FreeArray;
        Refusals refuse(*server);
        refuse.CallForNoMessage();
        refuse.CallForHandle(0);
        refuse.Call("GetClientCount", {});
        refuse.Call("GetAllClient", {Value::Output(refuse.Numbers)});
        refuse.Call("StopServer", {});
        refuse.Call("ServerSetTimeout", {});
        if (server != &created) {
            refuse.Call("SetPoolThreadNum", {Value::Integer(5), Value::Integer(20)});
            const Value port = Value::Integer(FreePort());
            refuse.Call("StartServer", {port, Value::Subroutine(1U), Value::Omitted()});
            refuse.Call("ServerRelease", {});
        }
        EXPECT_EQ(TheHeap().CallCounts().Free + TheHeap().CallCounts().FreeArray, freed);
    }
}

TEST_F(Commands, RefuseBadArgumentsAndChangeNothing) {
    EchoServer server(false, [](Server &host, const Event &event) {
        Refusals refuse(host);
        const std::string handle = std::to_string(event.Handle);
        for (const char *format :
             {"", "#", "#0011", "%", "%#", "%#001", "x%#0011", " %#0011", "-%#0011", "+%#0011",
              "% #0011", "0000000000%#0011", "%1#0011"}) {
            std::string code = format;
            const size_t at = code.find('%');
            refuse.CallSend(Value::Text(at > 10 ? code : code.replace(at, 1, handle)));
        }
        refuse.CallSend(Value::Text(std::to_string(event.Handle + (int64_t{1} << 32)) + "#0011"));
        refuse.CallSend(Value::NullText());
        for (const TypeCode type : {kNoType, kLogical, kByteSet, kAnyType, kSubroutinePointer}) {
            refuse.CallSend(Value::Any(static_cast<HostWord>(event.Handle), type));
        }
        for (const int32_t unknown : {0, -1, 65535, INT32_MAX, event.Handle + 1}) {
            refuse.CallForHandle(unknown);
        }
        const Value to = Value::Text(event.Code);
        refuse.Call("SendText", {to, Value::NullText()});
        refuse.Call("SendText", {to, Value::Text("")});
        refuse.Call("SendBinary", {to, Value::NullByteSet()});
        refuse.Call("SendBinary", {to, Value::ByteSet({})});
        for (const auto &[dimensions, count] : {std::pair(0, 1), {2, 1}, {1, 0}, {1, -1}}) {
            const ByteSpan byte = BytesOf("g");
            refuse.Call("SendBinary", {to, Value::WrongByteSet(dimensions, count, byte)});
        }
        refuse.CallForNoMessage();
        const Value nowhere = Value::Any(0, kInteger);
        refuse.CallForMessage(event.Message, Value::Output(refuse.Code), nowhere, nowhere, nowhere);
        refuse.CallForMessage(event.Message, nowhere, Value::Output(refuse.Text),
                              Value::Output(refuse.Content), nowhere);
        refuse.Call("GetClientIPAddr", {Value::Integer(event.Handle), nowhere});
        refuse.Call("GetAllClient", {nowhere});
        return host.SendText(event.Code + "34", "long codes are cut");
    });
    EXPECT_EQ(Peer(server.Port()).Ask("0012", "hello"), "long codes are cut");
}

// Each allocation of a command in turn yields null, once and for ever.
TEST_F(Commands, FailOnAnExhaustedHostHeapAndLoseNothing) {
    EchoServer server(true, [](Server &host, const Event &event) {
        const auto exhaust = [](int allocations, auto command) {
            for (int i = 0; i < 2 * (allocations + 1); ++i) {
                TextVariable code(TheHeap(), "code");
                TextVariable text(TheHeap(), "text");
                ByteSetVariable content(TheHeap(), Bytes{7});
                IntegerArrayVariable numbers(TheHeap(), {7});
                const Value out[] = {Value::Output(code), Value::Output(text),
                                     Value::Output(content), Value::Output(numbers)};
                TheHeap().FailAllocation(static_cast<uint64_t>(1 + i / 2), i % 2 == 1);
                const CallResult result = command(out);
                TheHeap().StopFailing();
                EXPECT_EQ(result.Number, i / 2 == allocations) << allocations << "/" << i;
                text.Get(), code.Get(), content.Get(), numbers.Get(); // must be sound, or null
            }
        };
        const Value message = Value::Address(event.Message);
        const Value handle = Value::Integer(event.Handle);
        using Out = const Value *;
        exhaust(2, [&](Out out) { return host.Call("GetRequestText", {message, out[0], out[1]}); });
        exhaust(2, [&](Out out) { return host.Call("GetRequestBin", {message, out[0], out[2]}); });
        exhaust(1, [&](Out out) { return host.Call("GetAllClient", {out[3]}); });
        exhaust(1, [&](Out out) { return host.Call("GetClientIPAddr", {handle, out[1]}); });
        return false;
    });
    EXPECT_EQ(Peer(server.Port()).Ask("0011", "hello"), "hello");
}

// Handlers and the host's service that pop their arguments or spoil what they should keep.
TEST_F(Commands, WorkInEveryMannerOfCallingAndAtEveryStackOffset) {
    Servers servers;
    for (const Manner manner : kManners) {
        const auto useAll = [](Server &host, const Event &event) {
            return host.GetClientIPAddr(event.Handle) == kLoopback && host.GetClientCount() > 0 &&
                   !host.GetAllClient()->empty() && host.SendText(event.Code, "all") &&
                   host.GetRequestText(event.Message)->Text == "hello" &&
                   host.SendBinary(event.Handle, BytesOf("push"));
        };
        servers.emplace_back(true, useAll, manner);
    }
    for (const Manner manner : kManners) {
        const Library again(NRPC_LIBRARY, TheHeap(), Library::kHandOverService, manner);
        for (const int offset : {0, 4, 8, 12}) {
            TheLibrary().SetStackOffset(offset);
            EXPECT_TRUE(Server(TheLibrary()).SetPoolThreadNum(1, 1));
            for (EchoServer &server : servers) {
                EXPECT_EQ(Peer(server.Port()).Ask("0011", "hello"), "all");
                EXPECT_TRUE(server->GetAllClient());
                EXPECT_EQ(std::fegetround(), FE_TONEAREST) << "the service left it changed";
            }
        }
        TheLibrary().HandOverService();
    }
    StopTogether(servers);
}

TEST_F(Commands, CountListAddressPushToAndDisconnectClients) {
    EchoServer server;
    const auto all = [&] { return server->GetAllClient().value(); };
    EXPECT_EQ(server->GetClientCount(), 0);
    EXPECT_EQ(all(), std::vector<int32_t>());
    // They are listed as they came until the first one is served again, some 100 ms later.
    EXPECT_TRUE(Until([&] {
        const int64_t begin = NowMs();
        std::deque<Peer> peers;
        std::vector<int32_t> lists[4];
        for (size_t count = 1; count <= 3; ++count) {
            peers.emplace_back(server.Port());
            EXPECT_TRUE(Until([&] { return (lists[count] = all()).size() == count; }));
        }
        const bool inTime = NowMs() - begin < 80;
        EXPECT_TRUE(!inTime || lists[3] == (std::vector{lists[1][0], lists[2][1], lists[3][2]}));
        peers.clear();
        return Until([&] { return server->GetClientCount() == 0; }) && inTime;
    }));

    Peer first(server.Port());
    EXPECT_EQ(first.Ask("0011", "hello"), "hello");
    const int32_t handle = all().at(0);
    EXPECT_EQ(server->GetClientIPAddr(handle), kLoopback);
    for (const char *id : {"0006", "0007", "0008", "0009", "0005", "0006"}) {
        EXPECT_TRUE(server->SendText(handle, "push"));
        EXPECT_EQ(first.Receive(), (Arrived{id, "push"}));
    }
    Peer second(server.Port());
    EXPECT_TRUE(Until([&] { return server->GetClientCount() == 2; }));
    server->Disconnect(second.Descriptor()); // open, but no handle
    server->Disconnect(handle);
    EXPECT_EQ(first.ReadToEnd(), "<Msg0000>0</Msg0000>");
    EXPECT_FALSE(server->SendText(handle, "late"));
    EXPECT_EQ(second.Ask("0011", "hello"), "hello");

    const int32_t stuck = all().at(0); // it never reads what comes now
    EXPECT_TRUE(server->SendText(stuck, Pattern(32U << 20)));
    int waiting = 0;
    EXPECT_TRUE(Until([&] {
        const int before = waiting;
        ioctl(second.Descriptor(), FIONREAD, &waiting);
        usleep(200000);
        return waiting > 0 && waiting == before;
    }));
    const int64_t duration = MillisecondsOf([&] { server->Disconnect(stuck); });
    EXPECT_GE(duration, 800) << "about a second";
    EXPECT_LE(duration, 5000);
    EXPECT_EQ(server->GetClientCount(), 0);
    EXPECT_TRUE(second.ReadToEnd());
    const auto count = [&](int32_t kind) { return server.Count(kind); };
    EXPECT_TRUE(Until([&] { return count(kClientDisconnected) == count(kClientConnected); }));
}
