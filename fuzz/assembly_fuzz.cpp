// The first byte chooses how the rest, the bytes of one connection, is cut into reads. However they
// are cut, the messages are those that the plain model below finds, up to the first bytes that are
// no packet; afterwards nothing is left in the budget.
#include <cstring>
#include <string>
#include <vector>

#include "check.h"
#include "failing_malloc.h"
#include "protocol/assembly.h"
#include "stream.h"

using namespace nrpc;

struct Outcome {
    std::vector<std::string> Messages;
    int32_t Packets = 0;
    bool Garbage = false;
    bool Partial = false;
    bool operator==(const Outcome &) const = default;
};

static bool IsGarbage(const PacketHead &head) {
    return std::memcmp(head.Magic, "NMSG", sizeof(head.Magic)) != 0 || head.ChunkLen < 0 ||
           head.ChunkLen > kMaxReceivedChunkLen || head.TotalLen < 0 ||
           head.TotalLen > kMaxReceivedTotalLen || (head.ChunkLen == 0 && head.TotalLen != 0);
}

static Outcome Model(std::string stream) {
    Outcome outcome;
    std::string message;
    long id = 0;
    int64_t nextIndex = 0;
    for (PacketHead head; stream.size() >= sizeof(head);) {
        std::memcpy(&head, stream.data(), sizeof(head));
        if (IsGarbage(head)) {
            return {outcome.Messages, outcome.Packets, true, false};
        }
        const std::string chunk = stream.substr(sizeof(head), static_cast<size_t>(head.ChunkLen));
        if (chunk.size() < static_cast<size_t>(head.ChunkLen)) {
            break;
        }
        stream.erase(0, sizeof(head) + chunk.size());
        const long number = std::strtol(std::string(head.MsgID, kMsgIDLen).c_str(), nullptr, 10);
        const bool continues = outcome.Partial && number == id && head.ChunkIndex == nextIndex;
        message = continues ? message + chunk : chunk;
        id = number;
        nextIndex = int64_t{head.ChunkIndex} + 1;
        outcome.Packets += 1;
        outcome.Partial = message.size() < static_cast<size_t>(head.TotalLen);
        if (message.size() == static_cast<size_t>(head.TotalLen)) {
            outcome.Messages.push_back(message);
        }
    }
    outcome.Partial = outcome.Partial || !stream.empty();
    return outcome;
}

static void KeepMessage(void *receiver, MessageChunk *chunks) {
    chunks = JoinChunks(chunks);
    if (chunks == nullptr) {
        return; // no memory
    }
    static_cast<Outcome *>(receiver)->Messages.emplace_back(
        reinterpret_cast<const char *>(chunks->Data), chunks->Len);
    FreeChunks(chunks);
}

static Outcome FeedInReads(const std::string &stream, uint32_t random) {
    Outcome outcome;
    Assembly assembly = {};
    for (const Bytes &read : CutIntoReads(stream, random)) {
        outcome.Garbage = Assembly_Feed(&assembly, read.data(), static_cast<int32_t>(read.size()),
                                        KeepMessage, &outcome, &outcome.Packets) != kFed;
        if (outcome.Garbage) {
            break;
        }
    }
    outcome.Partial = Assembly_IsPartial(&assembly);
    Assembly_Reset(&assembly);
    CHECK(BudgetHasRoom(kBudgetLen)); // nothing is counted any more
    return outcome;
}

// Without memory for the n-th allocation a message may be lost, or the connection, but no message
// comes in part or twice.
static void CheckExhausted(const std::string &stream, uint32_t random, int32_t n,
                           const Outcome &expected) {
    g_MallocsToFailure = n;
    const Outcome outcome = FeedInReads(stream, random);
    const bool failed = g_MallocsToFailure == 0;
    g_MallocsToFailure = 0;
    CHECK(failed || outcome == expected);
    auto next = expected.Messages.begin();
    for (const std::string &message : outcome.Messages) {
        next = std::find(next, expected.Messages.end(), message);
        CHECK(next++ != expected.Messages.end());
    }
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size > 0) {
        std::string stream(reinterpret_cast<const char *>(data) + 1, size - 1);
        MendPackets(&stream);
        const Outcome expected = Model(stream);
        CHECK(FeedInReads(stream, 0) == expected);
        CHECK(FeedInReads(stream, CutsOf(data[0])) == expected);
        CheckExhausted(stream, CutsOf(data[0]), 1 + data[0] % 16, expected);
    }
    return 0;
}
