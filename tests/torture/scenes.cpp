// What a process under torture does with the library, and what must hold whatever fails.
#include <link.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstring>
#include <deque>
#include <map>

#include "system/support.h"
#include "torture/torture.h"

namespace nrpc::torture {

using namespace hostkit;
using tests::NowMs, tests::Pattern, tests::TheHeap, tests::TheLibrary;

// The longest that commands may take, and what a crowded machine may add.
static constexpr int kStopMs = 6000;
static constexpr int kReplyMs = 2000;
static constexpr int kBrokenOffMs = 22000; // more, for a reply that ends in the middle
static constexpr int kSlackMs = 3000;

static std::atomic<bool> s_Exact;  // the fault must not be noticed now
static std::atomic<bool> s_Obeyed; // requests that order something; late ones are just answered
static std::atomic<int> s_Fell;

static void Must(bool holds, const std::string &what) {
    if (!holds) {
        ++s_Fell;
        printf("fell: %s\n", what.c_str());
        fflush(stdout);
    }
}

static void Should(bool holds, const char *what) {
    Must(holds || !s_Exact, what);
}

static bool Until(const std::function<bool()> &condition, int ms) {
    return tests::Until(condition, ms / 1000.0);
}

namespace {

// The scope that it lives in ends in time.
class TimeLimit {
  public:
    TimeLimit(const char *what, int ms) : m_What(what), m_Limit(ms + kSlackMs) {}
    ~TimeLimit() {
        const int64_t took = NowMs() - m_Begin;
        Must(took <= m_Limit, std::string(m_What) + " took " + std::to_string(took) + " ms");
    }

  private:
    const char *m_What;
    const int64_t m_Limit, m_Begin = NowMs();
};

// --- the actors -------------------------------------------------------------------------------

// Has a host's object, made anew where it could not be made or was released. To be released before
// it goes: handlers may run until then.
template <typename Kind>
class Actor {
  public:
    Kind &Object() {
        const std::lock_guard guard(m_Lock);
        return m_All.empty() ? m_All.emplace_back(TheLibrary()) : m_All.back();
    }
    void Release() {
        const TimeLimit limit("release", kStopMs);
        for (Kind &object : m_All) {
            object.Release();
        }
    }

  protected:
    void Renew() {
        const std::lock_guard guard(m_Lock);
        m_All.emplace_back(TheLibrary());
        m_Made = false;
    }
    void RenewIfUnmade() {
        if (Object().Members().back() != 0) { // its record
            m_Made = true;
            return;
        }
        Must(!m_Made, "an object has lost its record");
        Renew();
    }

  private:
    std::mutex m_Lock;
    std::deque<Kind> m_All;
    bool m_Made = false;
};

// Answers requests with their content, or does what they say.
class EchoServer : public Actor<Server> {
  public:
    explicit EchoServer(bool serial) : m_Serial(serial) {}
    ~EchoServer() {
        for (const auto &[handle, count] : m_Present) {
            Must(count >= 0, "more ends than connects of a client");
        }
    }
    int32_t Port() const { return m_Port; }
    bool Start() {
        RenewIfUnmade();
        Object().SetPoolThreadNum(2, 5);
        for (int attempt = 0; attempt < 3 && !m_Runs; ++attempt) { // others look for ports, too
            const TimeLimit limit("start", kStopMs);
            m_Port = FreePort();
            m_Runs = Object().StartServer(
                m_Port, [this](HostWord message) { Handle(message); }, m_Serial);
        }
        Should(m_Runs, "server not started");
        return m_Runs;
    }
    bool Runs() const { return m_Runs; }
    void Stop() {
        const TimeLimit limit("stop", kStopMs);
        Object().StopServer();
        m_Runs = false;
    }
    void Push(const std::string &text) {
        const auto handles = Object().GetAllClient().value_or(std::vector<int32_t>());
        Should(!handles.empty(), "no clients");
        for (const int32_t handle : handles) {
            const auto address = Object().GetClientIPAddr(handle);
            Should(address.has_value(), "no address of a client");
            Must(!address || address == "127.0.0.1", "a wrong address of a client");
            Should(Object().SendText(handle, text), "push refused");
        }
    }
    // The server's own end inside its handler, if the request for it comes in time.
    void AwaitEndInside() {
        Should(Until([this] { return m_Endings > 0; }, kReplyMs), "end not asked for");
        SettleEndInside();
    }
    void SettleEndInside() {
        Must(Until([this] { return m_Ended == m_Endings; }, kStopMs + kSlackMs), "endless end");
    }

