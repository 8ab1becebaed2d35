// nrpc-host call --async: requests whose replies reach a handler.
#include <condition_variable>
#include <mutex>

#include "call.h"

namespace nrpc::tool {

using namespace hostkit;

namespace {

class Exchange {
  public:
    Exchange(Client &client, const Bytes &request, const CallOptions &options)
        : m_Client(client), m_Request(request), m_Options(options) {}
    ~Exchange() { m_Client.ClientdisConnect(); } // from then on no handler runs
    Exchange(const Exchange &) = delete;
    Exchange &operator=(const Exchange &) = delete;
    void Run();

  private:
    void OnMessage(HostWord message);
    // True when it counts as a reply: anything does for a text, only the echo for counted bytes.
    bool PrintMessage(HostWord message);

    Client &m_Client;
    const Bytes &m_Request;
    const CallOptions &m_Options;
    std::chrono::steady_clock::time_point m_Start;
    std::mutex m_Lock;
    std::condition_variable m_Changed;
    int32_t m_MessageCount = 0; // under m_Lock, as are the next two
    int32_t m_ReplyCount = 0;
    bool m_IsClosed = false;
};

} // namespace

bool Exchange::PrintMessage(HostWord message) {
    const double ms = MsSince(m_Start);
    const Bytes content = m_Client.GetResultBin(message).value_or(Bytes());
    const bool isEcho = content == m_Request;
    PrintLine("message after {:.1f} ms  {}{}", ms, Counted(content.size(), "byte"),
              isEcho ? ", equal to the request byte for byte"
                     : "  " + Utf8FromGbk(std::string(content.begin(), content.end()))
                                  .substr(0, m_Request.empty() ? std::string::npos : 40));
    return isEcho || m_Options.ByteCount == 0;
}

void Exchange::OnMessage(HostWord message) {
    const bool isClose = m_Client.ClientGetMsgKind(message) == kConnectionClosed;
    const bool isReply = !isClose && PrintMessage(message);
    const std::lock_guard<std::mutex> guard(m_Lock);
    m_MessageCount += 1;
    m_ReplyCount += isReply ? 1 : 0;
    m_IsClosed = m_IsClosed || isClose;
    m_Changed.notify_all();
}

void Exchange::Run() {
    const Address address = ParseAddress(m_Options.Server);
    const auto handler = [this](HostWord message) { OnMessage(message); };
    if (!m_Client.ClientConnect(address.Port, address.Host, handler)) {
        throw std::runtime_error(fmt::format("cannot connect to {}", m_Options.Server));
    }
    m_Start = std::chrono::steady_clock::now();
    for (int32_t i = 0; i < m_Options.Repeat; ++i) {
        const bool queued = m_Request.empty()
                                ? m_Client.SendAsynRequestText(GbkFromUtf8(m_Options.Text))
                                : m_Client.SendAsynRequestBin(m_Request);
        if (!queued) {
            throw std::runtime_error(fmt::format("request {} was refused", i + 1));
        }
    }
    std::unique_lock<std::mutex> guard(m_Lock);
    const auto isOver = [this] { return m_IsClosed || m_ReplyCount >= m_Options.Repeat; };
    int32_t seen = -1;
    while (!isOver() && seen != m_MessageCount) { // the time-out begins anew with each message
        seen = m_MessageCount;
        m_Changed.wait_for(guard, std::chrono::milliseconds(m_Options.TimeoutMs),
                           [&] { return isOver() || seen != m_MessageCount; });
    }
    const int32_t missing = m_Options.Repeat - m_ReplyCount;
    const bool isClosed = m_IsClosed;
    guard.unlock();
    if (missing > 0) {
        throw std::runtime_error(
            fmt::format("{}, {} missing",
                        isClosed ? "the server ended the connection"
                                 : fmt::format("nothing came for {} ms", m_Options.TimeoutMs),
                        missing == 1 ? "one reply is" : fmt::format("{} replies are", missing)));
    }
}

void CallAsynchronously(Client &client, const Bytes &request, const CallOptions &options) {
    Exchange(client, request, options).Run();
}

} // namespace nrpc::tool
