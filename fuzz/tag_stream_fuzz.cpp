// The input is read as a message, as a request code and as a number; what the library makes of it
// must be what the plain texts below make of it.
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

static void CheckRequestCode(const std::string &text) {
    const size_t separator = text.find('#');
    std::optional<int32_t> expected;
    if (separator <= 10 && text.size() - separator > 4 && IsNumber(text.substr(0, separator))) {
        expected = ValueOf(text.substr(0, separator));
    }
    int32_t handle = -1;
    MsgIDText msgID = "none";
    CHECK(ParseRequestCode(text.c_str(), &handle, msgID) == expected.has_value());
    CHECK(handle == expected.value_or(-1));
    CHECK(std::string(msgID) == (expected ? text.substr(separator + 1, 4) : "none"));
    if (expected) {
        char again[kRequestCodeSize];
        FormatRequestCode(handle, msgID, again);
        CHECK(std::string(again) == std::to_string(handle) + '#' + msgID);
    }
}

static void CheckNumber(int32_t number) {
    const std::string padded = "0000" + std::to_string(number);
    MsgIDText id;
    FormatMsgID(number, id);
    CHECK(std::string(id) == padded.substr(padded.size() - 4));
    CHECK(MsgNumberOf(id) == std::strtol(id, nullptr, 10));

    char element[kMaxTagElementLen];
    const int32_t count = number & INT32_MAX;
    const int32_t len = FormatTagElement(id, count, element);
    const std::string tag = id;
    CHECK(std::string(element, static_cast<size_t>(len)) ==
          "<Msg" + tag + ">" + std::to_string(count) + "</Msg" + tag + ">");
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    int32_t number = 0;
    std::memcpy(&number, data, size < sizeof(number) ? size : sizeof(number));
    CheckRecords(data, static_cast<int32_t>(size));
    CheckRequestCode(std::string(reinterpret_cast<const char *>(data), size).c_str());
    CheckNumber(number);
    return 0;
}
