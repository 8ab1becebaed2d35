// nrpc-host call --async: requests whose replies reach a handler.
#include "call.h"

namespace nrpc::tool {

using namespace hostkit;

namespace {

class Exchange {
  public:
    Exchange(Client &client, const Bytes &request, const CallOptions &options, CallFigures &figures)
        : m_Client(client), m_Request(request), m_Options(options), m_Figures(figures) {}
    ~Exchange() { m_Client.ClientdisConnect(); } // from then on no handler runs
    Exchange(const Exchange &) = delete;
    Exchange &operator=(const Exchange &) = delete;
    void Run();

  private:
    void OnMessage(HostWord message);
    bool IsOver() const; // under the lock of the figures

    Client &m_Client;
    const Bytes &m_Request;
    const CallOptions &m_Options;
    CallFigures &m_Figures;
    std::chrono::steady_clock::time_point m_Start;
    int32_t m_MessageCount = 0; // under the lock of the figures, as is the next
    bool m_IsClosed = false;
};

} // namespace

bool Exchange::IsOver() const {
    return m_IsClosed || m_Figures.IsInterrupted || m_Figures.Replies >= m_Options.Repeat;
}

void Exchange::OnMessage(HostWord message) {
    const bool isClose = m_Client.ClientGetMsgKind(message) == kConnectionClosed;
    if (!isClose) {
        const double ms = MsSince(m_Start);
        const Bytes content = m_Client.GetResultBin(message).value_or(Bytes());
        PrintReply(m_Options, m_Request, content, ms);
        // Anything counts as the reply to a text, only the echo as that to counted bytes.
        if (content == m_Request || m_Options.ByteCount == 0) {
            m_Figures.AddReply(ms);
        }
    }
    const std::lock_guard<std::mutex> guard(m_Figures.Lock);
    m_MessageCount += 1;
    m_IsClosed = m_IsClosed || isClose;
    m_Figures.Changed.notify_all();
}

void Exchange::Run() {
    const Address address = ParseAddress(m_Options.Server);
    const auto handler = [this](HostWord message) { OnMessage(message); };
    if (!m_Client.ClientConnect(address.Port, address.Host, handler)) {
        throw std::runtime_error(fmt::format("cannot connect to {}", m_Options.Server));
    }
    m_Figures.SetConnected();
    m_Start = std::chrono::steady_clock::now();
    for (int32_t i = 0; i < m_Options.Repeat && !m_Figures.IsInterrupted; ++i) {
        const bool queued = m_Request.empty()
                                ? m_Client.SendAsynRequestText(GbkFromUtf8(m_Options.Text))
                                : m_Client.SendAsynRequestBin(m_Request);
        if (!queued) {
            throw std::runtime_error(fmt::format("request {} was refused", i + 1));
        }
    }
    std::unique_lock<std::mutex> guard(m_Figures.Lock);
    int32_t seen = -1;
    while (!IsOver() && seen != m_MessageCount) { // the time-out begins anew with each message
        seen = m_MessageCount;
        m_Figures.Changed.wait_for(guard, std::chrono::milliseconds(m_Options.TimeoutMs),
                                   [&] { return IsOver() || seen != m_MessageCount; });
    }
    const int32_t missing = m_Options.Repeat - m_Figures.Replies;
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

void CallAsynchronously(Client &client, const Bytes &request, const CallOptions &options,
                        CallFigures &figures) {
    Exchange(client, request, options, figures).Run();
}

} // namespace nrpc::tool
