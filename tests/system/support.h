// support.h: what the system tests share: the loaded library, raw TCP peers, waiting with a
// deadline, a server that echoes and keeps a book, and the check that nothing is left behind.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "hostkit.h"
#include "wire.h"

namespace nrpc::tests {

using namespace hostkit;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr bool kSanitized = true;
#else
inline constexpr bool kSanitized = false;
#endif
// For counts that only drive load.
constexpr int Scaled(int count) {
    return kSanitized ? (count + 9) / 10 : count;
}

#if defined(__i386__)
inline constexpr Manner kManners[] = {kLeavesArguments, kPopsArguments, kSpoilsRegisters};
#else
inline constexpr Manner kManners[] = {kLeavesArguments};
#endif

// Seconds within which everything that happens at all has happened, on a slow machine too.
inline constexpr double kPatience = 30;
inline constexpr int32_t kPatienceMs = 30000;
inline constexpr const char *kLoopback = "127.0.0.1";

// --- the library of this process --------------------------------------------------------------

// Loaded at the first call, with TheHeap (in poison mode) as its service.
Library &TheLibrary();
Heap &TheHeap();

// --- chance -----------------------------------------------------------------------------------

// What a test that goes by chance is told from outside.
uint32_t FromEnvironment(const char *name, uint32_t otherwise);

class Dice {
  public:
    explicit Dice(uint32_t seed) : m_Random(seed) {}
    int Roll(int sides) { return static_cast<int>(m_Random() % static_cast<uint32_t>(sides)); }
    void Pause(int limitMs) { usleep(static_cast<useconds_t>(Roll(limitMs * 1000))); }

  private:
    std::mt19937 m_Random;
};

// --- waiting and counting ---------------------------------------------------------------------

int64_t NowMs();
int64_t MillisecondsOf(const std::function<void()> &act);
// Looks at the condition until it holds or the time is over; answers how it ended.
bool Until(const std::function<bool()> &condition, double seconds = kPatience);

struct Census {
    int Threads;
    int Descriptors;
    int Mappings;
    size_t HeapBytes; // of the process, what the host's heap keeps back not counted
};
Census TakeCensus();
// Waits until threads and descriptors are back; `heapSlack` in bytes, `mappingSlack` in mappings.
void ExpectBack(const Census &before, size_t heapSlack, int mappingSlack);

// Runs each act `cycles` times, one after the other but side by side with the other acts; where the
// heap, threads or descriptors grow with the cycles, it is the test's failure.
void RepeatSideBySide(const std::vector<std::function<void(int number)>> &acts, int cycles);

// Afterwards nothing may be there that was not there before: threads, descriptors, blocks of the
// host's heap and violations at all, much memory.
class SystemTest : public testing::Test {
  protected:
    void TearDown() override { ExpectNothingLeft(); }
    void ExpectNothingLeft();

  private:
    const Census m_Before = TakeCensus();
};

// --- peers ------------------------------------------------------------------------------------

struct Arrived {
    std::string Id;
    std::string Payload;
    bool operator==(const Arrived &) const = default;
};

// A TCP connection of our own. Movable, used by one thread at a time.
class Peer {
  public:
    // Connects over loopback; a failure is the test's.
    explicit Peer(int32_t port);
    Peer(Peer &&other) noexcept : m_Socket(std::exchange(other.m_Socket, -1)) {}
    Peer &operator=(Peer &&) = delete;
    ~Peer() { Close(); }

    bool Send(std::string_view bytes); // false: the other side ended
    // Times are for each step without progress.
    std::string Read(size_t length, double seconds = kPatience); // shorter at the end or in time
    std::optional<std::string> ReadToEnd(double seconds = kPatience); // nothing: no end until then
    // One whole message of one well-formed record; nothing at the end, the deadline, or when the
    // bytes are anything else.
    std::optional<Arrived> Receive(double seconds = kPatience);
    // Sends a request and waits for the reply to it, passing over others.
    std::optional<std::string> Ask(std::string_view id, std::string_view payload,
                                   double seconds = kPatience);
    void Close();
    void Reset(); // closes without the orderly end
    int Descriptor() const { return m_Socket; }

  private:
    friend class Listener;
    struct Accepted {
        int Socket;
    };
    explicit Peer(Accepted accepted) : m_Socket(accepted.Socket) {}
    int m_Socket;
    bool m_Ended = false;
};

// Where clients of the library find a Peer in place of a server.
class Listener {
  public:
    explicit Listener(int backlog = 100);
    ~Listener() { Close(); }
    Listener(const Listener &) = delete;
    Listener &operator=(const Listener &) = delete;
    int32_t Port() const { return m_Port; }
    int Descriptor() const { return m_Socket; }
    Peer Accept(double seconds = kPatience); // a failure is the test's
    void Close();

  private:
    int m_Socket;
    int32_t m_Port = 0;
};

// --- servers ----------------------------------------------------------------------------------

struct Event {
    int32_t Kind;
    int32_t Handle;
    HostWord Message; // good inside the handler only
    std::string Code;
    std::string Text; // of requests of at most 15 bytes: no string of an event owns memory
};

// A started server that answers each request with its content and keeps a book of all messages; an
// end that is told of twice is a failure of the test.
class EchoServer {
  public:
    // Looks at a request first; answers true when it dealt with it.
    using Hook = std::function<bool(Server &server, const Event &event)>;
    explicit EchoServer(std::optional<bool> serial = false, Hook hook = {},
                        Manner manner = kLeavesArguments);
    // On a port that was free; a failure is the test's. Again after a stop.
    void Start(std::optional<bool> serial, Manner manner = kLeavesArguments);

    int32_t Port() const { return m_Port; }
    size_t Count(int32_t kind, std::string_view text = {}) const; // without a text all of the kind
    Server *operator->() { return &m_Server; }

  private:
    void Handle(HostWord message);

    Hook m_Hook;
    mutable std::mutex m_Lock;
    std::vector<Event> m_Book; // under m_Lock
    std::set<int32_t> m_Ended; // handles told of as disconnected, under m_Lock
    int32_t m_Port = 0;
    Server m_Server{TheLibrary()}; // ends first
};

} // namespace nrpc::tests
