// fuzz/stream.h: the bytes of one connection and the reads that they arrive in, made from an input.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "protocol/packet.h"

// Mutations rarely hit upon packets that fit together. Heads with an odd first byte are made
// packets from a small world: two ids, few indexes, short chunks. The others stay as they are.
inline void MendPackets(std::string *stream) {
    nrpc::PacketHead head;
    for (size_t at = 0; stream->size() - at >= sizeof(head);) {
        std::memcpy(&head, stream->data() + at, sizeof(head));
        if (head.Magic[0] % 2 != 0) {
            std::memcpy(head.Magic, "NMSG", sizeof(head.Magic));
            std::memcpy(head.MsgID, head.MsgID[3] % 2 != 0 ? "0011" : "0012", sizeof(head.MsgID));
            head.TotalLen &= 63;
            head.ChunkIndex &= 3;
            head.ChunkLen = head.TotalLen == 0 ? 0 : (head.ChunkLen & 31) + 1;
            std::memcpy(stream->data() + at, &head, sizeof(head));
        }
        at += sizeof(head);
        at += std::min(stream->size() - at, static_cast<size_t>(head.ChunkLen));
    }
}

using Bytes = std::vector<uint8_t>;

// One read when `random` is 0, otherwise reads of 1 to 32 bytes, of more where there would be more
// than 200 or so. Each is a block of just its length, so that reading beyond it shows.
inline std::vector<Bytes> CutIntoReads(const std::string &stream, uint32_t random) {
    std::vector<Bytes> reads;
    for (size_t at = 0; at < stream.size(); at += reads.back().size()) {
        const size_t len = std::max<size_t>((random >> 27) + 1, stream.size() / 200);
        const std::string read = stream.substr(at, random == 0 ? stream.size() : len);
        reads.emplace_back(read.begin(), read.end());
        random *= 1664525; // an odd number never becomes 0
    }
    return reads;
}

// The input's first byte stands for a way to cut the others: `random` above.
inline uint32_t CutsOf(uint8_t firstByte) {
    return firstByte * 0x01000193u | 1;
}
