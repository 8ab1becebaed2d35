// What the fuzzers do not see of packets and messages, and what stands under them: the memory
// budget, gates and the book of live objects.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "protocol/assembly.h"
#include "support/budget.h"
#include "support/gate.h"
#include "support/live_object.h"
#include "support/threads.h"
#include "wire.h"

using namespace nrpc;
using tests::Framed, tests::Head;

namespace {

constexpr int32_t kMiB = 1024 * 1024;

// An assembly and the messages that came out of it, each with a bar behind it.
struct Receiver {
    Assembly State = {};
    std::string Messages;
    int32_t Packets = 0;

    ~Receiver() { Assembly_Reset(&State); }
    FeedResult Feed(const std::string &bytes) {
        const std::vector<uint8_t> exact(bytes.begin(), bytes.end()); // a read beyond it shows
        return Assembly_Feed(&State, exact.data(), static_cast<int32_t>(exact.size()), Take, this,
                             &Packets);
    }
    static void Take(void *receiver, MessageChunk *chunks) {
        chunks = JoinChunks(chunks);
        const std::string_view message(reinterpret_cast<const char *>(chunks->Data), chunks->Len);
        static_cast<Receiver *>(receiver)->Messages.append(message) += '|';
        FreeChunks(chunks);
    }
};

} // namespace

TEST(Reassembly, WhatIsNoPacketCostsWhatIsHeldAndNothingElse) {
    const std::string garbage = "<Msg0000>0</Msg0000>";
    Receiver receiver;
    EXPECT_EQ(receiver.Feed(garbage), kFeedDiscarded);
    EXPECT_EQ(receiver.Feed(Head("0011", 9, 0, 4) + "half"), kFed);
    EXPECT_TRUE(Assembly_IsPartial(&receiver.State));
    EXPECT_EQ(receiver.Feed(garbage), kFeedDiscarded);
    EXPECT_FALSE(Assembly_IsPartial(&receiver.State));
    EXPECT_EQ(receiver.Feed(Head("0011", 9, 1, 5) + "other" + Framed("0012", "fine")), kFed);
    EXPECT_EQ(receiver.Feed(Framed("0012", "last") + garbage), kFeedBroken);
    EXPECT_FALSE(Assembly_IsPartial(&receiver.State));
    EXPECT_EQ(receiver.Messages, "fine|last|");

    EXPECT_EQ(receiver.Feed(Head("0011", 256 * kMiB, 0, kMiB) + "x"), kFed);
    EXPECT_LE(receiver.State.HeldSize, 65536); // memory for what arrived, not for what is to come
    for (const size_t count : {size_t{kMaxChunkCount}, size_t{kMaxChunkCount} + 1}) {
        Receiver many;
        EXPECT_EQ(many.Feed(Framed("0011", std::string(count, 'x'), 1)), kFed);
        EXPECT_EQ(many.Messages.empty(), count > kMaxChunkCount);
        EXPECT_EQ(many.Feed(Framed("0012", "next")), kFed);
        EXPECT_TRUE(many.Messages.ends_with("next|"));
    }
}

TEST(Budget, EvictsTheNewestOfPartialMessagesThatFillIt) {
    constexpr size_t kPart = size_t{60} * kMiB;
    constexpr size_t kMost = size_t{400} * kMiB;
    void *parts[] = {TakeCounted(kPart), TakeCounted(kPart)}; // never touched: address space only
    void *most = TakeCounted(kMost);
    PartialAccount old, fresh;
    EXPECT_TRUE(BudgetIsExceeded());
    EXPECT_TRUE(ReportPartial(&old, kPart)); // queues are to blame, and will shrink
    EXPECT_TRUE(ReportPartial(&fresh, kPart));
    EXPECT_TRUE(ReportPartial(&old, kPart + kMost)); // now the partial messages are
    EXPECT_FALSE(ReportPartial(&fresh, kPart + 1));
    EXPECT_FALSE(old.Evicted);
    ReportPartial(&fresh, 0);
    ReportPartial(&old, 0);
    FreeCounted(parts[0], kPart);
    FreeCounted(parts[1], kPart);
    FreeCounted(most, kMost);
    EXPECT_TRUE(BudgetHasRoom(kBudgetLen));
    EXPECT_FALSE(BudgetHasRoom(kBudgetLen + 1));
}

