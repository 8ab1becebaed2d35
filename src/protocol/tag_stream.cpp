#include "protocol/tag_stream.h"

#include <cstring>

namespace nrpc {

static constexpr int32_t kFirstRequestNumber = 10;
static constexpr int32_t kCountAt = 9;           // "<Msg" tag ">"
static constexpr int32_t kElementAroundLen = 19; // everything of a tag element but the count
static constexpr int32_t kLeastElementLen = 20;

static bool IsDigit(char character) {
    return character >= '0' && character <= '9';
}

// Writes the number without a terminator and answers the number of characters.
static int32_t FormatNumber(int32_t number, char *text) {
    char reversed[10];
    int32_t len = 0;
    uint32_t rest = number < 0 ? 0u - static_cast<uint32_t>(number) : static_cast<uint32_t>(number);
    do {
        reversed[len++] = static_cast<char>('0' + rest % 10);
        rest /= 10;
    } while (rest != 0);
    int32_t at = 0;
    if (number < 0) {
        text[at++] = '-';
    }
    while (len > 0) {
        text[at++] = reversed[--len];
    }
    return at;
}

void FormatMsgID(int32_t number, MsgIDText text) {
    char padded[kMsgIDLen + 11] = {'0', '0', '0', '0'};
    const int32_t len = kMsgIDLen + FormatNumber(number, padded + kMsgIDLen);
    std::memcpy(text, padded + len - kMsgIDLen, kMsgIDLen);
    text[kMsgIDLen] = 0;
}

int32_t MsgNumberOf(const char *msgID) {
    int32_t at = 0;
    while (at < kMsgIDLen && (msgID[at] == ' ' || (msgID[at] >= '\t' && msgID[at] <= '\r'))) {
        ++at;
    }
    const bool negative = at < kMsgIDLen && msgID[at] == '-';
    if (at < kMsgIDLen && (msgID[at] == '-' || msgID[at] == '+')) {
        ++at;
    }
    int32_t number = 0;
    for (; at < kMsgIDLen && IsDigit(msgID[at]); ++at) {
        number = number * 10 + (msgID[at] - '0');
    }
    return negative ? -number : number;
}

int32_t NextRequestNumber(int32_t last) {
    return last + 1 > kLastMsgNumber ? kFirstRequestNumber : last + 1;
}

int32_t FormatTagElement(const char *msgID, int32_t count, char *text) {
    char *at = text;
    const auto append = [&at](const char *part, size_t len) {
        std::memcpy(at, part, len);
        at += len;
    };
    append("<Msg", 4);
    append(msgID, kMsgIDLen);
    append(">", 1);
    at += FormatNumber(count, at);
    append("</Msg", 5);
    append(msgID, kMsgIDLen);
    append(">", 1);
    return static_cast<int32_t>(at - text);
}

int32_t GetXMLStreamLength(const uint8_t *bytes, int32_t length, MsgIDText tagNumber,
                           int32_t *elementLen, int32_t *count) {
    if (length < kLeastElementLen || std::memcmp(bytes, "<Msg", 4) != 0) {
        return 0;
    }
    std::memcpy(tagNumber, bytes + 4, kMsgIDLen);
    tagNumber[kMsgIDLen] = 0;

    int32_t value = 0;
    int32_t at = kCountAt;
    for (; at < length && bytes[at] != '<'; ++at) {
        const auto character = static_cast<char>(bytes[at]);
        if (!IsDigit(character)) {
            return 0;
        }
        const int32_t digit = character - '0';
        value = value > (INT32_MAX - digit) / 10 ? INT32_MAX : value * 10 + digit;
    }
    const int32_t countLen = at - kCountAt;
    *count = value;
    *elementLen =
        countLen > INT32_MAX - kElementAroundLen ? INT32_MAX : kElementAroundLen + countLen;
    return 1;
}

RecordResult NextRecord(const uint8_t *message, int32_t length, int32_t *at, Record *record) {
    const int32_t remaining = length - *at;
    int32_t elementLen = 0;
    if (GetXMLStreamLength(message + *at, remaining, record->MsgID, &elementLen, &record->Len) !=
            1 ||
        remaining < elementLen || remaining - elementLen < record->Len) {
        return kRecordEnd;
    }
    if (record->Len == 0) {
        return kRecordClose;
    }
    record->Payload = message + *at + elementLen;
    *at += elementLen + record->Len;
    return kRecordTaken;
}

void FormatRequestCode(int32_t handle, const char *msgID, char *text) {
    text += FormatNumber(handle, text);
    *text++ = '#';
    const size_t idLen = strnlen(msgID, kMsgIDLen);
    std::memcpy(text, msgID, idLen);
    text[idLen] = 0;
}

bool ParseRequestCode(const char *text, int32_t *handle, MsgIDText msgID) {
    constexpr size_t kMaxHandleLen = 10;
    const char *separator = std::strchr(text, '#');
    if (separator == nullptr || separator - text > static_cast<ptrdiff_t>(kMaxHandleLen) ||
        strnlen(separator + 1, kMsgIDLen) < kMsgIDLen) {
        return false;
    }
    int64_t value = 0;
    for (const char *at = text; at < separator; ++at) {
        if (!IsDigit(*at)) {
            return false;
        }
        value = value * 10 + (*at - '0');
    }
    if (value > INT32_MAX) {
        return false;
    }
    *handle = static_cast<int32_t>(value);
    std::memcpy(msgID, separator + 1, kMsgIDLen);
    msgID[kMsgIDLen] = 0;
    return true;
}

} // namespace nrpc