  private:
    void Handle(HostWord message) {
        Server &server = Object();
        const int32_t kind = server.GetMsgKind(message);
        const int32_t handle = server.GetClientHandle(message).value_or(0);
        if (kind != kRequest) { // two workers may have both, in any order
            const std::lock_guard guard(m_Lock);
            m_Present[handle] += kind == kClientConnected ? 1 : -1;
            return;
        }
        const auto request = server.GetRequestText(message);
        const auto bytes = server.GetRequestBin(message);
        Should(request && bytes, "no request in its handler");
        const std::string order = request && bytes && s_Obeyed ? request->Text : "";
        while (order == "stay") {
            pause(); // until the library ends it: what this frame holds is the test's own memory
        }
        if (order == "kick") {
            server.Disconnect(handle);
        } else if (order == "stop" || order == "release") {
            ++m_Endings;
            order == "stop" ? server.StopServer() : server.Release();
            m_Runs = false;
            ++m_Ended;
        } else if (request && bytes) {
            usleep(order == "hold" ? 400000 : order.starts_with("slow") ? 150000 : 0);
            request->Text.size() % 2 == 0 ? server.SendText(request->Code, request->Text)
                                          : server.SendBinary(bytes->Code, bytes->Content);
        }
    }

    const bool m_Serial;
    int32_t m_Port = 1;
    std::atomic<bool> m_Runs = false;
    std::atomic<int> m_Endings = 0, m_Ended = 0;
    std::mutex m_Lock;
    std::map<int32_t, int> m_Present; // by handle, under m_Lock
};

class Caller : public Actor<Client> {
  public:
    virtual ~Caller() = default;
    virtual bool IsAnswered(const std::string &text, int ms) = 0;
    bool Connect(const EchoServer &server, const char *address = "127.0.0.1") {
        RenewIfUnmade();
        m_Port = server.Port();
        // A moment is allowed for: the call that tells of an end is part of the old connection.
        const bool works = Until([&] { return TryToConnect(m_Port, address); }, kReplyMs / 4);
        Should(works, "client not connected");
        return works;
    }
    void Disconnect() {
        const TimeLimit limit("disconnect", kStopMs);
        Object().ClientdisConnect();
    }
    // Is answered at once, at most over a new connection.
    void ExpectService(const EchoServer &server) {
        if (m_Port != server.Port() || !IsAnswered("probe", kReplyMs / 2)) {
            Disconnect();
            Must(Connect(server), "no new connection");
            Must(IsAnswered("probe anew", 2 * kReplyMs), "no reply over a new connection");
        }
    }

  protected:
    virtual bool TryToConnect(int32_t port, const char *address) = 0;

  private:
    int32_t m_Port = 0;
};

class SynCaller : public Caller {
  public:
    bool IsAnswered(const std::string &text, int ms) override {
        const TimeLimit limit("request", ms + kBrokenOffMs);
        const TextReply reply = Object().SendSynRequestText(text, ms);
        Must(reply.Result != 1 || reply.Text == text, "another reply: " + reply.Text);
        Must(reply.Result >= -1 && reply.Result <= 1, "odd result of a request");
        return reply.Result == 1;
    }
    void ExpectEcho(const std::string &text) {
        Should(IsAnswered(text, kReplyMs), "no reply");
        const TimeLimit limit("request of bytes", kReplyMs + kBrokenOffMs);
        const BinReply reply = Object().SendSynRequestBin(BytesOf(text), kReplyMs);
        Should(reply.Result == 1, "no reply to bytes");
        Must(reply.Result != 1 || std::ranges::equal(reply.Content, BytesOf(text)), "other bytes");
    }

