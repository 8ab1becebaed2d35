// hostkit/heap.h: the host's heap, from which the library gets everything that it hands to the
// host, and a strict book of it.
//   Blocks     each is known by address, size and sequence number (1 for the first one) until it is
//              freed. Freed ones are kept back for a while, so that a second free or a late write
//              is noticed for what it is.
//   Errors     misuse by the library is recorded as a violation and has no other effect.
//   Threads    every function may be called from any thread, handlers included.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "host/frame.h"

namespace nrpc::hostkit {

class Heap {
  public:
    struct Block {
        const void *Address;
        size_t Size;
        uint64_t Sequence;
    };
    enum Misuse {
        kForeignFree,    // never a block of this heap, or freed very long ago
        kDoubleFree,     // freed before
        kOverrun,        // bytes behind the block were written
        kWriteAfterFree, // noticed in poison mode only
        kUnknownService, // a service code other than the three
        kBadValue,       // a value handed to the host that has not the layout of its type
    };
    struct Violation {
        Misuse Kind;
        const void *Address; // for kUnknownService the code
        uint64_t Sequence;   // 0 when the block is not known
    };
    // Calls of the service function, the failed ones included.
    struct Calls {
        uint64_t Alloc;
        uint64_t Free;
        uint64_t FreeArray;
        HostWord LastArrayType; // the type code that came with the last array
    };

    Heap() = default;
    ~Heap();
    Heap(const Heap &) = delete;
    Heap &operator=(const Heap &) = delete;

    // What the host's service function does.
    HostWord Serve(HostWord code, HostWord param1, HostWord param2);

    // The host's own use of its heap: not counted as calls, and the failure plan spares it.
    // Null only when the machine has no memory.
    void *Alloc(size_t size);
    void Free(void *block); // null is accepted

    // The n-th allocation of the library from now on (1 is the next) yields null, and with
    // `forEver` all behind it.
    void FailAllocation(uint64_t nth, bool forEver = false);
    void StopFailing();
    // Poison mode: new and freed blocks are filled with a pattern.
    void SetPoison(bool on);

    size_t LiveBlockCount() const;
    size_t LiveByteCount() const;
    std::vector<Block> LiveBlocks() const;                   // oldest first
    std::optional<size_t> SizeOf(const void *address) const; // nothing when it is no live block
    Calls CallCounts() const;
    std::vector<Violation> Violations(); // in order of time; looks through the freed blocks first
    void ReportBadValue(const void *address);

  private:
    struct Freed {
        void *Address;
        size_t Size;
        uint64_t Sequence;
        bool Filled;
    };

    void *AllocLocked(size_t size);
    void FreeLocked(void *block);
    void CheckFreed(Freed &freed);

    mutable std::mutex m_Lock; // guards all below
    std::unordered_map<const void *, Block> m_Live;
    size_t m_LiveBytes = 0;
    uint64_t m_LastSequence = 0;
    std::deque<Freed> m_KeptBack; // oldest in front
    size_t m_KeptBytes = 0;
    std::vector<Violation> m_Violations;
    Calls m_Calls = {};
    uint64_t m_FailIn = 0; // the how-manieth allocation from now fails; 0: none
    bool m_FailForEver = false;
    bool m_Poison = false;
};

// "double free of block 12 at 0x5678abcd", for messages.
std::string ToText(const Heap::Violation &violation);

} // namespace nrpc::hostkit
