// nrpc-host demo-server: the server process of the demonstration.
#include <unistd.h>

#include <mutex>
#include <set>

#include "demo.h"

namespace nrpc::tool {

using namespace hostkit;

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
    // Of the asynchronous client; false when it is another's.
    bool OnAsynchronous(int32_t handle, const std::string &code, const std::string &text);
    void OnBytes(const std::string &code, const Bytes &content);
    size_t CountSeen(int32_t kind);

    Findings &m_Findings;
    Server m_Server;
    std::mutex m_Lock;
    std::vector<int32_t> m_Kinds; // of all events in order, under m_Lock
    std::set<int32_t> m_Handles;  // their clients, under m_Lock
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
        m_Handles.insert(handle);
    }
    if (kind == kClientConnected) {
        OnConnect(handle);
    } else if (kind == kRequest) {
        OnRequest(message);
    }
}

void DemoServer::OnConnect(int32_t handle) {
    const std::string address = m_Server.GetClientIPAddr(handle).value_or("nowhere");
    const auto all = m_Server.GetAllClient().value_or(std::vector<int32_t>());
    m_Findings.Check(address == "127.0.0.1" && std::count(all.begin(), all.end(), handle) == 1,
                     "connect event: client {} from {} is in the list", handle, address);
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
    } else if (!OnAsynchronous(m_Server.GetClientHandle(message).value_or(-1), asText->Code,
                               asText->Text)) {
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

bool DemoServer::OnAsynchronous(int32_t handle, const std::string &code, const std::string &text) {
    if (text.starts_with(kBurstRequest)) {
        m_Server.SendText(code, kBurstReply + text.substr(kBurstRequest.size()));
    } else if (text == kPushRequest) {
        m_Findings.Check(m_Server.SendText(handle, kPush),
                         "SendText: a push to client {}, by its handle", handle);
    } else if (text == kKickRequest) {
        m_Server.Disconnect(handle);
        m_Findings.Check(!m_Server.SendText(handle, kPush),
                         "Disconnect: client {} is gone, a further push is refused", handle);
    } else {
        return false;
    }
    return true;
}

size_t DemoServer::CountSeen(int32_t kind) {
    const std::lock_guard<std::mutex> guard(m_Lock);
    return static_cast<size_t>(std::count(m_Kinds.begin(), m_Kinds.end(), kind));
}

// After the clients have gone. Calls run in parallel, so that only the numbers are certain.
void DemoServer::CheckEvents() {
    const bool left = WaitUntil([this] { return CountSeen(kClientDisconnected) == kClientCount; });
    m_Findings.Check(left && m_Server.GetClientCount() == 0,
                     "disconnect events: the clients are gone from the list");
    const size_t expected = kRequestCount + 2 * kClientCount;
    const std::lock_guard<std::mutex> guard(m_Lock);
    m_Findings.Check(m_Kinds.size() == expected && m_Handles.size() == kClientCount,
                     "{} in all, each once: {} requests of {} clients, their connects and ends",
                     Counted(m_Kinds.size(), "event"), kRequestCount, kClientCount);
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
