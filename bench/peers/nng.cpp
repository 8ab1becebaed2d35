// nng: a REP socket with contexts served by callbacks; a REQ socket, with a context for each
// request under way at a client that has many.
#include <nng/nng.h>
#include <nng/protocol/reqrep0/rep.h>
#include <nng/protocol/reqrep0/req.h>
#include <unistd.h>

#include <cstring>
#include <stdexcept>
#include <string>

#include "load.h"

namespace nrpc::bench {

static constexpr int kServerContexts = 128;

static void Check(int result) {
    if (result != 0) {
        throw std::runtime_error(nng_strerror(result));
    }
}

static std::string Address(uint16_t port) {
    return "tcp://127.0.0.1:" + std::to_string(port);
}

static void AllowLargeMessages(nng_socket socket) {
    Check(nng_socket_set_size(socket, NNG_OPT_RECVMAXSZ, 0));
}

static nng_msg *NewMessage(ByteSpan bytes) {
    nng_msg *message = nullptr;
    Check(nng_msg_alloc(&message, bytes.size()));
    std::memcpy(nng_msg_body(message), bytes.data(), bytes.size());
    return message;
}

static ByteSpan BodyOf(nng_msg *message) {
    return {static_cast<const uint8_t *>(nng_msg_body(message)), nng_msg_len(message)};
}

// --- server -----------------------------------------------------------------------------------

namespace {
struct Echo {
    nng_ctx Context;
    nng_aio *Operation;
    bool IsSending;
};
} // namespace

static void GoOn(void *arg) {
    auto *echo = static_cast<Echo *>(arg);
    const bool failed = nng_aio_result(echo->Operation) != 0;
    if (echo->IsSending || failed) {
        if (failed && echo->IsSending) {
            nng_msg_free(nng_aio_get_msg(echo->Operation));
        }
        echo->IsSending = false;
        nng_ctx_recv(echo->Context, echo->Operation);
    } else {
        // The message that came is the reply, and stays with the operation.
        echo->IsSending = true;
        nng_ctx_send(echo->Context, echo->Operation);
    }
}

static void Serve(uint16_t port, void (*ready)(), void (*untilEnd)()) {
    nng_socket socket;
    Check(nng_rep0_open(&socket));
    AllowLargeMessages(socket);
    std::vector<Echo> all(kServerContexts);
    for (Echo &echo : all) {
        Check(nng_ctx_open(&echo.Context, socket));
        Check(nng_aio_alloc(&echo.Operation, GoOn, &echo));
        nng_ctx_recv(echo.Context, echo.Operation);
    }
    Check(nng_listen(socket, Address(port).c_str(), nullptr, 0));
    ready();
    untilEnd();
    _exit(0);
}

// --- clients ----------------------------------------------------------------------------------

static nng_socket Connect(uint16_t port) {
    nng_socket socket;
    Check(nng_req0_open(&socket));
    AllowLargeMessages(socket);
    Check(nng_dial(socket, Address(port).c_str(), nullptr, 0));
    return socket;
}

namespace {

class Sync : public SyncClient {
  public:
    explicit Sync(uint16_t port) : m_Socket(Connect(port)) {
        Check(nng_socket_set_ms(m_Socket, NNG_OPT_RECVTIMEO,
                                static_cast<nng_duration>(kPatience.count())));
    }
    ~Sync() override { nng_close(m_Socket); }
    bool Request(ByteSpan request, Bytes &reply) override {
        Check(nng_sendmsg(m_Socket, NewMessage(request), 0));
        nng_msg *message = nullptr;
        if (nng_recvmsg(m_Socket, &message, 0) != 0) {
            return false;
        }
        const ByteSpan body = BodyOf(message);
        reply.assign(body.begin(), body.end());
        nng_msg_free(message);
        return true;
    }

  private:
    nng_socket m_Socket;
};

class Async : public AsyncClient {
  public:
    Async(uint16_t port, Replies &replies) : m_Socket(Connect(port)), m_Replies(replies) {}
    ~Async() override {
        nng_close(m_Socket);
        for (const auto &call : m_Calls) {
            nng_aio_free(call->Operation);
        }
    }

    bool Send(ByteSpan request) override {
        Call *call = FreeCall();
        call->IsSending = true;
        nng_aio_set_msg(call->Operation, NewMessage(request));
        nng_ctx_send(call->Context, call->Operation);
        return true;
    }

  private:
    struct Call {
        Async *Client;
        nng_ctx Context;
        nng_aio *Operation;
        bool IsSending;
    };

    Call *FreeCall() {
        {
            const std::lock_guard<std::mutex> guard(m_Lock);
            if (!m_Free.empty()) {
                Call *call = m_Free.back();
                m_Free.pop_back();
                return call;
            }
        }
        m_Calls.push_back(std::make_unique<Call>());
        Call *call = m_Calls.back().get();
        call->Client = this;
        Check(nng_ctx_open(&call->Context, m_Socket));
        Check(nng_aio_alloc(&call->Operation, CallBack, call));
        return call;
    }

    static void CallBack(void *arg) {
        auto *call = static_cast<Call *>(arg);
        if (nng_aio_result(call->Operation) != 0) {
            return; // closed, or lost
        }
        if (call->IsSending) {
            call->IsSending = false;
            nng_ctx_recv(call->Context, call->Operation);
            return;
        }
        nng_msg *message = nng_aio_get_msg(call->Operation);
        Async *client = call->Client;
        {
            const std::lock_guard<std::mutex> guard(client->m_Lock);
            client->m_Free.push_back(call);
        }
        client->m_Replies.Take(BodyOf(message));
        nng_msg_free(message);
    }

    nng_socket m_Socket;
    Replies &m_Replies;
    std::vector<std::unique_ptr<Call>> m_Calls; // the sender's
    std::mutex m_Lock;
    std::vector<Call *> m_Free; // under m_Lock
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
