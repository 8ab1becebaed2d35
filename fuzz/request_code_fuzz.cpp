// The input is a request code, a message id and a number; what the library reads and writes must be
// what the plain texts below give.
#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "check.h"
#include "protocol/tag_stream.h"

using namespace nrpc;

// The text in a block of just its length: reading beyond its end shows.
static std::vector<char> Exact(const std::string &text) {
    return std::vector<char>(text.c_str(), text.c_str() + text.size() + 1);
}

static void CheckRequestCode(const std::string &code) {
    const size_t separator = std::min(code.find('#'), code.size());
    const std::string digits = code.substr(0, separator);
    const long long value = std::atoll(digits.c_str());
    const bool expected = code.size() - separator > kMsgIDLen && digits.size() <= 10 &&
                          digits.find_first_not_of("0123456789") == std::string::npos &&
                          value <= INT32_MAX;
    int32_t handle = -1;
    MsgIDText msgID = "none";
    CHECK(ParseRequestCode(Exact(code).data(), &handle, msgID) == expected);
    CHECK(handle == (expected ? value : -1));
    CHECK(msgID == (expected ? code.substr(separator + 1, kMsgIDLen) : "none"));
}

// Any handle and id make a code, which is read back.
static void CheckRoundTrip(int32_t handle, const std::string &id) {
    char code[kRequestCodeSize];
    FormatRequestCode(handle, Exact(id).data(), code);
    CHECK(std::string(code) == std::to_string(handle) + '#' + id.substr(0, kMsgIDLen));
    CheckRequestCode(code);
}

static void CheckIDs(int32_t number, const std::string &text) {
    const std::string padded = "0000" + std::to_string(number);
    MsgIDText id;
    FormatMsgID(number, id);
    CHECK(std::string(id) == padded.substr(padded.size() - kMsgIDLen));
    const std::string four = (text + "    ").substr(0, kMsgIDLen);
    CHECK(MsgNumberOf(std::vector<char>(four.begin(), four.end()).data()) ==
          std::strtol(four.c_str(), nullptr, 10));
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const std::string text = std::string(reinterpret_cast<const char *>(data), size).c_str();
    int32_t number = 0;
    std::memcpy(&number, data, std::min(size, sizeof(number)));
    CheckRequestCode(text);
    CheckRoundTrip(number & INT32_MAX, text);
    CheckIDs(number, text);
    return 0;
}