TEST(Budget, ThatNothingRelievesCostsTheNewestPartialMessage) {
    constexpr size_t kPart = 1 << 20;
    void *queued = TakeCounted(kBudgetLen);
    void *parts[] = {TakeCounted(kPart), TakeCounted(kPart)};
    PartialAccount old;
    PartialAccount fresh;
    EXPECT_TRUE(ReportPartial(&old, kPart) && ReportPartial(&fresh, kPart));
    const uint64_t begin = MonotonicMs();
    while (!fresh.Evicted && MonotonicMs() - begin < 40000) {
        EXPECT_TRUE(BudgetIsExceeded());
        MySleep(100);
    }
    EXPECT_TRUE(fresh.Evicted && !old.Evicted);
    EXPECT_GE(MonotonicMs() - begin, 20900U);
    ReportPartial(&fresh, 0);
    ReportPartial(&old, 0);
    FreeCounted(parts[0], kPart);
    FreeCounted(parts[1], kPart);
    FreeCounted(queued, kBudgetLen);
    EXPECT_FALSE(BudgetIsExceeded());
}

TEST(Gates, NobodyIsInsideAfterADrain) {
    Gate gate;
    EXPECT_FALSE(Gate_Enter(&gate));
    std::atomic<bool> done = false;
    int guarded = 0; // changed inside by one thread, outside by the other
    std::thread visitor([&] {
        while (!done) {
            if (const GatePass pass(&gate); pass) {
                ++guarded;
            }
        }
    });
    for (int round = 0; round < 300; ++round) {
        Gate_Open(&gate);
        EXPECT_TRUE(Gate_Enter(&gate));
        Gate_Close(&gate);
        EXPECT_FALSE(Gate_Drain(&gate, 0));
        Gate_Leave(&gate);
        ASSERT_TRUE(Gate_Drain(&gate, 30000));
        const int before = guarded;
        std::this_thread::yield();
        EXPECT_EQ(guarded++, before);
    }
    done = true;
    visitor.join();
}

namespace {
struct Thing {
    LiveObject Life;
    std::atomic<int> Destroyed;
};
void DestroyThing(void *record) {
    ++static_cast<Thing *>(record)->Destroyed;
}
} // namespace

TEST(LiveObjects, AreDestroyedOnceByTheLastOfAllHolders) {
    for (int round = 0; round < 300; ++round) {
        Thing thing = {}; // its memory outlives its life, so that misuse shows
        PublishObject(&thing.Life, &thing, kClientObject, DestroyThing);
        ASSERT_FALSE(HoldObject(&thing, kServerObject) || HoldObject(nullptr, kClientObject));
        std::atomic<int> retired = 0;
        const auto use = [&] {
            for (int step = 0; step < 50 && HoldObject(&thing, kClientObject); ++step) {
                HoldAgain(&thing.Life);
                DropObject(&thing.Life);
                EXPECT_EQ(thing.Destroyed, 0);
                DropObject(&thing.Life);
            }
            if (RetireObject(&thing.Life)) {
                ++retired;
                DropObject(&thing.Life);
            }
        };
        std::thread users[] = {std::thread(use), std::thread(use), std::thread(use)};
        std::for_each(users, users + 3, [](std::thread &user) { user.join(); });
        ASSERT_EQ(retired * 10 + thing.Destroyed, 11);
        ASSERT_FALSE(HoldObject(&thing, kClientObject));
    }
    Thing thing = {};
    PublishObject(&thing.Life, &thing, kServerObject, DestroyThing);
    void *ofParent = TakeCounted(100);
    const pid_t child = fork();
    if (child == 0) { // knows no object of its parent, and answers for none of its memory
        _exit(HoldObject(&thing, kServerObject) || !BudgetHasRoom(kBudgetLen) ? 1 : 0);
    }
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
    FreeCounted(ofParent, 100);
    EXPECT_TRUE(RetireObject(&thing.Life));
    DropObject(&thing.Life);
}
