#include "server_commands/lifecycle.h"

#include "host/routine.h"
#include "server/accept.h"
#include "server/start_stop.h"
#include "server_commands/server_object.h"

namespace nrpc {

using Server = HeldObject<ServerContext, kServerObject>;

static constexpr uint32_t kHighestPort = 65535;
// Longer than any stop takes.
static constexpr uint64_t kOtherCommandMs = 7000;

namespace {

// One lifecycle command at a time works on a server.
class Turn {
  public:
    // What a command does with it. Only an ending waits for threads in the handler.
    enum Use : int32_t { kNone, kChange, kEnding };
    // Gets the turn at once or not at all.
    [[nodiscard]] Turn(const Server &server, Use use) : m_Context(server.Get()), m_Use(use) {
        Try();
    }
    ~Turn() {
        if (m_Got) {
            m_Context->LifecycleUse = kNone;
        }
    }
    Turn(const Turn &) = delete;
    Turn &operator=(const Turn &) = delete;
    explicit operator bool() const { return m_Got; }

    // Waits for another thread's command to end, but not on a thread that the command waits for.
    void Wait() {
        const uint64_t until = MonotonicMs() + kOtherCommandMs;
        while (!m_Got && MonotonicMs() < until &&
               (m_Context->LifecycleUse != kEnding || !IsRoutineThreadOf(m_Context))) {
            MySleep(1);
            Try();
        }
    }

  private:
    void Try() {
        int32_t none = kNone;
        m_Got = m_Context->LifecycleUse.compare_exchange_strong(none, m_Use);
    }

    ServerContext *m_Context;
    const Use m_Use;
    bool m_Got = false;
};

} // namespace

// A record in the place of one that still has a thread inside: same sizes, handler and mode.
static void Renew(Server &server) {
    ServerContext *fresh = TakeSpare(server.Get());
    if (fresh != nullptr) {
        fresh->MinThreadNum = server->MinThreadNum.load();
        fresh->MaxThreadNum = server->MaxThreadNum.load();
        fresh->ProcessFunc = server->ProcessFunc;
        fresh->ProcessMode = server->ProcessMode;
    }
    server.Renew(fresh);
}

static void ReleaseEngine(Server &server, bool isDeserted) {
    if (isDeserted) {
        SockUnInit(server.Get());
    }
    server->StartFlag = 0;
    if (!isDeserted) {
        Renew(server);
    }
}

NRPC_HOST_ENTRY void fnCreateServer(HostValue *, int32_t, HostValue *args) {
    CancelShield shield;
    if (args[0].Slot != nullptr) {
        *args[0].Slot = reinterpret_cast<HostWord>(CreateServerContext());
    }
}

NRPC_HOST_ENTRY void fnSetPoolThreadNum(HostValue *result, int32_t, HostValue *args) {
    ServerObject object(args);
    Server &server = object.Any();
    const int32_t least = args[1].Number;
    const int32_t greatest = args[2].Number;
    result->Number = 0;
    if (!server || least < 1 || least > greatest) {
        return;
    }
    const Turn turn(server, Turn::kChange);
    if (turn && server->StartFlag == 0) {
        server->MinThreadNum = least;
        server->MaxThreadNum = greatest;
        result->Number = 1;
    }
}

static bool Start(Server &server, uint16_t port) {
    ServerContext *context = server.Get();
    pthread_sigmask(SIG_SETMASK, nullptr, &context->HostMask);
    if (!PrepareRoutines() || !KeepSpare(context) ||
        SockInit(context, context->MinThreadNum, context->MaxThreadNum) != 1) {
        return false;
    }
    // Before the first client can connect: its handler call must find a started server.
    Gate_Open(&context->Commands);
    context->StartFlag = 1;
    if (StartServer(context, port) == 1 && AcceptThread(context) == 1) {
        return true;
    }
    ReleaseEngine(server, AbortStart(context));
    return false;
}

NRPC_HOST_ENTRY void fnStartServer(HostValue *result, int32_t, HostValue *args) {
    ServerObject object(args);
    Server &server = object.Any();
    const auto port = static_cast<uint32_t>(args[1].Number);
    const HostWord handler = args[2].Word;
    const HostValue &mode = args[3];
    result->Number = 0;
    if (!server || port > kHighestPort || handler == 0) {
        return;
    }
    const Turn turn(server, Turn::kChange);
    if (turn && server->StartFlag == 0) {
        server->ProcessFunc = handler;
        server->ProcessMode = mode.TypeCode == kNoType ? kSerialMode : mode.Number;
        result->Number = Start(server, static_cast<uint16_t>(port)) ? 1 : 0;
    }
}

NRPC_HOST_ENTRY void fnStopServer(HostValue *, int32_t, HostValue *args) {
    ServerObject object(args);
    Server &server = object.Any();
    if (!server) {
        return;
    }
    Turn turn(server, Turn::kEnding);
    turn.Wait();
    if (turn && server->StartFlag != 0) {
        ReleaseEngine(server, StopServer(server.Get()));
        StopAcceptThread();
    }
}

// False when another record took the place of this one meanwhile.
static bool ReleaseRecord(const HostValue *args) {
    ServerObject object(args);
    Server &server = object.Any();
    if (!server) {
        return true;
    }
    Turn turn(server, Turn::kEnding);
    turn.Wait();
    if (turn && server->StartFlag != 0 && StopServer(server.Get())) {
        SockUnInit(server.Get());
    }
    server->StartFlag = 0;
    return server.Release();
}

NRPC_HOST_ENTRY void fnServerRelease(HostValue *, int32_t, HostValue *args) {
    while (!ReleaseRecord(args)) {
    }
}

// The network timeout cannot be changed; the command is kept for programs that call it.
NRPC_HOST_ENTRY void fnClientDemo4(HostValue *, int32_t, HostValue *) {}

} // namespace nrpc
