// nrpc-host demo-server: the server process of the demonstration.
#include <unistd.h>

#include <mutex>
#include <thread>

#include "demo.h"

namespace nrpc::tool {

using namespace hostkit;

// Looks often, so that a demonstration loses little time. False: it did not come true in time.
template <typename Condition>
static bool WaitUntil(Condition condition) {
    for (int32_t waited = 0; !condition(); waited += 5) {
        if (waited >= kPatientMs) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

namespace {

class DemoServer {
  public:
    DemoServer(Library &library, Findings &findings) : m_Findings(findings), m_Server(library) {}
    int32_t Start(); // answers the port
    void CheckEvents();
    void Stop(int32_t port);

  private:
    void OnMessage(HostWord message);
    void OnConnect(int32_t handle);
    void OnRequest(HostWord message);
    void OnText(const std::string &code, const std::string &text);
    void OnBytes(const std::string &code, const Bytes &content);
    std::vector<int32_t> KindsSeen();

    Findings &m_Findings;
    Server m_Server;
    std::mutex m_Lock;
    std::vector<int32_t> m_Kinds;   // of all events in order, under m_Lock
    std::vector<int32_t> m_Handles; // their clients
    // The slow request waits for the next one, and the next one for the late reply to the slow one.
    std::atomic<bool> m_NextArrived{false};
    std::atomic<bool> m_LateReplySent{false};
};

} // namespace

int32_t DemoServer::Start() {
    constexpr int kTries = 5; // somebody else may be faster with the free port
    const auto handler = [this](HostWord message) { OnMessage(message); };
    for (int i = 0; i < kTries; ++i) {
        const int32_t port = FreePort();
        if (m_Server.StartServer(port, handler, false)) {
            m_Findings.Check(m_Server.GetClientCount() == 0,
                             "StartServer: listening on port {}, handler calls in parallel", port);
            PrintLine("port {}", port);
            return port;
        }
    }
    throw std::runtime_error("the service does not start");
}

void DemoServer::OnMessage(HostWord message) {
    const int32_t kind = m_Server.GetMsgKind(message);
    const int32_t handle = m_Server.GetClientHandle(message).value_or(-1);
    {
        const std::lock_guard<std::mutex> guard(m_Lock);
        m_Kinds.push_back(kind);
        m_Handles.push_back(handle);
    }
    if (kind == kClientConnected) {
        OnConnect(handle);
    } else if (kind == kRequest) {
        OnRequest(message);
    }
}

void DemoServer::OnConnect(int32_t handle) {
    const std::string address = m_Server.GetClientIPAddr(handle).value_or("nowhere");
    const auto all = m_Server.GetAllClient();
    m_Findings.Check(address == "127.0.0.1" && all == std::vector{handle},
                     "connect event: client {} from {}, the only one in the list", handle, address);
}

void DemoServer::OnRequest(HostWord message) {
    const auto asText = m_Server.GetRequestText(message);
    const auto asBytes = m_Server.GetRequestBin(message);
    if (!asText.has_value() || !asBytes.has_value() || asText->Code != asBytes->Code) {
        m_Findings.Check(false, "a request is not readable");
        return;
    }
    const bool isBytes = std::any_of(std::begin(kByteCounts), std::end(kByteCounts),
                                     [&](size_t n) { return n == asBytes->Content.size(); });
    if (isBytes) {
        OnBytes(asBytes->Code, asBytes->Content);
    } else {
        OnText(asText->Code, Utf8FromGbk(asText->Text));
    }
}

void DemoServer::OnBytes(const std::string &code, const Bytes &content) {
    const bool same = content == CountedBytes(content.size());
    m_Findings.Check(same && m_Server.SendBinary(code, Inverted(content)),
                     "request {}: {} bytes, all as sent; the reply is queued", code,
                     content.size());
}

void DemoServer::OnText(const std::string &code, const std::string &text) {
    if (text == kSlowRequest) {
        const bool waited = WaitUntil([this] { return m_NextArrived.load(); });
        m_Server.SendText(code, kLateReply);
        m_LateReplySent = true;
        m_Findings.Check(waited, "request {}: answered only after its client had given up", code);
    } else if (text == kNextRequest) {
        m_NextArrived = true;
        const bool waited = WaitUntil([this] { return m_LateReplySent.load(); });
        m_Findings.Check(waited && m_Server.SendText(code, kNextReply),
                         "request {}: the reply is queued behind the late one", code);
    } else {
        m_Findings.Check(text == kGreeting && m_Server.SendText(code, GbkFromUtf8(kGreetingReply)),
                         "request {}: text \"{}\"; the reply is queued", code, text);
    }
}

std::vector<int32_t> DemoServer::KindsSeen() {
    const std::lock_guard<std::mutex> guard(m_Lock);
    return m_Kinds;
}

// After the client has gone.
void DemoServer::CheckEvents() {
    const bool left = WaitUntil([this] {
        const auto kinds = KindsSeen();
        return !kinds.empty() && kinds.back() == kClientDisconnected;
    });
    m_Findings.Check(left && m_Server.GetClientCount() == 0,
                     "disconnect event: the client is gone from the list");
    const std::lock_guard<std::mutex> guard(m_Lock);
    // Calls run in parallel, so that only the numbers are certain.
    const auto seen = [this](int32_t kind) {
        return static_cast<size_t>(std::count(m_Kinds.begin(), m_Kinds.end(), kind));
    };
    const bool sameClient = std::all_of(m_Handles.begin(), m_Handles.end(),
                                        [this](int32_t h) { return h == m_Handles.front(); });
    m_Findings.Check(seen(kClientConnected) == 1 && seen(kRequest) == kRequestCount &&
                         seen(kClientDisconnected) == 1 && m_Kinds.size() == kRequestCount + 2 &&
                         sameClient,
                     "{} in all, each once: connect, {} requests, disconnect",
                     Counted(m_Kinds.size(), "event"), kRequestCount);
}

void DemoServer::Stop(int32_t port) {
    const auto start = std::chrono::steady_clock::now();
    m_Server.StopServer();
    const double ms = MsSince(start);
    Client late(m_Server.Of());
    m_Findings.Check(m_Server.GetClientCount() == -1 && !late.ClientConnect(port, "127.0.0.1"),
                     "StopServer: back after {:.1f} s, and nobody listens any more", ms / 1000);
}

static void WaitForEndOfInput() {
    char byte = 0;
    while (read(STDIN_FILENO, &byte, 1) > 0) {
    }
}

static int RunServer(const Program &program) {
    Heap heap;
    heap.SetPoison(true);
    Library library(LibraryPath(program), heap);
    Findings findings;
    {
        DemoServer server(library, findings);
        const int32_t port = server.Start();
        WaitForEndOfInput();
        server.CheckEvents();
        server.Stop(port);
    }
    findings.CheckHeap(heap);
    return findings.Status();
}

void AddDemoServer(CLI::App &app, Program &program) {
    CLI::App *demo = app.add_subcommand("demo-server", "the server process of the demonstration");
    demo->group(""); // not listed
    demo->callback([&program] { program.Status = RunServer(program); });
}

} // namespace nrpc::tool
