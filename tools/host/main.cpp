// nrpc-host: describes the library, serves with it, calls with it, and demonstrates it.
#include <algorithm>

#include "program.h"

namespace nrpc::tool {

std::string LibraryPath(const Program &program) {
    return program.LibraryPath.empty() ? hostkit::FindLibrary() : program.LibraryPath;
}

std::string Counted(uint64_t count, std::string_view noun, std::string_view plural) {
    if (count == 1 || plural.empty()) {
        return fmt::format("{} {}{}", count, noun, count == 1 ? "" : "s");
    }
    return fmt::format("{} {}", count, plural);
}

std::string Excerpt(hostkit::ByteSpan payload) {
    constexpr size_t kShownChars = 40;
    constexpr size_t kGreatestCharLen = 2; // in GBK
    const size_t headLen = std::min(payload.size(), kShownChars * kGreatestCharLen);
    const auto head = payload.first(headLen);
    const std::string readable = hostkit::Utf8FromGbk(std::string(head.begin(), head.end()));
    std::string shown;
    size_t chars = 0;
    size_t at = 0;
    for (; at < readable.size(); ++at) {
        const auto byte = static_cast<unsigned char>(readable[at]);
        chars += (byte & 0xC0) == 0x80 ? 0 : 1; // the first byte of a character
        if (chars > kShownChars) {
            break;
        }
        shown += byte < 0x20 || byte == 0x7F ? fmt::format("\\x{:02X}", byte)
                                             : std::string(1, readable[at]);
    }
    const bool isWhole = at == readable.size() && headLen == payload.size();
    return fmt::format("\"{}\"{}", shown, isWhole ? "" : "...");
}

hostkit::Bytes CountedBytes(size_t count) {
    hostkit::Bytes bytes(count);
    for (size_t i = 0; i < count; ++i) {
        bytes[i] = static_cast<uint8_t>(i * 31 + i / 251);
    }
    return bytes;
}

static int Complain(std::string_view what, int status) {
    fmt::print(stderr, "nrpc-host: {}\n", what.substr(0, what.find('\n')));
    return status;
}

static int Main(int argc, char **argv) {
    Program program;
    CLI::App app("A stand-in for the host of the remote-service library.", "nrpc-host");
    app.add_option("--library", program.LibraryPath, "the library to load")->type_name("PATH");
    AddDescribe(app, program);
    AddServe(app, program);
    AddCall(app, program);
    AddLoad(app, program);
    AddDemo(app, program);
    AddDemoServer(app, program);
    AddDemoClient(app, program);
    try {
        app.parse(argc, argv);
        if (app.get_subcommands().empty()) {
            throw CLI::RequiredError("a subcommand (see --help)");
        }
    } catch (const CLI::ParseError &error) {
        return error.get_exit_code() == 0 ? app.exit(error) : Complain(error.what(), kBadArguments);
    } catch (const std::exception &error) {
        return Complain(error.what(), kFailed);
    }
    return program.Status;
}

} // namespace nrpc::tool

int main(int argc, char **argv) {
    return nrpc::tool::Main(argc, argv);
}
