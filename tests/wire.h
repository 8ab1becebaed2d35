// wire.h: the wire written a second time, without the product's own protocol code, so that a fault
// of one side cannot hide behind the same fault of the other.
#pragma once

#include <algorithm>
#include <cstdint>
#include <string>
#include <string_view>

namespace nrpc::tests {

inline constexpr size_t kChunkLen = 8192;

inline std::string Head(std::string_view id, int32_t totalLen, int32_t chunkIndex,
                        int32_t chunkLen) {
    std::string head = "NMSG" + std::string(id);
    for (const int32_t number : {totalLen, chunkIndex, chunkLen}) {
        head.append(reinterpret_cast<const char *>(&number), sizeof(number));
    }
    return head;
}

inline std::string Packet(std::string_view id, int32_t totalLen, int32_t chunkIndex,
                          std::string_view chunk) {
    return Head(id, totalLen, chunkIndex, static_cast<int32_t>(chunk.size())).append(chunk);
}

inline std::string Record(std::string_view id, std::string_view payload) {
    const std::string tag = "Msg" + std::string(id) + ">";
    return "<" + tag + std::to_string(payload.size()) + "</" + tag + std::string(payload);
}

// Any content as one message, cut into packets of at most `chunkLen`.
inline std::string Framed(std::string_view id, std::string_view content,
                          size_t chunkLen = kChunkLen) {
    const auto totalLen = static_cast<int32_t>(content.size());
    std::string wire;
    for (int32_t index = 0; !content.empty(); ++index) {
        wire += Packet(id, totalLen, index, content.substr(0, chunkLen));
        content.remove_prefix(std::min(chunkLen, content.size()));
    }
    return wire;
}

inline std::string Message(std::string_view id, std::string_view payload,
                           size_t chunkLen = kChunkLen) {
    return Framed(id, Record(id, payload), chunkLen);
}

// Bytes that differ from place to place and from seed to seed.
inline std::string Pattern(size_t length, uint32_t seed = 1) {
    std::string bytes(length, 0);
    for (char &byte : bytes) {
        seed = seed * 1664525 + 1013904223;
        byte = static_cast<char>('!' + (seed >> 16) % 91);
    }
    return bytes;
}

} // namespace nrpc::tests
