#include "client/address.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>

#include <cstdlib>
#include <cstring>

namespace nrpc {

// --- splitting --------------------------------------------------------------------------------

static bool AddPart(CDWordArray *parts, const char *text, size_t len) {
    auto *part = static_cast<char *>(std::malloc(len + 1));
    if (part == nullptr) {
        return false;
    }
    std::memcpy(part, text, len);
    part[len] = 0;
    if (CDWordArray_Add(parts, reinterpret_cast<ArrayWord>(part)) != 1) {
        std::free(part);
        return false;
    }
    return true;
}

bool Split(const char *text, const char *separator, int32_t maximum, CDWordArray *parts) {
    if (text == nullptr || separator == nullptr || parts == nullptr || *separator == 0) {
        return true;
    }
    const char *found = std::strstr(text, separator);
    if (found == nullptr) {
        return true;
    }
    for (; found != nullptr; found = std::strstr(text, separator)) {
        if (!AddPart(parts, text, static_cast<size_t>(found - text))) {
            return false;
        }
        text = found + std::strlen(separator);
        if (maximum > 0 && --maximum == 0) {
            return true;
        }
    }
    return AddPart(parts, text, std::strlen(text));
}

// --- addresses --------------------------------------------------------------------------------

static bool IsAddressPart(const char *part) {
    constexpr size_t kMostDigits = 3;
    constexpr int32_t kHighest = 255;
    int32_t value = 0;
    size_t digits = 0;
    for (; part[digits] != 0; ++digits) {
        if (digits == kMostDigits || part[digits] < '0' || part[digits] > '9') {
            return false;
        }
        value = value * 10 + (part[digits] - '0');
    }
    return value <= kHighest;
}

static const char *PartAt(const CDWordArray *parts, int32_t index) {
    return reinterpret_cast<const char *>(CDWordArray_GetAt(parts, index));
}

static bool AreAddressParts(const CDWordArray *parts) {
    constexpr int32_t kPartCount = 4;
    if (CDWordArray_GetSize(parts) != kPartCount) {
        return false;
    }
    for (int32_t index = 0; index < kPartCount; ++index) {
        if (!IsAddressPart(PartAt(parts, index))) {
            return false;
        }
    }
    return true;
}

int32_t IsIP(const char *text) {
    CDWordArray parts;
    CMem_init_(&parts);
    const bool isAddress = Split(text, ".", -1, &parts) && AreAddressParts(&parts);
    for (int32_t index = 0; index < CDWordArray_GetSize(&parts); ++index) {
        std::free(reinterpret_cast<void *>(CDWordArray_GetAt(&parts, index)));
    }
    CDWordArray_RemoveAll(&parts);
    return isAddress ? 1 : 0;
}

char *GetIpFromUrl(const char *name, char *buffer) {
    addrinfo wanted = {};
    wanted.ai_family = AF_INET;
    wanted.ai_socktype = SOCK_STREAM;
    addrinfo *found = nullptr;
    if (getaddrinfo(name, nullptr, &wanted, &found) != 0 || found == nullptr) {
        return nullptr;
    }
    sockaddr_in address;
    std::memcpy(&address, found->ai_addr, sizeof(address));
    freeaddrinfo(found);
    const char *text = inet_ntop(AF_INET, &address.sin_addr, buffer, kAddressTextSize);
    return text == nullptr ? nullptr : buffer;
}

} // namespace nrpc
