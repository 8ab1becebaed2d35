#include "support/gate.h"

#include "support/jitter.h"
#include "support/threads.h"

namespace nrpc {

void Gate_Open(Gate *gate) {
    gate->State &= ~Gate::kClosed;
}

void Gate_Close(Gate *gate) {
    gate->State |= Gate::kClosed;
}

bool Gate_Enter(Gate *gate) {
    uint32_t state = gate->State;
    while ((state & Gate::kClosed) == 0) {
        if (gate->State.compare_exchange_weak(state, state + 1)) {
            Jitter();
            return true;
        }
    }
    return false;
}

void Gate_Leave(Gate *gate) {
    Jitter();
    --gate->State;
}

bool Gate_Drain(const Gate *gate, uint32_t limitMs) {
    const uint64_t until = MonotonicMs() + limitMs;
    while (gate->State != Gate::kClosed) {
        if (MonotonicMs() >= until) {
            return false;
        }
        MySleep(1);
    }
    return true;
}

} // namespace nrpc
