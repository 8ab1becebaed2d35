// nrpc-host demo-client: the client process of the demonstration.
#include <memory>

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
