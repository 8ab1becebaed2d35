#include "support/budget.h"

#include <pthread.h>

#include <cstdlib>

#include "support/threads.h"

namespace nrpc {

// What the allocator adds to a block, about.
static constexpr size_t kBlockOverheadLen = 12;

static std::atomic<size_t> s_Used;

// Partly received messages, the newest first. Only those that outlived a read are here.
static pthread_mutex_t s_AccountLock = PTHREAD_MUTEX_INITIALIZER;
static PartialAccount *s_Newest;
static size_t s_PartialLen; // of all that are listed

void *TakeCounted(size_t size) {
    void *block = std::malloc(size);
    if (block != nullptr) {
        s_Used += size + kBlockOverheadLen;
    }
    return block;
}

void FreeCounted(void *block, size_t size) {
    if (block != nullptr) {
        std::free(block);
        s_Used -= size + kBlockOverheadLen;
    }
}

bool BudgetHasRoom(size_t size) {
    const size_t used = s_Used;
    return used <= kBudgetLen && size <= kBudgetLen - used;
}

static void Enter(PartialAccount *account) {
    account->Older = s_Newest;
    account->Newer = nullptr;
    if (s_Newest != nullptr) {
        s_Newest->Newer = account;
    }
    s_Newest = account;
    account->Listed = true;
}

static void Leave(PartialAccount *account) {
    (account->Newer == nullptr ? s_Newest : account->Newer->Older) = account->Older;
    if (account->Older != nullptr) {
        account->Older->Newer = account->Newer;
    }
    account->Listed = false;
}

// Condemns the newest messages until what the others hold fits.
static void EvictNewest(size_t excess) {
    for (PartialAccount *account = s_Newest; account != nullptr && excess > 0;
         account = account->Older) {
        account->Evicted = true;
        excess -= account->Len < excess ? account->Len : excess;
    }
}

// Milliseconds since it was found exceeded, of a clock of 32 bits that is never 0; 0: it is not.
static std::atomic<uint32_t> s_ExceededSince;

bool BudgetIsExceeded() {
    constexpr uint32_t kPatienceMs = 21000;
    if (BudgetHasRoom(0)) {
        s_ExceededSince = 0;
        return false;
    }
    const uint32_t now = static_cast<uint32_t>(MonotonicMs()) | 1;
    uint32_t since = 0;
    if (!s_ExceededSince.compare_exchange_strong(since, now) && now - since >= kPatienceMs &&
        s_ExceededSince.compare_exchange_strong(since, now)) {
        pthread_mutex_lock(&s_AccountLock);
        EvictNewest(1);
        pthread_mutex_unlock(&s_AccountLock);
    }
    return true;
}

bool ReportPartial(PartialAccount *account, size_t len) {
    if (len == 0 && !account->Listed) {
        return true; // the message came and went within one read
    }
    pthread_mutex_lock(&s_AccountLock);
    if (!account->Listed) {
        Enter(account);
    }
    s_PartialLen += len - account->Len;
    account->Len = len;
    if (len == 0) {
        Leave(account);
        account->Evicted = false;
    }
    const size_t used = s_Used;
    if (used > kBudgetLen && s_PartialLen > kBudgetLen / 2) {
        EvictNewest(used - kBudgetLen);
    }
    pthread_mutex_unlock(&s_AccountLock);
    return !account->Evicted;
}

void ForgetBudget() {
    s_AccountLock = PTHREAD_MUTEX_INITIALIZER; // a thread that is not in the child may hold it
    s_Newest = nullptr;
    s_PartialLen = 0;
    s_ExceededSince = 0;
    s_Used = 0;
}

} // namespace nrpc
