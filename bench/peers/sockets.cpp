// Bare blocking sockets: a length in four bytes and the message; a thread for each connection at
// the server, and one more at a client with many requests under way.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <system_error>
#include <thread>

#include "load.h"

namespace nrpc::bench {

static constexpr size_t kBufferLen = 64 * 1024;
static constexpr size_t kStackLen = 128 * 1024;

[[noreturn]] static void Fail(const char *what) {
    throw std::system_error(errno, std::generic_category(), what);
}

static sockaddr_in Here(uint16_t port) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

static void WithoutDelay(int socket) {
    const int on = 1;
    setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
}

namespace {

// One end of a connection. Reading and writing may each be another thread's.
class Stream {
  public:
    explicit Stream(int socket) : m_Socket(socket), m_Buffer(kBufferLen) {}

    bool Write(ByteSpan message) {
        const auto length = static_cast<uint32_t>(message.size());
        m_Out.resize(sizeof(length) + message.size());
        std::memcpy(m_Out.data(), &length, sizeof(length));
        std::memcpy(m_Out.data() + sizeof(length), message.data(), message.size());
        for (size_t done = 0; done < m_Out.size();) {
            const ssize_t sent =
                send(m_Socket, m_Out.data() + done, m_Out.size() - done, MSG_NOSIGNAL);
            if (sent <= 0) {
                return false;
            }
            done += static_cast<size_t>(sent);
        }
        return true;
    }

    bool Read(Bytes &message) {
        uint32_t length = 0;
        if (!ReadExactly(reinterpret_cast<uint8_t *>(&length), sizeof(length))) {
            return false;
        }
        message.resize(length);
        return ReadExactly(message.data(), length);
    }

    int Socket() const { return m_Socket; }

  private:
    bool ReadExactly(uint8_t *to, size_t length) {
        while (length > 0) {
            if (m_At == m_End) {
                const ssize_t got = recv(m_Socket, m_Buffer.data(), m_Buffer.size(), 0);
                if (got <= 0) {
                    return false;
                }
                m_At = 0;
                m_End = static_cast<size_t>(got);
            }
            const size_t part = std::min(length, m_End - m_At);
            std::memcpy(to, m_Buffer.data() + m_At, part);
            m_At += part;
            to += part;
            length -= part;
        }
        return true;
    }

    int m_Socket;
    Bytes m_Buffer;
    size_t m_At = 0;
    size_t m_End = 0;
    Bytes m_Out;
};

} // namespace

static int Connect(uint16_t port) {
    const int socket = ::socket(AF_INET, SOCK_STREAM, 0);
    const sockaddr_in address = Here(port);
    if (socket < 0 ||
        connect(socket, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) != 0) {
        Fail("cannot connect");
    }
    WithoutDelay(socket);
    return socket;
}

// --- server -----------------------------------------------------------------------------------

static void *Echo(void *arg) {
    const std::unique_ptr<Stream> stream(static_cast<Stream *>(arg));
    Bytes message;
    while (stream->Read(message) && stream->Write(message)) {
    }
    close(stream->Socket());
    return nullptr;
}

static void Accept(int listening) {
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, kStackLen);
    pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    for (;;) {
        const int socket = accept(listening, nullptr, nullptr);
        if (socket < 0) {
            continue;
        }
        WithoutDelay(socket);
        auto *stream = new Stream(socket);
        pthread_t thread;
        if (pthread_create(&thread, &attributes, Echo, stream) != 0) {
            close(socket);
            delete stream;
        }
    }
}

static void Serve(uint16_t port, void (*ready)(), void (*untilEnd)()) {
    const int listening = ::socket(AF_INET, SOCK_STREAM, 0);
    const sockaddr_in address = Here(port);
    const int on = 1;
    setsockopt(listening, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    if (listening < 0 ||
        bind(listening, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) != 0 ||
        listen(listening, SOMAXCONN) != 0) {
        Fail("cannot listen");
    }
    std::thread(Accept, listening).detach();
    ready();
    untilEnd();
    _exit(0);
}

// --- clients ----------------------------------------------------------------------------------

namespace {

class Sync : public SyncClient {
  public:
    explicit Sync(uint16_t port) : m_Stream(Connect(port)) {}
    ~Sync() override { close(m_Stream.Socket()); }
    bool Request(ByteSpan request, Bytes &reply) override {
        return m_Stream.Write(request) && m_Stream.Read(reply);
    }

  private:
    Stream m_Stream;
};

class Async : public AsyncClient {
  public:
    Async(uint16_t port, Replies &replies)
        : m_Stream(Connect(port)), m_Reader([this, &replies] {
              Bytes reply;
              while (m_Stream.Read(reply)) {
                  replies.Take(reply);
              }
          }) {}
    ~Async() override {
        shutdown(m_Stream.Socket(), SHUT_RDWR);
        m_Reader.join();
        close(m_Stream.Socket());
    }
    bool Send(ByteSpan request) override { return m_Stream.Write(request); }

  private:
    Stream m_Stream;
    std::thread m_Reader;
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
