// protocol/packet.h: a message on the wire is cut into packets.
//
//   packet := head chunk                     all integers little-endian, nothing between packets
//     0 Magic "NMSG" | 4 MsgID 4 digits | 8 TotalLen | 12 ChunkIndex | 16 ChunkLen | 20 chunk
//
//   TotalLen is the length of the whole message, the same in each of its packets; ChunkIndex counts
//   them from 0; every chunk but the last has kMaxChunkLen bytes.
#pragma once

#include <cstddef>
#include <cstdint>

namespace nrpc {

struct PacketHead {
    char Magic[4];
    char MsgID[4];
    int32_t TotalLen;
    int32_t ChunkIndex;
    int32_t ChunkLen;
};
inline constexpr int32_t kPacketHeadLen = 4 + 4 + 4 + 4 + 4; // in the order of the drawing
static_assert(sizeof(PacketHead) == kPacketHeadLen && offsetof(PacketHead, ChunkLen) == 16);

inline constexpr int32_t kMsgIDLen = 4;
// What a sender puts into one packet.
inline constexpr int32_t kMaxChunkLen = 8192;
// What a receiver takes at most; a head beyond this counts as a wrong magic.
inline constexpr int32_t kMaxReceivedChunkLen = 1024 * 1024;
inline constexpr int32_t kMaxReceivedTotalLen = 256 * 1024 * 1024;

// --- sending ----------------------------------------------------------------------------------

// `msgID` points to four characters, here and below.
PacketHead MakePacketHead(const char *msgID, int32_t totalLen, int32_t index, int32_t chunkLen);

// One packet of a message; the list is in ChunkIndex order. Node and packet are one counted block
// (support/budget.h). The list belongs to whoever built it until FreeSendMsgList.
struct SendMsgList {
    uint8_t *Packet;
    int32_t PacketLen;
    SendMsgList *Next;
};

// Cuts `length` bytes at `data` into packets. Result 1; or 0, `*head` untouched, when `data` is
// null, `length` is below 1 or memory is exhausted.
int32_t CreateSendMsgList(const char *msgID, const uint8_t *data, int32_t length,
                          SendMsgList **head);
// The same for a message that is one record: the tag element made from `msgID` and `length`,
// followed by the data.
int32_t CreateRecordMsgList(const char *msgID, const uint8_t *data, int32_t length,
                            SendMsgList **head);
// Frees the first node and answers the next one; null gives null.
SendMsgList *FreeFirstPacket(SendMsgList *head);
// Null is accepted.
void FreeSendMsgList(SendMsgList *head);

// --- receiving --------------------------------------------------------------------------------

// A packet seen in received bytes; Payload points into them.
struct ReceivedPacket {
    int32_t MsgNumber; // numeric value of MsgID
    int32_t TotalLen;
    int32_t ChunkIndex;
    int32_t ChunkLen;
    const uint8_t *Payload;
};

// Reads the 20 bytes at `bytes`. Result 1; or 0, nothing stored, when Magic is wrong or the lengths
// are none that a packet can have.
int32_t ParsePacketHead(const uint8_t *bytes, ReceivedPacket *packet);

enum PacketResult : int32_t { kPacketTaken = 1, kPacketIncomplete = 0, kPacketBadMagic = -1 };

// Looks for a whole packet at the start of `length` bytes. With kPacketTaken the packet takes up
// kPacketHeadLen + ChunkLen of them, and what follows is the rest. Copies and consumes nothing.
PacketResult GetPacketFromBuf(const uint8_t *buffer, int32_t length, ReceivedPacket *packet);

} // namespace nrpc
