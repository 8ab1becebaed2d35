#include "host/frame.h"

#include <atomic>
#include <cstring>

#include "host/host_call.h"

namespace nrpc {

// Written by ProcessNotifyLib, at start-up as a rule; read by every thread.
static std::atomic<HostWord> g_fnNotifySys;
static std::atomic<HostWord> g_nLastNotifyResult;

HostWord NotifySys(HostWord code, HostWord param1, HostWord param2) {
    const HostWord service = g_fnNotifySys;
    HostWord frame = 0;
    const HostWord result = service == 0 ? 0 : CallHost(service, code, param1, param2, &frame);
    g_nLastNotifyResult.store(result, std::memory_order_relaxed);
    return result;
}

void *HostAlloc(size_t size) {
    return reinterpret_cast<void *>(NotifySys(kHostAlloc, size, 0));
}

void HostFree(void *block) {
    NotifySys(kHostFree, reinterpret_cast<HostWord>(block), 0);
}

char *CloneTextData(const char *text, bool *failed) {
    return CloneTextBytes(text, text == nullptr ? 0 : static_cast<uint32_t>(std::strlen(text)),
                          failed);
}

char *CloneTextBytes(const void *bytes, uint32_t length, bool *failed) {
    const size_t textLen = length == 0 ? 0 : strnlen(static_cast<const char *>(bytes), length);
    *failed = false;
    if (textLen == 0) {
        return nullptr;
    }
    auto *text = static_cast<char *>(HostAlloc(textLen + 1));
    if (text == nullptr) {
        *failed = true;
        return nullptr;
    }
    std::memcpy(text, bytes, textLen);
    text[textLen] = 0;
    return text;
}

void *CloneBinData(const void *data, uint32_t length, bool *failed) {
    *failed = false;
    if (length == 0) {
        return nullptr;
    }
    auto *block = static_cast<uint8_t *>(HostAlloc(kCountedHeadLen + length));
    if (block == nullptr) {
        *failed = true;
        return nullptr;
    }
    const auto count = static_cast<int32_t>(length);
    std::memcpy(block, &kOneDimension, sizeof(kOneDimension));
    std::memcpy(block + sizeof(kOneDimension), &count, sizeof(count));
    std::memcpy(block + kCountedHeadLen, data, length);
    return block;
}

void StoreInSlot(HostWord *slot, void *value) {
    HostFree(reinterpret_cast<void *>(*slot));
    *slot = reinterpret_cast<HostWord>(value);
}

int32_t ByteSetLength(const int32_t *byteSet) {
    if (byteSet == nullptr || byteSet[0] != kOneDimension || byteSet[1] < 1) {
        return 0;
    }
    return byteSet[1];
}

} // namespace nrpc

NRPC_HOST_ENTRY int32_t ProcessNotifyLib(int32_t code, nrpc::HostWord param1, nrpc::HostWord) {
    if (code != nrpc::kNotifyCodeHostService) {
        return -1;
    }
    nrpc::g_fnNotifySys = param1;
    return 0;
}