  private:
    bool TryToConnect(int32_t port, const char *address) override {
        const TimeLimit limit("connect", kReplyMs);
        return Object().ClientConnect(port, address);
    }
};

class AsynCaller : public Caller {
  public:
    void Send(const std::string &text) {
        {
            const std::lock_guard guard(m_Lock);
            ++m_Open[text];
        }
        Should(Object().SendAsynRequestText(text), "asynchronous request refused");
    }
    bool GetsReply(const std::string &text, int ms) {
        const auto isThere = [&] {
            const std::lock_guard guard(m_Lock);
            return m_Open[text] == 0;
        };
        return Until(isThere, ms);
    }
    bool IsAnswered(const std::string &text, int ms) override {
        Send(text);
        return GetsReply(text, ms);
    }
    void ExpectReply(const std::string &text) {
        Should(GetsReply(text, s_Exact ? 3 * kReplyMs : kReplyMs / 4), "a reply is missing");
    }
    void Expect(const std::atomic<int> &count, int least) {
        Should(Until([&] { return count >= least; }, kReplyMs), "an event is missing");
    }
    std::atomic<int> Ends = 0, Pushes = 0, Left = 0;

  private:
    bool TryToConnect(int32_t port, const char *address) override {
        Client &client = Object();
        auto ends = std::make_shared<std::atomic<int>>(0);
        const TimeLimit limit("connect", kReplyMs);
        return client.ClientConnect(port, address, [this, port, &client, ends](HostWord message) {
            if (client.ClientGetMsgKind(message) == kConnectionClosed) {
                Must(++*ends == 1, "an end was reported twice");
                ++Ends;
            } else if (const auto text = client.GetResultText(message)) {
                Take(*text, port);
            }
        });
    }
    void Take(const std::string &text, int32_t port) {
        if (text.starts_with("push")) {
            ++Pushes;
            return;
        }
        {
            const std::lock_guard guard(m_Lock);
            const auto open = m_Open.find(text);
            Must(open != m_Open.end() && open->second-- > 0, "unasked message " + text);
        }
        if (text == "leave" && s_Obeyed) { // the connection ends inside its handler
            Disconnect();
            Should(TryToConnect(port, "127.0.0.1"), "no connection made inside the handler");
            ++Left;
        } else if (text == "quit" && s_Obeyed) { // the object does
            Object().Release();
            Renew();
            ++Left;
        }
    }

