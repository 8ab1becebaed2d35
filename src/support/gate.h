// support/gate.h: counts the threads inside something that may be taken away.
//   Whoever takes it away closes the gate: from then on nobody enters, and Drain waits for those
//   inside. No lock is held while inside.
#pragma once

#include <atomic>
#include <cstdint>

namespace nrpc {

struct Gate {
    static constexpr uint32_t kClosed = 0x80000000;
    // The closed bit, and the number of threads inside.
    std::atomic<uint32_t> State = kClosed;
};

void Gate_Open(Gate *gate);
void Gate_Close(Gate *gate);
// True: inside, until Gate_Leave. False: the gate is closed.
bool Gate_Enter(Gate *gate);
void Gate_Leave(Gate *gate);
// Waits until nobody is inside a closed gate. False when somebody still is after `limitMs`.
bool Gate_Drain(const Gate *gate, uint32_t limitMs);

// Inside as long as it lives, if it got in.
class GatePass {
  public:
    [[nodiscard]] explicit GatePass(Gate *gate) : m_Gate(Gate_Enter(gate) ? gate : nullptr) {}
    ~GatePass() {
        if (m_Gate != nullptr) {
            Gate_Leave(m_Gate);
        }
    }
    GatePass(const GatePass &) = delete;
    GatePass &operator=(const GatePass &) = delete;
    explicit operator bool() const { return m_Gate != nullptr; }

  private:
    Gate *m_Gate;
};

} // namespace nrpc
