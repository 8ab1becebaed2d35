// nrpc-host call: requests to a server, synchronous ones here.
#include <algorithm>
#include <charconv>
#include <fstream>
#include <iterator>
#include <memory>

#include "call.h"

namespace nrpc::tool {

using namespace hostkit;

namespace {

// Times of the exchanges that worked, in milliseconds.
struct Times {
    double Least = 0;
    double Sum = 0;
    double Greatest = 0;
};

} // namespace

Address ParseAddress(const std::string &text) {
    const size_t colon = text.rfind(':');
    int32_t port = 0;
    if (colon != std::string::npos && colon > 0) {
        const char *end = text.data() + text.size();
        const auto parsed = std::from_chars(text.data() + colon + 1, end, port);
        if (parsed.ec == std::errc() && parsed.ptr == end && port >= 1 && port <= 65535) {
            return {text.substr(0, colon), port};
        }
    }
    throw CLI::ValidationError(text, "not HOST:PORT with a port from 1 to 65535");
}

static Bytes ReadFile(const std::string &path) {
    std::ifstream file(path, std::ios::binary);
    Bytes content((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    if (!file || content.empty()) {
        throw CLI::ValidationError(path, "not readable or empty");
    }
    return content;
}

static void CheckResult(int32_t result, int32_t timeoutMs) {
    if (result == 0) {
        throw std::runtime_error(fmt::format("no reply within {} ms", timeoutMs));
    }
    if (result != 1) {
        throw std::runtime_error(fmt::format("the request failed (result {})", result));
    }
}

// One exchange; answers what to print of it.
static std::string ExchangeText(Client &client, const CallOptions &options) {
    const TextReply reply = client.SendSynRequestText(GbkFromUtf8(options.Text), options.TimeoutMs);
    CheckResult(reply.Result, options.TimeoutMs);
    return fmt::format("{}  {}", Counted(reply.Text.size(), "byte"), Utf8FromGbk(reply.Text));
}

static std::string ExchangeBytes(Client &client, const Bytes &request, const CallOptions &options) {
    const BinReply reply = client.SendSynRequestBin(request, options.TimeoutMs);
    CheckResult(reply.Result, options.TimeoutMs);
    const bool same = reply.Content == request;
    if (!same && options.ByteCount != 0) {
        const auto differs = std::mismatch(request.begin(), request.end(), reply.Content.begin(),
                                           reply.Content.end());
        throw std::runtime_error(
            fmt::format("the reply of {} bytes is no echo: it differs from byte {} on",
                        reply.Content.size(), differs.first - request.begin()));
    }
    return fmt::format("{}{}", Counted(reply.Content.size(), "byte"),
                       same ? ", equal to the request byte for byte" : "");
}

static void CallSynchronously(Client &client, const Bytes &request, const CallOptions &options) {
    const Address address = ParseAddress(options.Server);
    if (!client.ClientConnect(address.Port, address.Host)) {
        throw std::runtime_error(fmt::format("cannot connect to {}", options.Server));
    }
    Times times;
    for (int32_t i = 0; i < options.Repeat; ++i) {
        const auto start = std::chrono::steady_clock::now();
        const std::string outcome = request.empty() ? ExchangeText(client, options)
                                                    : ExchangeBytes(client, request, options);
        const double ms = MsSince(start);
        times.Least = i == 0 ? ms : std::min(times.Least, ms);
        times.Greatest = std::max(times.Greatest, ms);
        times.Sum += ms;
        PrintLine("reply in {:.1f} ms  {}", ms, outcome);
    }
    if (options.Repeat > 1) {
        PrintLine("{} replies in {:.1f} / {:.1f} / {:.1f} ms (least / mean / greatest)",
                  options.Repeat, times.Least, times.Sum / options.Repeat, times.Greatest);
    }
    client.ClientdisConnect();
}

static int Call(const Program &program, const CallOptions &options) {
    ParseAddress(options.Server);
    const Bytes request = options.File.empty()
                              ? CountedBytes(static_cast<size_t>(options.ByteCount))
                              : ReadFile(options.File);
    Heap heap;
    Library library(LibraryPath(program), heap);
    Client client(library);
    (options.Asynchronous ? CallAsynchronously : CallSynchronously)(client, request, options);
    return kDone;
}

void AddCall(CLI::App &app, Program &program) {
    auto options = std::make_shared<CallOptions>();
    CLI::App *call = app.add_subcommand("call", "Sends requests and shows the replies.");
    call->add_option("server", options->Server, "where the server listens")
        ->required()
        ->type_name("HOST:PORT");
    CLI::Option_group *payload = call->add_option_group("request", "exactly one of");
    payload->add_option("text", options->Text, "a text, sent as GBK")->type_name("TEXT");
    payload->add_option("--file", options->File, "the bytes of a file")->type_name("FILE");
    payload
        ->add_option("--bytes", options->ByteCount,
                     "this many counted bytes; the reply must be their echo")
        ->check(CLI::Range(1, INT32_MAX));
    payload->require_option(1);
    call->add_option("--timeout", options->TimeoutMs, "longest wait for a reply, in ms")
        ->capture_default_str()
        ->check(CLI::Range(0, INT32_MAX));
    call->add_option("--repeat", options->Repeat,
                     "how many requests: one after the other, or at once with --async")
        ->capture_default_str()
        ->check(CLI::Range(1, INT32_MAX));
    call->add_flag("--async", options->Asynchronous,
                   "send all at once and show each message that the handler gets");
    call->callback([&program, options] { program.Status = Call(program, *options); });
}

} // namespace nrpc::tool
