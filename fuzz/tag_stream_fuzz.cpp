// The input is a message, and a byte count to be written: the records found in it, and the tag
// element made of it, are those that the plain texts below give.
#include <algorithm>
#include <cstring>
#include <optional>
#include <string>

#include "check.h"
#include "protocol/tag_stream.h"

using namespace nrpc;

static bool IsNumber(const std::string &text) {
    return text.find_first_not_of("0123456789") == std::string::npos;
}

// Its value if it fits 31 bits; an empty text is 0.
static std::optional<int32_t> ValueOf(std::string text) {
    text.erase(0, text.find_first_not_of('0'));
    const long long value = text.size() > 10 ? INT64_MAX : std::atoll(text.c_str());
    return value > INT32_MAX ? std::nullopt : std::optional(static_cast<int32_t>(value));
}

// Takes the first record off `message`, as NextRecord does.
static RecordResult ModelRecord(std::string *message, std::string *id, std::string *payload) {
    if (message->size() < 20 || message->rfind("<Msg", 0) != 0) {
        return kRecordEnd;
    }
    const std::string count = message->substr(9, message->find('<', 9) - 9);
    const std::optional<int32_t> len = IsNumber(count) ? ValueOf(count) : std::nullopt;
    const size_t elementLen = count.size() + 19;
    if (!len || message->size() < elementLen ||
        message->size() - elementLen < static_cast<size_t>(*len)) {
        return kRecordEnd;
    }
    *id = message->substr(4, 4);
    *payload = message->substr(elementLen, static_cast<size_t>(*len));
    message->erase(0, elementLen + payload->size());
    return payload->empty() ? kRecordClose : kRecordTaken;
}

static void CheckRecords(const uint8_t *data, int32_t size) {
    std::string message(reinterpret_cast<const char *>(data), static_cast<size_t>(size));
    std::string id;
    std::string payload;
    RecordResult result = kRecordTaken;
    for (int32_t at = 0; result == kRecordTaken;) {
        Record record = {};
        result = NextRecord(data, size, &at, &record);
        CHECK(result == ModelRecord(&message, &id, &payload));
        if (result == kRecordTaken) {
            CHECK(std::string(record.MsgID, sizeof(record.MsgID)) == id + '\0');
            CHECK(std::string(reinterpret_cast<const char *>(record.Payload),
                              static_cast<size_t>(record.Len)) == payload);
            CHECK(static_cast<size_t>(size - at) == message.size());
        }
    }
}

static void CheckTagElement(const std::string &id, int32_t count) {
    char element[kMaxTagElementLen];
    const int32_t len = FormatTagElement(id.c_str(), count, element);
    CHECK(std::string(element, static_cast<size_t>(len)) ==
          "<Msg" + id + ">" + std::to_string(count) + "</Msg" + id + ">");
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    CheckRecords(data, static_cast<int32_t>(size));
    int32_t count = 0;
    std::memcpy(&count, data, std::min(size, sizeof(count)));
    CheckTagElement("0011", count & INT32_MAX);
    return 0;
}
