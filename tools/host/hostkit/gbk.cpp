#include "hostkit/gbk.h"

#include <iconv.h>

#include <cerrno>

#include <fmt/format.h>

namespace nrpc::hostkit {

static const iconv_t kNoConverter = reinterpret_cast<iconv_t>(-1);

// Without a converter (a machine may lack the table of the GBK characters) ASCII goes through.
static std::string Convert(const char *to, const char *from, std::string_view text) {
    std::string out;
    const iconv_t converter = iconv_open(to, from);
    std::string in(text);
    char *at = in.data();
    size_t left = in.size();
    while (left > 0) {
        char buffer[256];
        char *end = buffer;
        size_t room = sizeof(buffer);
        errno = EILSEQ;
        const bool converted =
            converter != kNoConverter && iconv(converter, &at, &left, &end, &room) != size_t(-1);
        const int error = errno;
        out.append(buffer, end);
        if (!converted && error != E2BIG) {
            const auto byte = static_cast<unsigned char>(*at);
            out += byte < 0x80 ? std::string(1, *at) : fmt::format("\\x{:02X}", byte);
            ++at;
            --left;
        }
    }
    if (converter != kNoConverter) {
        iconv_close(converter);
    }
    return out;
}

std::string Utf8FromGbk(std::string_view gbk) {
    return Convert("UTF-8", "GBK", gbk);
}
std::string GbkFromUtf8(std::string_view utf8) {
    return Convert("GBK", "UTF-8", utf8);
}

} // namespace nrpc::hostkit
