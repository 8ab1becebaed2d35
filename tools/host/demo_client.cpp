// nrpc-host demo-client: the client process of the demonstration.
#include <memory>
#include <mutex>
#include <set>

#include "demo.h"

namespace nrpc::tool {

using namespace hostkit;

static void CheckText(Findings &findings, Client &client) {
    const auto start = std::chrono::steady_clock::now();
    const TextReply reply = client.SendSynRequestText(GbkFromUtf8(kGreeting), kPatientMs);
    const std::string text = Utf8FromGbk(reply.Text);
    findings.Check(reply.Result == 1 && text == kGreetingReply,
                   "SendSynRequestText: result {}, reply \"{}\" after {:.0f} ms", reply.Result,
                   text, MsSince(start));
}

static void CheckBytes(Findings &findings, Client &client, size_t count) {
    const auto start = std::chrono::steady_clock::now();
    const Bytes request = CountedBytes(count);
    const BinReply reply = client.SendSynRequestBin(request, kPatientMs);
    findings.Check(reply.Result == 1 && reply.Content == Inverted(request),
                   "SendSynRequestBin: result {}, {} bytes back after {:.0f} ms, each one checked",
                   reply.Result, reply.Content.size(), MsSince(start));
}

// The server sends the late reply after it has seen the next request and before it answers that.
static void CheckTimeout(Findings &findings, Client &client) {
    const auto start = std::chrono::steady_clock::now();
    const TextReply slow = client.SendSynRequestText(kSlowRequest, kImpatientMs);
    const double ms = MsSince(start);
    findings.Check(slow.Result == 0 && slow.Text.empty() && ms >= kImpatientMs,
                   "time-out of {} ms: result {} after {:.0f} ms, the request is cancelled",
                   kImpatientMs, slow.Result, ms);
    const TextReply next = client.SendSynRequestText(kNextRequest, kPatientMs);
    findings.Check(next.Result == 1 && next.Text == kNextReply,
                   "next request: result {}, its own reply \"{}\"; the late one is discarded",
                   next.Result, next.Text);
}

namespace {

// What reached the handler of an asynchronous client.
struct Inbox {
    void Take(Client &client, HostWord message) {
        const int32_t kind = client.ClientGetMsgKind(message);
        const std::string text = client.GetResultText(message).value_or("");
        const std::lock_guard<std::mutex> guard(Lock);
        if (kind == kConnectionClosed) {
            ++CloseCount;
        } else {
            ++MessageCount;
            Texts.insert(text);
        }
    }
    bool Holds(size_t texts, size_t closes) {
        const std::lock_guard<std::mutex> guard(Lock);
        return Texts.size() == texts && MessageCount == texts && CloseCount == closes;
    }

    std::mutex Lock;
    std::set<std::string> Texts;
    size_t MessageCount = 0;
    size_t CloseCount = 0;
};

} // namespace

static void CheckAsynchronous(Findings &findings, Library &library, int32_t port) {
    Inbox inbox;
    Client client(library);
    const auto handler = [&](HostWord message) { inbox.Take(client, message); };
    findings.Check(client.ClientConnect(port, "127.0.0.1", handler),
                   "ClientConnect: asynchronous mode, with a handler");
    const auto start = std::chrono::steady_clock::now();
    std::set<std::string> expected;
    bool sent = true;
    for (size_t i = 1; i <= kBurstCount; ++i) {
        sent = client.SendAsynRequestText(kBurstRequest + std::to_string(i)) && sent;
        expected.insert(kBurstReply + std::to_string(i));
    }
    const bool arrived = WaitUntil([&] { return inbox.Holds(kBurstCount, 0); });
    findings.Check(sent && arrived && inbox.Texts == expected,
                   "SendAsynRequestText: {} requests at once, each reply once, all after {:.0f} ms",
                   kBurstCount, MsSince(start));
    client.SendAsynRequestText(kPushRequest);
    const bool pushed = WaitUntil([&] { return inbox.Holds(kBurstCount + 1, 0); });
    findings.Check(pushed && inbox.Texts.contains(kPush), "handler: the server's push has come");
    client.SendAsynRequestText(kKickRequest);
    const bool closed = WaitUntil([&] { return inbox.Holds(kBurstCount + 1, 1); });
    const bool refused = WaitUntil([&] { return !client.SendAsynRequestText(kGreeting); });
    client.ClientdisConnect();
    findings.Check(closed && refused && inbox.Holds(kBurstCount + 1, 1),
                   "handler: one close message, and requests are refused");
}

static int RunClient(const Program &program, int32_t port) {
    Findings findings;
    Heap heap;
    heap.SetPoison(true);
    Library library(LibraryPath(program), heap);
    {
        Client client(library);
        findings.Check(client.ClientConnect(port, "127.0.0.1"),
                       "ClientConnect: to 127.0.0.1, port {}, synchronous mode", port);
        CheckText(findings, client);
        for (const size_t count : kByteCounts) {
            CheckBytes(findings, client, count);
        }
        CheckTimeout(findings, client);
        client.ClientdisConnect();
        findings.Check(client.SendSynRequestText(kGreeting, kPatientMs).Result == -1,
                       "ClientdisConnect: a further request is refused with -1");
    }
    CheckAsynchronous(findings, library, port);
    findings.CheckHeap(heap);
    return findings.Status();
}

void AddDemoClient(CLI::App &app, Program &program) {
    auto port = std::make_shared<int32_t>(0);
    CLI::App *demo = app.add_subcommand("demo-client", "the client process of the demonstration");
    demo->group(""); // not listed
    demo->add_option("--port", *port)->required();
    demo->callback([&program, port] { program.Status = RunClient(program, *port); });
}

} // namespace nrpc::tool