    std::mutex m_Lock;
    std::map<std::string, int> m_Open; // replies to come, under m_Lock
};

// --- the scenes -------------------------------------------------------------------------------

struct Stage {
    explicit Stage(bool serial) : Serving(serial) {}
    EchoServer Serving, Other{true};
    SynCaller Syn[3];
    AsynCaller Asyn[2];
};

// Requests of all sizes, one that is cancelled, a name that is none, pushes, a kick.
void ActLife(Stage &on) {
    on.Serving.Start();
    on.Syn[0].Connect(on.Serving, "localhost");
    on.Syn[1].Connect(on.Serving);
    on.Syn[0].ExpectEcho("short");
    on.Syn[0].ExpectEcho(Pattern(20000, 1));
    on.Syn[1].ExpectEcho(Pattern(30001, 2));
    Must(!on.Syn[2].Object().ClientConnect(on.Serving.Port(), std::string(300, '.')), "no name");
    on.Syn[0].IsAnswered("hold", 100);
    on.Serving.Push("push");
    on.Syn[1].IsAnswered("kick", 300);
    on.Syn[0].ExpectEcho("after");
}

void EndLife(Stage &on) {
    on.Syn[0].Disconnect();
    on.Serving.Stop();
}

// Bursts for which the pools grow, pushes of several packets, a kick and a connection after it; a
// stop before the clients go.
void ActBursts(Stage &on) {
    on.Serving.Start();
    on.Asyn[0].Connect(on.Serving);
    on.Asyn[1].Connect(on.Serving);
    const std::string slow[] = {"slow0", "slow1", "slow2", "slow3", "slow4", "slow5"};
    for (const std::string &text : slow) {
        on.Asyn[0].Send(text);
    }
    on.Asyn[1].Send(Pattern(20000, 3));
    for (const std::string &text : slow) {
        on.Asyn[0].ExpectReply(text);
    }
    on.Asyn[1].ExpectReply(Pattern(20000, 3));
    on.Serving.Push("push" + Pattern(20000, 4));
    on.Asyn[0].Expect(on.Asyn[0].Pushes, 1);
    on.Asyn[1].Expect(on.Asyn[1].Pushes, 1);
    on.Asyn[0].Send("kick");
    on.Asyn[0].Expect(on.Asyn[0].Ends, 1);
    on.Asyn[0].Connect(on.Serving);
    on.Asyn[0].Send("again");
    on.Asyn[0].ExpectReply("again");
}

void EndBursts(Stage &on) {
    on.Asyn[1].Send(Pattern(9000, 5));
    on.Serving.Stop();
    on.Asyn[0].Expect(on.Asyn[0].Ends, 2);
    on.Asyn[1].Disconnect();
}

// Connections, clients and servers end inside their own handlers; a handler stays through the stop.
void ActInside(Stage &on) {
    on.Serving.Start();
    on.Other.Start();
    on.Asyn[0].Connect(on.Serving);
    on.Asyn[1].Connect(on.Other);
    on.Asyn[0].Send("leave");
    on.Asyn[1].Send("quit");
    on.Asyn[0].Expect(on.Asyn[0].Left, 1);
    on.Asyn[1].Expect(on.Asyn[1].Left, 1);
    on.Asyn[0].Send("back");
    on.Asyn[0].ExpectReply("back");
    on.Syn[0].Connect(on.Serving);
    on.Syn[1].Connect(on.Other);
    on.Syn[0].IsAnswered("stop", 200);
    on.Syn[1].IsAnswered("release", 200);
    on.Serving.AwaitEndInside();
    on.Other.AwaitEndInside();
    on.Serving.Start();
    on.Syn[0].Disconnect();
    on.Syn[0].Connect(on.Serving);
    on.Syn[0].ExpectEcho("restarted");
}

void EndInside(Stage &on) {
    on.Syn[0].IsAnswered("stay", 200);
    on.Serving.Stop();
}

constexpr struct {
    bool Serial;
    void (*Act)(Stage &on);
    void (*End)(Stage &on);
} s_Scenes[] = {{true, ActLife, EndLife}, // in the order of kScenes
                {false, ActBursts, EndBursts},
                {false, ActInside, EndInside}};
static_assert(std::size(s_Scenes) == std::size(kScenes));

} // namespace

// --- one process ------------------------------------------------------------------------------

static void ArmFault(bool on, const Fault *fault) {
    const bool failsHost = fault != nullptr && fault->Where.Call == "host";
    const uint64_t done = TheHeap().CallCounts().Alloc;
    TheHeap().StopFailing();
    if (on && failsHost && (fault->ForEver || done < fault->Nth)) {
        TheHeap().FailAllocation(done < fault->Nth ? fault->Nth - done : 1, fault->ForEver);
    }
    s_Obeyed = on;
    Arm(on);
}

// The fault is over: what it left must serve at once, and count nobody who is not served.
static void ExpectService(Stage &on, const char *when) {
    const bool exact = s_Exact.exchange(false);
    on.Serving.SettleEndInside();
    Must(on.Serving.Runs() || on.Serving.Start(), std::string("server not started ") + when);
    Caller *const callers[] = {&on.Syn[0], &on.Syn[1], &on.Syn[2], &on.Asyn[0], &on.Asyn[1]};
    for (Caller *caller : callers) {
        caller->ExpectService(on.Serving);
    }
    const auto isAll = [&] { return on.Serving.Object().GetClientCount() == 5; };
    Must(Until(isAll, kReplyMs), std::string("clients counted that are none ") + when);
    s_Exact = exact;
}

static void ExpectNothingLeft() {
    int others = 0;
    const auto isClear = [&] {
        others = tests::TakeCensus().Threads - 1;
        return others == 0 && Outstanding().empty();
    };
    Until(isClear, kStopMs);
    Must(others == 0, std::to_string(others) + " threads left");
    for (const auto &lines : {Outstanding(), Misdeeds()}) {
        std::ranges::for_each(lines, [](const std::string &line) { Must(false, line); });
    }
    for (const Heap::Violation &violation : TheHeap().Violations()) {
        Must(false, ToText(violation));
    }
    Must(TheHeap().LiveBlockCount() == 0, "host values left");
}

static void ExpectNoSpin(double wallSeconds) {
    rusage usage = {};
    getrusage(RUSAGE_SELF, &usage);
    const double seconds = static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec);
    Must(seconds < 1.5 + wallSeconds / 4, "spins: " + std::to_string(seconds) + " s");
}

