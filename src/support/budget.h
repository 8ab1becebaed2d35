// support/budget.h: one budget for all that the process holds for peers: partly received messages
// and payloads waiting in queues. A peer, or a handler that does not keep up, fills it at most.
//
//   Over it    nothing is read and no connection accepted until it falls (TCP then slows the
//              peers), and send commands answer false. Where partly received messages alone take
//              more than half of it, waiting would not help: the newest of them are evicted
//              together with their connections.
//   Counting   what was really allocated, with an allowance for the allocator, in bytes.
//   Threads    every function may be called from any thread. One small lock of its own guards the
//              list of accounts; it is held briefly, and nothing is taken under it.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace nrpc {

inline constexpr size_t kBudgetLen = size_t{512} * 1024 * 1024;

// A block that counts against the budget; null when memory is exhausted. `size` is needed again to
// free it. Taking a block is never refused for the budget's sake: ask BudgetHasRoom where
// something new would come in.
void *TakeCounted(size_t size);
// Null is accepted.
void FreeCounted(void *block, size_t size);

bool BudgetHasRoom(size_t size);
// Asked again and again by whoever waits for it to fall. When it has not for 21 seconds, because
// nobody takes what is queued, the newest partly received message is evicted.
bool BudgetIsExceeded();

// The partly received message of one connection, listed among those that may be evicted as long as
// it has any bytes. Owned by the connection.
struct PartialAccount {
    PartialAccount *Newer = nullptr;
    PartialAccount *Older = nullptr;
    size_t Len = 0; // bytes held; changed by the owner only
    bool Listed = false;
    // Set by any thread that finds the budget exceeded; the owner then drops the connection.
    std::atomic<bool> Evicted = false;
};

// Reports that the account now holds `len` bytes (counted already by TakeCounted). With 0 it is a
// new one. False: it was evicted, and its bytes must be given up.
bool ReportPartial(PartialAccount *account, size_t len);

// For the child of a fork, where all that was counted belongs to objects that are forgotten.
void ForgetBudget();

} // namespace nrpc
