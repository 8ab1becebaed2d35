#include "protocol/assembly.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>

namespace nrpc {

// --- chunks -----------------------------------------------------------------------------------

static size_t ChunkSize(uint32_t len) {
    return sizeof(MessageChunk) + len;
}

MessageChunk *NewChunk(uint32_t len) {
    void *block = TakeCounted(ChunkSize(len));
    if (block == nullptr) {
        return nullptr;
    }
    auto *bytes = static_cast<uint8_t *>(block) + sizeof(MessageChunk);
    return new (block) MessageChunk{len, bytes, nullptr};
}

void FreeChunks(MessageChunk *first) {
    while (first != nullptr) {
        MessageChunk *next = first->Next;
        FreeCounted(first, ChunkSize(first->Len));
        first = next;
    }
}

int32_t ChunksLen(const MessageChunk *first) {
    uint32_t len = 0;
    for (; first != nullptr; first = first->Next) {
        len += first->Len;
    }
    return static_cast<int32_t>(len);
}

MessageChunk *JoinChunks(MessageChunk *first) {
    if (first == nullptr || first->Next == nullptr) {
        return first;
    }
    MessageChunk *joined = NewChunk(static_cast<uint32_t>(ChunksLen(first)));
    uint8_t *at = joined == nullptr ? nullptr : joined->Data;
    while (first != nullptr) {
        if (joined != nullptr) {
            std::memcpy(at, first->Data, first->Len);
            at += first->Len;
        }
        MessageChunk *next = first->Next;
        first->Next = nullptr; // freed one by one, as the copy grows
        FreeChunks(first);
        first = next;
    }
    return joined;
}

// --- the message so far -----------------------------------------------------------------------

static void DiscardMessage(Assembly *assembly) {
    FreeChunks(assembly->FirstChunk);
    assembly->FirstChunk = nullptr;
    assembly->LastChunk = nullptr;
    assembly->ChunkCount = 0;
    assembly->ReceivedLen = 0;
    assembly->ChunksSize = 0;
}

static bool Continues(const Assembly *assembly, const ReceivedPacket &packet) {
    return assembly->FirstChunk != nullptr && packet.MsgNumber == assembly->MsgNumber &&
           packet.ChunkIndex == int64_t{assembly->ChunkIndex} + 1;
}

static bool AppendChunk(Assembly *assembly, const ReceivedPacket &packet) {
    MessageChunk *chunk = NewChunk(static_cast<uint32_t>(packet.ChunkLen));
    if (chunk == nullptr) {
        return false;
    }
    std::memcpy(chunk->Data, packet.Payload, chunk->Len);
    (assembly->FirstChunk == nullptr ? assembly->FirstChunk : assembly->LastChunk->Next) = chunk;
    assembly->LastChunk = chunk;
    assembly->ChunkCount += 1;
    assembly->MsgNumber = packet.MsgNumber;
    assembly->ChunkIndex = packet.ChunkIndex;
    assembly->ReceivedLen += packet.ChunkLen;
    assembly->ChunksSize += ChunkSize(chunk->Len);
    return true;
}

// False when memory is exhausted.
static bool TakePacket(Assembly *assembly, const ReceivedPacket &packet, MessageSink sink,
                       void *receiver) {
    if (!Continues(assembly, packet)) {
        DiscardMessage(assembly);
    }
    if (!AppendChunk(assembly, packet)) {
        return false;
    }
    if (assembly->ReceivedLen == packet.TotalLen) {
        MessageChunk *whole = assembly->FirstChunk;
        assembly->FirstChunk = nullptr; // the receiver's now
        DiscardMessage(assembly);
        sink(receiver, whole);
    } else if (assembly->ReceivedLen > packet.TotalLen || assembly->ChunkCount >= kMaxChunkCount) {
        DiscardMessage(assembly);
    }
    return true;
}

// --- bytes of a packet that is not whole yet --------------------------------------------------

static void ReleaseHeld(Assembly *assembly) {
    FreeCounted(assembly->Held, static_cast<size_t>(assembly->HeldSize));
    assembly->Held = nullptr;
    assembly->HeldLen = 0;
    assembly->HeldSize = 0;
}

// Grows geometrically, so that a packet arriving byte by byte is not copied for each of them.
static bool GrowHeld(Assembly *assembly, int32_t needed) {
    if (needed <= assembly->HeldSize) {
        return true;
    }
    const int32_t size = std::max(needed, assembly->HeldSize * 2);
    auto *grown = static_cast<uint8_t *>(TakeCounted(static_cast<size_t>(size)));
    if (grown == nullptr) {
        return false;
    }
    if (assembly->HeldLen > 0) {
        std::memcpy(grown, assembly->Held, static_cast<size_t>(assembly->HeldLen));
    }
    FreeCounted(assembly->Held, static_cast<size_t>(assembly->HeldSize));
    assembly->Held = grown;
    assembly->HeldSize = size;
    return true;
}

// Received bytes that are still to be read.
namespace {
struct Fresh {
    const uint8_t *Bytes;
    int32_t Len;
};
} // namespace

static void Skip(Fresh *fresh, int32_t len) {
    fresh->Bytes += len;
    fresh->Len -= len;
}

// Moves fresh bytes behind the held ones until there are `wanted`, or none is left.
static bool HoldUpTo(Assembly *assembly, int32_t wanted, Fresh *fresh) {
    const int32_t len = std::min(wanted - assembly->HeldLen, fresh->Len);
    if (len <= 0) {
        return true;
    }
    if (!GrowHeld(assembly, assembly->HeldLen + len)) {
        return false;
    }
    std::memcpy(assembly->Held + assembly->HeldLen, fresh->Bytes, static_cast<size_t>(len));
    assembly->HeldLen += len;
    Skip(fresh, len);
    return true;
}

// Gives the held packet what it lacks: the packets behind it are read where they lie.
static bool CompleteHeld(Assembly *assembly, Fresh *fresh) {
    ReceivedPacket packet;
    return HoldUpTo(assembly, kPacketHeadLen, fresh) &&
           (assembly->HeldLen < kPacketHeadLen || ParsePacketHead(assembly->Held, &packet) == 0 ||
            HoldUpTo(assembly, kPacketHeadLen + packet.ChunkLen, fresh));
}

// Keeps what begins a packet for the next feed.
static bool HoldRest(Assembly *assembly, Fresh *fresh) {
    if (assembly->HeldLen == 0 && fresh->Len == 0) {
        ReleaseHeld(assembly);
        return true;
    }
    return HoldUpTo(assembly, assembly->HeldLen + fresh->Len, fresh);
}

// --- feeding ----------------------------------------------------------------------------------

static FeedResult Feed(Assembly *assembly, const uint8_t *bytes, int32_t len, MessageSink sink,
                       void *receiver, int32_t *packets) {
    Fresh fresh = {bytes, len};
    if (assembly->HeldLen > 0 && !CompleteHeld(assembly, &fresh)) {
        return kFeedBroken;
    }
    for (bool behindPacket = false;; behindPacket = true) {
        const bool isHeld = assembly->HeldLen > 0;
        ReceivedPacket packet;
        const PacketResult result = GetPacketFromBuf(
            isHeld ? assembly->Held : fresh.Bytes, isHeld ? assembly->HeldLen : fresh.Len, &packet);
        if (result == kPacketBadMagic) {
            return behindPacket ? kFeedBroken : kFeedDiscarded;
        }
        if (result == kPacketIncomplete) {
            return HoldRest(assembly, &fresh) ? kFed : kFeedBroken;
        }
        if (!TakePacket(assembly, packet, sink, receiver)) {
            return kFeedBroken;
        }
        assembly->LastPacketNumber = packet.MsgNumber;
        *packets += 1;
        if (isHeld) {
            assembly->HeldLen = 0; // the block serves the next one
        } else {
            Skip(&fresh, kPacketHeadLen + packet.ChunkLen);
        }
    }
}

FeedResult Assembly_Feed(Assembly *assembly, const uint8_t *bytes, int32_t len, MessageSink sink,
                         void *receiver, int32_t *packets) {
    FeedResult result = Feed(assembly, bytes, len, sink, receiver, packets);
    if (result != kFed) {
        Assembly_Reset(assembly);
    }
    const size_t held = assembly->ChunksSize + static_cast<size_t>(assembly->HeldSize);
    if (!ReportPartial(&assembly->Account, held)) {
        Assembly_Reset(assembly);
        return kFeedBroken;
    }
    return result;
}

bool Assembly_IsPartial(const Assembly *assembly) {
    return assembly->HeldLen > 0 || assembly->FirstChunk != nullptr;
}

void Assembly_Reset(Assembly *assembly) {
    ReleaseHeld(assembly);
    DiscardMessage(assembly);
    ReportPartial(&assembly->Account, 0);
}

} // namespace nrpc
