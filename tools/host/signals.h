// signals.h: Ctrl-C and SIGTERM as events that can be waited for.
//   Threads  both are blocked in the thread that makes an EndSignals and in those that it starts
//            from then on: make it before the library starts its first.
#pragma once

#include <functional>
#include <thread>

namespace nrpc::tool {

class EndSignals {
  public:
    EndSignals();
    ~EndSignals();
    EndSignals(const EndSignals &) = delete;
    EndSignals &operator=(const EndSignals &) = delete;

    int Descriptor() const { return m_Descriptor; } // readable once one has come
    bool CameWithin(int ms) const;

  private:
    int m_Descriptor;
};

// Runs `action` on a thread of its own when a signal comes during its life, at most once. It has
// returned, or will never run, when the watch has gone. `signals` outlives it.
class EndWatch {
  public:
    EndWatch(const EndSignals &signals, std::function<void()> action);
    ~EndWatch();
    EndWatch(const EndWatch &) = delete;
    EndWatch &operator=(const EndWatch &) = delete;

  private:
    int m_Over; // readable once the watch is over
    std::thread m_Thread;
};

} // namespace nrpc::tool