static int WatchLibrary(dl_phdr_info *object, size_t, void *fault) {
    uintptr_t end = 0;
    for (int i = 0; i < object->dlpi_phnum; ++i) {
        end = std::max<uintptr_t>(end, object->dlpi_phdr[i].p_vaddr + object->dlpi_phdr[i].p_memsz);
    }
    const bool isIt = strcmp(object->dlpi_name, NRPC_LIBRARY) == 0;
    isIt ? Watch(object->dlpi_addr, object->dlpi_addr + end, static_cast<Fault *>(fault)) : void();
    return isIt ? 1 : 0;
}

static void OnSignal(int signal) {
    char command[200];
    snprintf(command, sizeof(command),
             "echo fell: %s; timeout 20 gdb -p %d -batch -ex 'thread apply all bt 14' 2>&1 |"
             " grep -E '^(Thread|#)'",
             signal == SIGALRM ? "hangs" : strsignal(signal), getpid());
    _exit(system(command) == 0 ? 1 : 2);
}

Result PlayScene(std::string_view name, const Fault *fault, bool exact) {
    for (const int number : {SIGSEGV, SIGABRT, SIGBUS, SIGFPE, SIGILL, SIGALRM}) {
        signal(number, OnSignal);
    }
    signal(SIGPIPE, SIG_DFL);
    prctl(PR_SET_PTRACER, PR_SET_PTRACER_ANY); // for the debugger
    const int64_t begin = NowMs();
    TheHeap().SetPoison(true);
    TheLibrary();
    dl_iterate_phdr(WatchLibrary, const_cast<Fault *>(fault));
    const auto &scene = s_Scenes[std::ranges::find(kScenes, name) - kScenes];
    s_Exact = exact;
    {
        Stage on(scene.Serial);
        ArmFault(true, fault);
        scene.Act(on);
        ArmFault(false, fault);
        ExpectService(on, "after the fault");
        ArmFault(true, fault);
        scene.End(on);
        ArmFault(false, fault);
        ExpectService(on, "after the stop");
        Hurry();
        on.Asyn[0].Release();
        on.Syn[0].Release();
        on.Serving.Release();
        on.Other.Release();
        on.Asyn[1].Release(); // after its server, as the others
        on.Syn[1].Release();
        on.Syn[2].Release();
    }
    ExpectNothingLeft();
    ExpectNoSpin(static_cast<double>(NowMs() - begin) / 1000);
    const auto hostCalls = static_cast<unsigned>(TheHeap().CallCounts().Alloc);
    std::map<Place, unsigned> hits = Hits();
    hits[{"host", 0, "any"}] = hostCalls;
    const bool failsHost = fault != nullptr && fault->Where.Call == "host";
    return {s_Fell == 0, failsHost ? hostCalls >= fault->Nth : HasFired(), hits};
}

} // namespace nrpc::torture
