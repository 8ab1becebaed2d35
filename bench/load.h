// bench/load.h: the loads, the same for every library. A program of the bench tells how its library
// serves and asks; Main does the rest.
//
//     <program> server PORT                                 echoes until its input ends
//     <program> latency PORT SIZE COUNT SECONDS             one request after the other
//     <program> pipeline PORT CONNECTIONS SIZE LIMIT SECONDS   up to LIMIT under way on each
//     <program> idle PORT                                   as many clients as its input says
//     <program> first PORT                                  one request, once its input says so
//     <program> many PORT CLIENTS SECONDS                   one request a second from each
//     <program> mixed PORT SECONDS SEED                     clients that come, ask and go
//
// Each answers in lines of JSON. A reply counts as wrong when it is not the echo of a request that
// was waiting for it, and as lost when it has not come within kPatience.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <span>
#include <vector>

namespace nrpc::bench {

using Bytes = std::vector<uint8_t>;
using ByteSpan = std::span<const uint8_t>;

inline constexpr std::chrono::milliseconds kPatience{60000};
inline constexpr size_t kLeastSize = 8; // a request begins with its connection and number
inline constexpr size_t kGreatestSize = 1024 * 1024;

struct Counts {
    uint64_t Sent;
    uint64_t Right;
    uint64_t Wrong;
};

// The requests of one connection and what came back for them. Next is one thread's, everything else
// any thread's.
class Replies {
  public:
    explicit Replies(uint32_t connection);

    // The next request, valid until the next call. It is under way from now on.
    ByteSpan Next(size_t size);
    void Take(ByteSpan reply);
    // Waits until at most `most` requests are under way. False when the limit is over before.
    bool Await(uint64_t most, std::chrono::milliseconds limit);
    uint64_t UnderWay() const;
    Counts Count() const;

  private:
    bool IsRight(ByteSpan reply);
    uint64_t UnderWayLocked() const { return m_Count.Sent - m_Count.Right; }

    const uint32_t m_Connection;
    Bytes m_Request;
    mutable std::mutex m_Lock; // guards all below
    std::condition_variable m_Fewer;
    std::vector<uint32_t> m_Sizes; // of each request by number; 0 once it was answered
    Counts m_Count = {};
    uint64_t m_AwaitedMost = 0;
};

// One request at a time.
class SyncClient {
  public:
    virtual ~SyncClient() = default;
    // False when no reply came within kPatience.
    virtual bool Request(ByteSpan request, Bytes &reply) = 0;
};

// Many requests under way. What comes back goes to the Replies it was made with.
class AsyncClient {
  public:
    virtual ~AsyncClient() = default;
    virtual bool Send(ByteSpan request) = 0;
    // As Replies::Await. A library without threads of its own receives in here.
    virtual bool Await(Replies &replies, uint64_t most, std::chrono::milliseconds limit) {
        return replies.Await(most, limit);
    }
};

// All may throw; that ends the program.
struct Program {
    // Listens, calls `ready` and echoes; returns when `untilEnd`, called in between, has returned.
    void (*Serve)(uint16_t port, void (*ready)(), void (*untilEnd)());
    std::unique_ptr<SyncClient> (*ConnectSync)(uint16_t port);
    std::unique_ptr<AsyncClient> (*ConnectAsync)(uint16_t port, Replies &replies);
};

int Main(int argc, char **argv, const Program &program);

} // namespace nrpc::bench
