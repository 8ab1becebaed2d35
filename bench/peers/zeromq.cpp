// ZeroMQ: a ROUTER socket that echoes on one thread; a REQ socket, or a DEALER socket at a client
// with many requests under way.
#include <unistd.h>
#include <zmq.h>

#include <cerrno>
#include <stdexcept>
#include <string>
#include <thread>

#include "load.h"

namespace nrpc::bench {

static void Check(bool works) {
    if (!works) {
        throw std::runtime_error(zmq_strerror(zmq_errno()));
    }
}

static std::string Address(uint16_t port) {
    return "tcp://127.0.0.1:" + std::to_string(port);
}

// One for the process, never destroyed.
static void *Context() {
    static void *s_Context = [] {
        void *context = zmq_ctx_new();
        zmq_ctx_set(context, ZMQ_MAX_SOCKETS, 8192);
        return context;
    }();
    return s_Context;
}

static void *NewSocket(int type) {
    void *socket = zmq_socket(Context(), type);
    Check(socket != nullptr);
    const int none = 0;
    zmq_setsockopt(socket, ZMQ_LINGER, &none, sizeof(none));
    zmq_setsockopt(socket, ZMQ_SNDHWM, &none, sizeof(none)); // no limit, nothing is dropped
    zmq_setsockopt(socket, ZMQ_RCVHWM, &none, sizeof(none));
    return socket;
}

static void *Connect(int type, uint16_t port) {
    void *socket = NewSocket(type);
    Check(zmq_connect(socket, Address(port).c_str()) == 0);
    return socket;
}

// Every part that comes goes back as it is, the client's identity first.
static void Echo(void *socket) {
    zmq_msg_t part;
    zmq_msg_init(&part);
    for (;;) {
        if (zmq_msg_recv(&part, socket, 0) < 0) {
            continue;
        }
        zmq_msg_send(&part, socket, zmq_msg_more(&part) != 0 ? ZMQ_SNDMORE : 0);
    }
}

static void Serve(uint16_t port, void (*ready)(), void (*untilEnd)()) {
    void *socket = NewSocket(ZMQ_ROUTER);
    Check(zmq_bind(socket, Address(port).c_str()) == 0);
    std::thread(Echo, socket).detach();
    ready();
    untilEnd();
    _exit(0);
}

namespace {

class Sync : public SyncClient {
  public:
    explicit Sync(uint16_t port) : m_Socket(Connect(ZMQ_REQ, port)) {
        const auto limit = static_cast<int>(kPatience.count());
        zmq_setsockopt(m_Socket, ZMQ_RCVTIMEO, &limit, sizeof(limit));
        zmq_msg_init(&m_Message);
    }
    ~Sync() override {
        zmq_msg_close(&m_Message);
        zmq_close(m_Socket);
    }
    bool Request(ByteSpan request, Bytes &reply) override {
        if (zmq_send(m_Socket, request.data(), request.size(), 0) < 0 ||
            zmq_msg_recv(&m_Message, m_Socket, 0) < 0) {
            return false;
        }
        const auto *data = static_cast<const uint8_t *>(zmq_msg_data(&m_Message));
        reply.assign(data, data + zmq_msg_size(&m_Message));
        return true;
    }

  private:
    void *m_Socket;
    zmq_msg_t m_Message;
};

// A socket is one thread's: what has come is taken while the sender waits.
class Async : public AsyncClient {
  public:
    Async(uint16_t port, Replies &) : m_Socket(Connect(ZMQ_DEALER, port)) {
        zmq_msg_init(&m_Message);
    }
    ~Async() override {
        zmq_msg_close(&m_Message);
        zmq_close(m_Socket);
    }
    bool Send(ByteSpan request) override {
        return zmq_send(m_Socket, request.data(), request.size(), 0) >= 0;
    }
    bool Await(Replies &replies, uint64_t most, std::chrono::milliseconds limit) override {
        const auto end = std::chrono::steady_clock::now() + limit;
        while (replies.UnderWay() > most) {
            while (zmq_msg_recv(&m_Message, m_Socket, ZMQ_DONTWAIT) >= 0) {
                replies.Take({static_cast<const uint8_t *>(zmq_msg_data(&m_Message)),
                              zmq_msg_size(&m_Message)});
            }
            if (std::chrono::steady_clock::now() >= end) {
                return replies.UnderWay() <= most;
            }
            zmq_pollitem_t item = {m_Socket, 0, ZMQ_POLLIN, 0};
            if (replies.UnderWay() > most) {
                zmq_poll(&item, 1, 1);
            }
        }
        return true;
    }

  private:
    void *m_Socket;
    zmq_msg_t m_Message;
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
