#include "system/support.h"

#include <arpa/inet.h>
#include <malloc.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <thread>

extern "C" size_t __sanitizer_get_current_allocated_bytes();

namespace nrpc::tests {

// --- the library of this process, time, and what a process holds ------------------------------

Heap &TheHeap() {
    static auto *s_Heap = new Heap;
    return *s_Heap;
}

Library &TheLibrary() {
    static auto *s_Library = new Library(NRPC_LIBRARY, TheHeap());
    return *s_Library;
}

uint32_t FromEnvironment(const char *name, uint32_t otherwise) {
    const char *text = getenv(name);
    return text != nullptr ? static_cast<uint32_t>(strtoul(text, nullptr, 10)) : otherwise;
}

int64_t NowMs() {
    using namespace std::chrono;
    return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

int64_t MillisecondsOf(const std::function<void()> &act) {
    const int64_t begin = NowMs();
    act();
    return NowMs() - begin;
}

bool Until(const std::function<bool()> &condition, double seconds) {
    const int64_t end = NowMs() + static_cast<int64_t>(seconds * 1000);
    while (!condition()) {
        if (NowMs() >= end) {
            return false;
        }
        usleep(2000);
    }
    return true;
}

static int EntryCount(const char *directory) {
    return static_cast<int>(std::distance(std::filesystem::directory_iterator(directory), {}));
}

static size_t LiveHeapBytes() {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    return __sanitizer_get_current_allocated_bytes();
#else
    const struct mallinfo2 info = mallinfo2();
    return info.uordblks + info.hblkhd;
#endif
}

Census TakeCensus() {
    std::jthread([] {}).join(); // with the first one a sanitizer starts a thread of its own
    TheLibrary();
    TheHeap().SetPoison(true);
    for (int i = 0; i < 1024; ++i) { // pushes out the freed blocks that it keeps back
        TheHeap().Free(TheHeap().Alloc(1));
    }
    std::ifstream maps("/proc/self/maps");
    const auto mappings = std::count(std::istreambuf_iterator<char>(maps), {}, '\n');
    maps.close();
    return {EntryCount("/proc/self/task"), EntryCount("/proc/self/fd"), static_cast<int>(mappings),
            LiveHeapBytes()};
}

void ExpectBack(const Census &before, size_t heapSlack, int mappingSlack) {
    Census now = {};
    Until([&] {
        now = TakeCensus();
        return now.Threads <= before.Threads && now.Descriptors <= before.Descriptors;
    });
    EXPECT_LE(now.Threads, before.Threads);
    EXPECT_LE(now.Descriptors, before.Descriptors);
    EXPECT_LE(now.HeapBytes, before.HeapBytes + heapSlack);
    EXPECT_LE(now.Mappings, before.Mappings + (kSanitized ? 10000 : mappingSlack));
}

void RepeatSideBySide(const std::vector<std::function<void(int number)>> &acts, int cycles) {
    const auto run = [&](int count) {
        std::vector<std::thread> lanes;
        for (const auto &act : acts) {
            lanes.emplace_back([&act, count] {
                for (int number = 0; number < count && !testing::Test::HasFailure(); ++number) {
                    act(number);
                }
            });
        }
        std::for_each(lanes.begin(), lanes.end(), [](std::thread &lane) { lane.join(); });
    };
    run(3); // as many threads as there will be: their memory is kept
    const Census before = TakeCensus();
    run(cycles);
    ExpectBack(before, 24 << 10, 200);
}

void SystemTest::ExpectNothingLeft() {
    ExpectBack(m_Before, 256 << 10, 1000); // the C library keeps stacks and arenas for new threads
    EXPECT_EQ(TheHeap().LiveBlockCount(), 0U);
    for (const Heap::Violation &violation : TheHeap().Violations()) {
        ADD_FAILURE() << ToText(violation);
    }
}

// --- peers ------------------------------------------------------------------------------------

Peer::Peer(int32_t port) : m_Socket(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    const int on = 1;
    setsockopt(m_Socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
    sockaddr_in address = {
        AF_INET, htons(static_cast<uint16_t>(port)), {htonl(INADDR_LOOPBACK)}, {}};
    EXPECT_EQ(connect(m_Socket, reinterpret_cast<sockaddr *>(&address), sizeof(address)), 0)
        << std::strerror(errno);
}

bool Peer::Send(std::string_view bytes) {
    const auto length = static_cast<ssize_t>(bytes.size());
    return send(m_Socket, bytes.data(), bytes.size(), MSG_NOSIGNAL) == length; // blocks until then
}

std::string Peer::Read(size_t length, double seconds) {
    const auto microseconds = static_cast<int64_t>(std::max(seconds, 0.001) * 1e6);
    const timeval limit = {static_cast<time_t>(microseconds / 1000000),
                           static_cast<suseconds_t>(microseconds % 1000000)};
    setsockopt(m_Socket, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
    std::string bytes(length, 0);
    const ssize_t got = recv(m_Socket, bytes.data(), length, MSG_WAITALL);
    m_Ended = got == 0 || (got < 0 && errno != EAGAIN);
    bytes.resize(static_cast<size_t>(std::max<ssize_t>(got, 0)));
    return bytes;
}

std::optional<std::string> Peer::ReadToEnd(double seconds) {
    std::string all;
    for (std::string block = "-"; !block.empty(); all += block) {
        block = Read(65536, seconds);
    }
    return m_Ended ? std::optional(all) : std::nullopt;
}

std::optional<Arrived> Peer::Receive(double seconds) {
    std::string wire;
    std::string content;
    uint32_t lengths[3] = {}; // of the message, index, of the chunk
    do {
        const std::string head = Read(20, seconds);
        if (head.size() < 20) {
            return std::nullopt;
        }
        std::memcpy(lengths, head.data() + 8, sizeof(lengths));
        const std::string chunk = Read(std::min<size_t>(lengths[2], kChunkLen), seconds);
        content += chunk;
        wire += head + chunk;
    } while (content.size() < lengths[0]);
    const size_t tagEnd = content.find('>', content.find('>') + 1);
    const Arrived arrived = {wire.substr(4, 4),
                             tagEnd == std::string::npos ? "" : content.substr(tagEnd + 1)};
    return wire == Message(arrived.Id, arrived.Payload) ? std::optional(arrived) : std::nullopt;
}

std::optional<std::string> Peer::Ask(std::string_view id, std::string_view payload,
                                     double seconds) {
    Send(Message(id, payload));
    while (const auto arrived = Receive(seconds)) {
        if (arrived->Id == id) {
            return arrived->Payload;
        }
    }
    return std::nullopt;
}

void Peer::Close() {
    if (m_Socket >= 0) {
        close(std::exchange(m_Socket, -1));
    }
}

void Peer::Reset() {
    const linger now = {1, 0};
    setsockopt(m_Socket, SOL_SOCKET, SO_LINGER, &now, sizeof(now));
    Close();
}

Listener::Listener(int backlog) : m_Socket(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof(address);
    auto *const generic = reinterpret_cast<sockaddr *>(&address);
    EXPECT_EQ(bind(m_Socket, generic, size), 0) << std::strerror(errno);
    EXPECT_EQ(listen(m_Socket, backlog), 0) << std::strerror(errno);
    getsockname(m_Socket, generic, &size);
    m_Port = ntohs(address.sin_port);
}

void Listener::Close() {
    if (m_Socket >= 0) {
        close(std::exchange(m_Socket, -1));
    }
}

Peer Listener::Accept(double seconds) {
    pollfd waiting = {m_Socket, POLLIN, 0};
    EXPECT_EQ(poll(&waiting, 1, static_cast<int>(seconds * 1000)), 1) << "nobody connects";
    const int accepted =
        waiting.revents != 0 ? accept4(m_Socket, nullptr, nullptr, SOCK_CLOEXEC) : -1;
    const int on = 1;
    setsockopt(accepted, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
    return Peer(Peer::Accepted{accepted});
}

// --- servers ----------------------------------------------------------------------------------

EchoServer::EchoServer(std::optional<bool> serial, Hook hook, Manner manner)
    : m_Hook(std::move(hook)) {
    Start(serial, manner);
}

void EchoServer::Start(std::optional<bool> serial, Manner manner) {
    const Handler handler = [this](HostWord message) { Handle(message); };
    m_Ended.clear(); // of the start before
    bool works = false;
    for (int attempt = 0; attempt < 10 && !works; ++attempt) { // another process may be faster
        m_Port = FreePort();
        works = m_Server.StartServer(m_Port, handler, serial, manner);
    }
    EXPECT_TRUE(works);
}

// The frames below the hook own no memory: it may never return.
void EchoServer::Handle(HostWord message) {
    Event event = {m_Server.GetMsgKind(message), m_Server.GetClientHandle(message).value_or(-1),
                   message, "", ""};
    if (const auto request = m_Server.GetRequestBin(message)) {
        EXPECT_EQ(event.Kind, kRequest);
        event.Code = request->Code;
        if (request->Content.size() <= 15) {
            event.Text.assign(request->Content.begin(), request->Content.end());
        }
    }
    {
        const std::lock_guard<std::mutex> guard(m_Lock);
        m_Book.push_back(event);
        EXPECT_TRUE(event.Kind != kClientDisconnected || m_Ended.insert(event.Handle).second);
    }
    if (event.Kind == kRequest && !(m_Hook && m_Hook(m_Server, event))) {
        const auto request = m_Server.GetRequestBin(message).value_or(RequestBin());
        m_Server.SendBinary(request.Code, request.Content); // false when the client is gone
    }
}

size_t EchoServer::Count(int32_t kind, std::string_view text) const {
    const std::lock_guard<std::mutex> guard(m_Lock);
    return static_cast<size_t>(std::count_if(m_Book.begin(), m_Book.end(), [&](const Event &event) {
        return event.Kind == kind && (text.empty() || event.Text == text);
    }));
}

} // namespace nrpc::tests
