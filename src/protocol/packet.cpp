#include "protocol/packet.h"

#include <algorithm>
#include <cstring>
#include <new>

#include "protocol/tag_stream.h"
#include "support/budget.h"

namespace nrpc {

static constexpr char kMagic[] = {'N', 'M', 'S', 'G'};

PacketHead MakePacketHead(const char *msgID, int32_t totalLen, int32_t index, int32_t chunkLen) {
    PacketHead head = {{}, {}, totalLen, index, chunkLen};
    std::memcpy(head.Magic, kMagic, sizeof(kMagic));
    std::memcpy(head.MsgID, msgID, kMsgIDLen);
    return head;
}

// Bytes that lie in two places, read as one run: a message's tag element and its data.
namespace {
struct Source {
    const uint8_t *First;
    int32_t FirstLen;
    const uint8_t *Second;
    int32_t SecondLen;
};
} // namespace

static void CopyNext(Source *source, uint8_t *to, int32_t len) {
    const int32_t fromFirst = std::min(len, source->FirstLen);
    std::memcpy(to, source->First, static_cast<size_t>(fromFirst));
    source->First += fromFirst;
    source->FirstLen -= fromFirst;
    std::memcpy(to + fromFirst, source->Second, static_cast<size_t>(len - fromFirst));
    source->Second += len - fromFirst;
    source->SecondLen -= len - fromFirst;
}

static size_t NodeLen(int32_t packetLen) {
    return sizeof(SendMsgList) + static_cast<size_t>(packetLen);
}

static SendMsgList *NewPacket(const char *msgID, int32_t totalLen, int32_t index, Source *source,
                              int32_t chunkLen) {
    const int32_t packetLen = kPacketHeadLen + chunkLen;
    void *block = TakeCounted(NodeLen(packetLen));
    if (block == nullptr) {
        return nullptr;
    }
    auto *bytes = static_cast<uint8_t *>(block) + sizeof(SendMsgList);
    const PacketHead head = MakePacketHead(msgID, totalLen, index, chunkLen);
    std::memcpy(bytes, &head, sizeof(head));
    CopyNext(source, bytes + kPacketHeadLen, chunkLen);
    return new (block) SendMsgList{bytes, packetLen, nullptr};
}

static int32_t CutIntoPackets(const char *msgID, Source source, SendMsgList **head) {
    const int32_t length = source.FirstLen + source.SecondLen;
    SendMsgList *first = nullptr;
    SendMsgList **link = &first; // where the next packet hangs
    for (int32_t done = 0, index = 0; done < length; ++index) {
        const int32_t chunkLen = std::min(length - done, kMaxChunkLen);
        *link = NewPacket(msgID, length, index, &source, chunkLen);
        if (*link == nullptr) {
            FreeSendMsgList(first);
            return 0;
        }
        link = &(*link)->Next;
        done += chunkLen;
    }
    *head = first; // only a whole list is ever seen
    return 1;
}

int32_t CreateSendMsgList(const char *msgID, const uint8_t *data, int32_t length,
                          SendMsgList **head) {
    if (data == nullptr || length < 1) {
        return 0;
    }
    return CutIntoPackets(msgID, {data, length, data, 0}, head);
}

int32_t CreateRecordMsgList(const char *msgID, const uint8_t *data, int32_t length,
                            SendMsgList **head) {
    if (data == nullptr || length < 1 || length > INT32_MAX - kMaxTagElementLen) {
        return 0;
    }
    char tag[kMaxTagElementLen];
    const int32_t tagLen = FormatTagElement(msgID, length, tag);
    return CutIntoPackets(msgID, {reinterpret_cast<const uint8_t *>(tag), tagLen, data, length},
                          head);
}

SendMsgList *FreeFirstPacket(SendMsgList *head) {
    if (head == nullptr) {
        return nullptr;
    }
    SendMsgList *next = head->Next;
    FreeCounted(head, NodeLen(head->PacketLen));
    return next;
}

void FreeSendMsgList(SendMsgList *head) {
    while (head != nullptr) {
        head = FreeFirstPacket(head);
    }
}

static bool IsPossible(const PacketHead &head) {
    return head.ChunkLen >= 0 && head.ChunkLen <= kMaxReceivedChunkLen && head.TotalLen >= 0 &&
           head.TotalLen <= kMaxReceivedTotalLen && (head.ChunkLen > 0 || head.TotalLen == 0);
}

int32_t ParsePacketHead(const uint8_t *bytes, ReceivedPacket *packet) {
    PacketHead head;
    std::memcpy(&head, bytes, sizeof(head));
    if (std::memcmp(head.Magic, kMagic, sizeof(kMagic)) != 0 || !IsPossible(head)) {
        return 0;
    }
    packet->MsgNumber = MsgNumberOf(head.MsgID);
    packet->TotalLen = head.TotalLen;
    packet->ChunkIndex = head.ChunkIndex;
    packet->ChunkLen = head.ChunkLen;
    packet->Payload = bytes + kPacketHeadLen;
    return 1;
}

PacketResult GetPacketFromBuf(const uint8_t *buffer, int32_t length, ReceivedPacket *packet) {
    if (length < kPacketHeadLen) {
        return kPacketIncomplete;
    }
    if (ParsePacketHead(buffer, packet) == 0) {
        return kPacketBadMagic;
    }
    return length - kPacketHeadLen >= packet->ChunkLen ? kPacketTaken : kPacketIncomplete;
}

} // namespace nrpc
