// hostkit/routines.h: C++ callables at addresses that the library can call as routines of the host.
//
// The library calls a bare address with one word (a handler) or three (the service function), so
// each callable is bound to one of a fixed number of ready-made routines.
//   Lifetime   the address stays valid for ever. After the Routine is gone a call does nothing and
//              answers 0; calls under way go on, and the callable lives until they are over.
//   Threads    any thread may call, several at once; binding and releasing are safe from any
//   thread,
//              from inside the routine itself too.
//   Ending     a thread may be ended inside: unwinding passes through. A thread that was broken off
//              without unwinding blocks its slot for ever, nothing else.
#pragma once

#include <cstddef>
#include <functional>
#include <utility>

#include "host/frame.h"

namespace nrpc::hostkit {

// How a routine treats its caller. On other machines than i386 only the first exists.
enum Manner {
    kLeavesArguments, // the caller takes them off the stack
    kPopsArguments,
    // Pops them, and leaves ebx, esi, edi and ebp changed, the direction flag set, other x87 and
    // SSE control words and a value on the x87 stack. It has no unwind tables either.
    kSpoilsRegisters,
};

using Handler = std::function<void(HostWord message)>;
using Service = std::function<HostWord(HostWord code, HostWord param1, HostWord param2)>;

inline constexpr size_t kHandlerSlotCount = 64; // per manner
inline constexpr size_t kServiceSlotCount = 16;

// One bound slot, released with the object.
class Routine {
  public:
    Routine() = default;
    // Throw std::runtime_error when every slot of that manner is bound, std::invalid_argument for a
    // manner that this machine does not have.
    explicit Routine(Handler handler, Manner manner = kLeavesArguments);
    explicit Routine(Service service, Manner manner = kLeavesArguments);
    Routine(Routine &&other) noexcept : m_Slot(std::exchange(other.m_Slot, kNoSlot)) {}
    Routine &operator=(Routine &&other) noexcept;
    ~Routine() { Release(); }

    void Release() noexcept;
    HostWord Address() const; // 0 without a slot

  private:
    static constexpr size_t kNoSlot = ~size_t{0};
    size_t m_Slot = kNoSlot;
};

} // namespace nrpc::hostkit
