// The first byte chooses how the rest, the bytes of one connection, is cut into reads. However they
// are cut, the messages are those that the plain model below finds, up to the first bytes that are
// no packet; afterwards nothing is left in the budget.
#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "check.h"
#include "protocol/assembly.h"

using namespace nrpc;

struct Outcome {
    std::vector<std::string> Messages;
    int32_t Packets = 0;
    bool Garbage = false;
    bool Partial = false;
    bool operator==(const Outcome &) const = default;
};

// Mutations rarely hit upon packets that fit together. Heads with an odd first byte are made
// packets from a small world: two ids, few indexes, short chunks. The others stay as they are.
static void MendPackets(std::string *stream) {
    PacketHead head;
    for (size_t at = 0; stream->size() - at >= sizeof(head);) {
        std::memcpy(&head, stream->data() + at, sizeof(head));
        if (head.Magic[0] % 2 != 0) {
            std::memcpy(head.Magic, "NMSG", sizeof(head.Magic));
            std::memcpy(head.MsgID, head.MsgID[3] % 2 != 0 ? "0011" : "0012", sizeof(head.MsgID));
            head.TotalLen &= 31;
            head.ChunkIndex &= 3;
            head.ChunkLen = head.TotalLen == 0 ? 0 : (head.ChunkLen & 15) + 1;
            std::memcpy(stream->data() + at, &head, sizeof(head));
        }
        at += sizeof(head);
        at += std::min(stream->size() - at, static_cast<size_t>(head.ChunkLen));
    }
}

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
    static_cast<Outcome *>(receiver)->Messages.emplace_back(
        reinterpret_cast<const char *>(chunks->Data), chunks->Len);
    FreeChunks(chunks);
}

// In one piece when `random` is 0, otherwise in reads of 1 to 32 bytes.
static Outcome FeedInPieces(const std::string &stream, uint32_t random) {
    Outcome outcome;
    Assembly assembly = {};
    for (size_t at = 0; at < stream.size() && !outcome.Garbage;) {
        const std::string piece =
            stream.substr(at, random == 0 ? stream.size() : (random >> 27) + 1);
        outcome.Garbage = Assembly_Feed(&assembly, reinterpret_cast<const uint8_t *>(piece.data()),
                                        static_cast<int32_t>(piece.size()), KeepMessage, &outcome,
                                        &outcome.Packets) != kFed;
        at += piece.size();
        random *= 1664525; // an odd number never becomes 0
    }
    outcome.Partial = Assembly_IsPartial(&assembly);
    Assembly_Reset(&assembly);
    CHECK(BudgetHasRoom(kBudgetLen)); // nothing is counted any more
    return outcome;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size > 0) {
        std::string stream(reinterpret_cast<const char *>(data) + 1, size - 1);
        MendPackets(&stream);
        const Outcome expected = Model(stream);
        CHECK(FeedInPieces(stream, 0) == expected);
        CHECK(FeedInPieces(stream, data[0] * 0x01000193u | 1) == expected);
    }
    return 0;
}
