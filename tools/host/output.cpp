#include "output.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <mutex>

#include "program.h"

namespace nrpc::tool {

void Print(std::string_view text) {
    static std::once_flag s_Complaint;
    if (std::fwrite(text.data(), 1, text.size(), stdout) == text.size() &&
        std::fflush(stdout) == 0) {
        return;
    }
    // The caller may be a handler deep inside the library, where nothing may be thrown.
    std::call_once(s_Complaint, [error = errno] {
        _exit(Complain(fmt::format("cannot write the output: {}", std::strerror(error)), kFailed));
    });
}

void PrintJson(const Json &object) {
    PrintLine("{}", object.dump(-1, ' ', false, Json::error_handler_t::replace));
}

int Complain(std::string_view what, int status) {
    const std::string line = fmt::format("nrpc-host: {}\n", what.substr(0, what.find('\n')));
    static_cast<void>(std::fputs(line.c_str(), stderr)); // nobody is left to tell
    return status;
}

std::string Counted(uint64_t count, std::string_view noun, std::string_view plural) {
    if (count == 1 || plural.empty()) {
        return fmt::format("{} {}{}", count, noun, count == 1 ? "" : "s");
    }
    return fmt::format("{} {}", count, plural);
}

Excerpt ExcerptOf(hostkit::ByteSpan payload) {
    constexpr size_t kShownChars = 40;
    constexpr size_t kGreatestCharLen = 2; // in GBK
    const size_t headLen = std::min(payload.size(), kShownChars * kGreatestCharLen);
    const auto head = payload.first(headLen);
    std::string text = hostkit::Utf8FromGbk(std::string(head.begin(), head.end()));
    size_t chars = 0;
    size_t at = 0;
    for (; at < text.size(); ++at) {
        chars += (static_cast<unsigned char>(text[at]) & 0xC0) == 0x80 ? 0U : 1U; // its first byte
        if (chars > kShownChars) {
            break;
        }
    }
    const bool isWhole = at == text.size() && headLen == payload.size();
    text.resize(at);
    return {std::move(text), isWhole};
}

std::string Excerpt::Quoted() const {
    std::string shown;
    for (const char character : Text) {
        const auto byte = static_cast<unsigned char>(character);
        shown += byte < 0x20 || byte == 0x7F ? fmt::format("\\x{:02X}", byte)
                                             : std::string(1, character);
    }
    return fmt::format("\"{}\"{}", shown, IsWhole ? "" : "...");
}

} // namespace nrpc::tool
