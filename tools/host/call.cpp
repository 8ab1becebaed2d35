// nrpc-host call: requests to a server, synchronous ones here.
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <fstream>
#include <iterator>
#include <memory>

#include "call.h"
#include "signals.h"

namespace nrpc::tool {

using namespace hostkit;

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

void CallFigures::SetConnected() {
    const std::lock_guard<std::mutex> guard(Lock);
    IsConnected = true;
}

void CallFigures::AddReply(double ms) {
    const std::lock_guard<std::mutex> guard(Lock);
    LeastMs = Replies == 0 ? ms : std::min(LeastMs, ms);
    GreatestMs = std::max(GreatestMs, ms);
    SumMs += ms;
    Replies += 1;
    Changed.notify_all();
}

void PrintReply(const CallOptions &options, const Bytes &request, ByteSpan content, double ms) {
    const bool isEqual = !request.empty() &&
                         std::equal(content.begin(), content.end(), request.begin(), request.end());
    const std::string text = request.empty()
                                 ? Utf8FromGbk(std::string(content.begin(), content.end()))
                                 : ExcerptOf(content).Text;
    Json event = {{"event", "reply"}, {"ms", ms}, {"bytes", content.size()}};
    if (!request.empty()) {
        event["equal"] = isEqual;
    }
    if (!isEqual) {
        event["text"] = text;
    }
    PrintEvent(options.Json, event, "{} {:.1f} ms  {}{}",
               options.Asynchronous ? "message after" : "reply in", ms,
               Counted(content.size(), "byte"),
               isEqual ? ", equal to the request byte for byte" : "  " + text);
}

static void PrintFigures(const CallOptions &options, const CallFigures &figures) {
    const int32_t replies = figures.Replies;
    const double meanMs = figures.SumMs / std::max(replies, 1);
    PrintEvent(options.Json,
               {{"event", "summary"},
                {"requests", options.Repeat},
                {"replies", replies},
                {"least_ms", figures.LeastMs},
                {"mean_ms", meanMs},
                {"greatest_ms", figures.GreatestMs},
                {"interrupted", figures.IsInterrupted.load()}},
               "{}{} replies in {:.1f} / {:.1f} / {:.1f} ms (least / mean / greatest)",
               replies < options.Repeat ? fmt::format("{} of ", replies) : "", options.Repeat,
               figures.LeastMs, meanMs, figures.GreatestMs);
}

static BinReply Exchange(Client &client, const Bytes &request, const CallOptions &options) {
    if (!request.empty()) {
        return client.SendSynRequestBin(request, options.TimeoutMs);
    }
    const TextReply reply = client.SendSynRequestText(GbkFromUtf8(options.Text), options.TimeoutMs);
    return {reply.Result, Bytes(reply.Text.begin(), reply.Text.end())};
}

static void CheckReply(const BinReply &reply, const Bytes &request, const CallOptions &options) {
    if (reply.Result == 0) {
        throw std::runtime_error(fmt::format("no reply within {} ms", options.TimeoutMs));
    }
    if (reply.Result != 1) {
        throw std::runtime_error(fmt::format("the request failed (result {})", reply.Result));
    }
    if (options.ByteCount != 0 && reply.Content != request) {
        const auto differs = std::mismatch(request.begin(), request.end(), reply.Content.begin(),
                                           reply.Content.end());
        throw std::runtime_error(
            fmt::format("the reply of {} bytes is no echo: it differs from byte {} on",
                        reply.Content.size(), differs.first - request.begin()));
    }
}

static void CallSynchronously(Client &client, const Bytes &request, const CallOptions &options,
                              CallFigures &figures) {
    const Address address = ParseAddress(options.Server);
    if (!client.ClientConnect(address.Port, address.Host)) {
        throw std::runtime_error(fmt::format("cannot connect to {}", options.Server));
    }
    figures.SetConnected();
    for (int32_t i = 0; i < options.Repeat; ++i) {
        const auto start = std::chrono::steady_clock::now();
        const BinReply reply = Exchange(client, request, options);
        const double ms = MsSince(start);
        CheckReply(reply, request, options);
        figures.AddReply(ms);
        PrintReply(options, request, reply.Content, ms);
    }
    client.ClientdisConnect();
}

// On the thread of the watch.
static void Interrupt(Client &client, const CallOptions &options, CallFigures &figures) {
    const std::lock_guard<std::mutex> guard(figures.Lock);
    if (!figures.IsConnected) {
        _exit(Complain("interrupted", kInterrupted)); // a connect may take minutes
    }
    figures.IsInterrupted = true;
    figures.Changed.notify_all();
    if (!options.Asynchronous) {
        client.ClientdisConnect(); // ends the wait for a reply
    }
}

static int Call(const Program &program, const CallOptions &options) {
    ParseAddress(options.Server);
    const Bytes request = options.File.empty()
                              ? CountedBytes(static_cast<size_t>(options.ByteCount))
                              : ReadFile(options.File);
    const EndSignals signals;
    Heap heap;
    Library library(LibraryPath(program), heap);
    Client client(library);
    CallFigures figures;
    std::string fault;
    {
        const EndWatch watch(signals, [&] { Interrupt(client, options, figures); });
        try {
            (options.Asynchronous ? CallAsynchronously : CallSynchronously)(client, request,
                                                                            options, figures);
        } catch (const std::runtime_error &error) {
            fault = error.what();
        }
    }
    const bool isCutShort = figures.IsInterrupted && figures.Replies < options.Repeat;
    if (options.Repeat > 1 || (options.Asynchronous && options.Json)) {
        PrintFigures(options, figures);
    }
    if (isCutShort) {
        return Complain("interrupted", kInterrupted);
    }
    return fault.empty() ? kDone : Complain(fault, kFailed);
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
    call->add_flag("--json", options->Json, "a JSON object for each reply, and for the figures");
    EndHelp(*call, {"call 127.0.0.1:7000 hello", "call 127.0.0.1:7000 --file photo.jpg",
                    "call 127.0.0.1:7000 --bytes 1000 --repeat 50 --async"});
    call->callback([&program, options] { program.Status = Call(program, *options); });
}

} // namespace nrpc::tool
