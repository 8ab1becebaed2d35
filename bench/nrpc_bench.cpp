// The library under the loads, through the host frame. NRPC_BENCH_LIBRARY names another build of
// it to be measured.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <stdexcept>

#include "hostkit.h"
#include "load.h"

namespace nrpc::bench {

namespace kit = nrpc::hostkit;

static constexpr const char *kHere = "127.0.0.1";

// Never destroyed: the process ends with clients alive.
static kit::Heap &HostHeap() {
    static auto *s_Heap = new kit::Heap;
    return *s_Heap;
}

static kit::Library &Loaded() {
    const char *other = std::getenv("NRPC_BENCH_LIBRARY");
    static auto *s_Library =
        new kit::Library(other != nullptr ? other : kit::FindLibrary(), HostHeap());
    return *s_Library;
}

// A server whose host's heap was misused has no figures.
static void Serve(uint16_t port, void (*ready)(), void (*untilEnd)()) {
    auto *server = new kit::Server(Loaded());
    const auto handler = [server](HostWord message) {
        if (server->GetMsgKind(message) != kit::kRequest) {
            return;
        }
        const auto request = server->GetRequestBin(message);
        if (!request.has_value() || !server->SendBinary(request->Code, request->Content)) {
            std::fputs("a request could not be answered\n", stderr);
        }
    };
    if (!server->StartServer(port, handler, false)) {
        throw std::runtime_error("cannot start the server");
    }
    ready();
    untilEnd();
    const auto violations = HostHeap().Violations();
    for (const auto &violation : violations) {
        std::fprintf(stderr, "%s\n", ToText(violation).c_str());
    }
    _exit(violations.empty() ? 0 : 1); // the ordinary stop takes seconds and is not measured
}

namespace {

class Sync : public SyncClient {
  public:
    explicit Sync(uint16_t port) : m_Client(Loaded()) {
        if (!m_Client.ClientConnect(port, kHere)) {
            throw std::runtime_error("cannot connect");
        }
    }
    bool Request(ByteSpan request, Bytes &reply) override {
        kit::BinReply got =
            m_Client.SendSynRequestBin(request, static_cast<int32_t>(kPatience.count()));
        reply = std::move(got.Content);
        return got.Result == 1;
    }

  private:
    kit::Client m_Client;
};

class Async : public AsyncClient {
  public:
    Async(uint16_t port, Replies &replies) : m_Client(Loaded()) {
        const auto handler = [this, &replies](HostWord message) {
            if (m_Client.ClientGetMsgKind(message) == kit::kDataReceived) {
                replies.Take(m_Client.GetResultBin(message).value_or(Bytes()));
            }
        };
        if (!m_Client.ClientConnect(port, kHere, handler)) {
            throw std::runtime_error("cannot connect");
        }
    }
    bool Send(ByteSpan request) override { return m_Client.SendAsynRequestBin(request); }

  private:
    kit::Client m_Client;
};

} // namespace

static std::unique_ptr<SyncClient> ConnectSync(uint16_t port) {
    return std::make_unique<Sync>(port);
}

static std::unique_ptr<AsyncClient> ConnectAsync(uint16_t port, Replies &replies) {
    return std::make_unique<Async>(port, replies);
}

} // namespace nrpc::bench

int main(int argc, char **argv) {
    return nrpc::bench::Main(
        argc, argv, {nrpc::bench::Serve, nrpc::bench::ConnectSync, nrpc::bench::ConnectAsync});
}
