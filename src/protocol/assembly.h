// protocol/assembly.h: packets of one connection become whole messages, by one rule for both
// engines. No socket, no lock, no clock.
//
//   The rule   The first packet starts a message, whatever its index. A later one continues it when
//              it has the same number and the next index; any other discards what was assembled and
//              starts anew. The message is complete when its chunks add up to the TotalLen of the
//              packet just taken; past it, or at the 65537th chunk, it is discarded.
//   Memory     for bytes that arrived, never for bytes announced; counted in the budget.
//   Owner      one thread at a time: whoever reads the connection.
#pragma once

#include <cstdint>

#include "protocol/packet.h"
#include "support/budget.h"

namespace nrpc {

// One packet's payload. Record and bytes are one counted block, freed with FreeChunks.
struct MessageChunk {
    uint32_t Len;
    uint8_t *Data;
    MessageChunk *Next;
};

inline constexpr int32_t kMaxChunkCount = 65536;

// A chunk with room for `len` bytes; null when memory is exhausted.
MessageChunk *NewChunk(uint32_t len);
// Frees a whole chain; null is accepted.
void FreeChunks(MessageChunk *first);
// The bytes of all chunks; fits 31 bits for every message that an assembly delivers.
int32_t ChunksLen(const MessageChunk *first);
// The chain as one chunk, taking over and freeing the given ones; null (all freed) when memory is
// exhausted.
MessageChunk *JoinChunks(MessageChunk *first);

// What a connection has received of a message and of a packet. All zeros is an empty one.
struct Assembly {
    // Bytes of a packet that is not whole yet.
    uint8_t *Held;
    int32_t HeldLen;
    int32_t HeldSize;
    // The message so far: null while the next packet starts one.
    MessageChunk *FirstChunk;
    MessageChunk *LastChunk;
    int32_t ChunkCount;
    int32_t MsgNumber;
    int32_t ChunkIndex;
    int32_t ReceivedLen;
    // Number of the packet taken last; meaningful where a feed has taken one.
    int32_t LastPacketNumber;
    size_t ChunksSize; // of the blocks, for the account
    PartialAccount Account;
};

// Receives each complete message and owns its chunks from then on.
using MessageSink = void (*)(void *receiver, MessageChunk *chunks);

enum FeedResult : int32_t {
    kFed = 1,
    // The bytes do not begin with a packet: everything held is discarded, the connection goes on.
    kFeedDiscarded = 0,
    // Bytes behind a packet are none, memory is exhausted, or the message was evicted: the
    // connection must end. Everything held is discarded.
    kFeedBroken = -1,
};

// Takes `len` freshly received bytes. `*packets` is increased by the packets taken.
FeedResult Assembly_Feed(Assembly *assembly, const uint8_t *bytes, int32_t len, MessageSink sink,
                         void *receiver, int32_t *packets);

// True while a packet or a message is incomplete.
bool Assembly_IsPartial(const Assembly *assembly);
// Discards everything; the assembly is empty and can go on.
void Assembly_Reset(Assembly *assembly);

} // namespace nrpc
