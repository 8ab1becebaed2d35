// nrpc-host serve: answers every request with its own content and prints each event.
#include <csignal>
#include <ctime>
#include <memory>

#include "program.h"

namespace nrpc::tool {

using namespace hostkit;

namespace {

struct Options {
    int32_t Port = 0;
    bool Serial = false;
    std::vector<int32_t> Threads; // none, or the least and the greatest count
    int32_t Seconds = 0;          // 0: until a signal
};

} // namespace

static std::string TimeOfDay() {
    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    tm local = {};
    localtime_r(&now.tv_sec, &local);
    return fmt::format("{:02}:{:02}:{:02}.{:03}", local.tm_hour, local.tm_min, local.tm_sec,
                       now.tv_nsec / 1000000);
}

// The handler. It may run several times at once.
static void PrintAndAnswer(Server &server, HostWord message) {
    const int32_t kind = server.GetMsgKind(message);
    const int32_t handle = server.GetClientHandle(message).value_or(-1);
    if (kind == kClientConnected) {
        PrintLine("{}  connect     handle {}  {}", TimeOfDay(), handle,
                  server.GetClientIPAddr(handle).value_or("address unknown"));
        return;
    }
    if (kind == kClientDisconnected) {
        PrintLine("{}  disconnect  handle {}", TimeOfDay(), handle);
        return;
    }
    const std::optional<RequestBin> request = server.GetRequestBin(message);
    if (kind != kRequest || !request.has_value()) {
        PrintLine("{}  kind {}  handle {}  not readable", TimeOfDay(), kind, handle);
        return;
    }
    const bool answered = server.SendBinary(request->Code, request->Content);
    PrintLine("{}  request     handle {}  {}  {}  {}{}", TimeOfDay(), handle, request->Code,
              Counted(request->Content.size(), "byte"), Excerpt(request->Content),
              answered ? "" : "  (reply refused)");
}

static void WaitForEnd(const sigset_t &signals, int32_t seconds) {
    const timespec limit = {seconds, 0};
    if (seconds > 0) {
        sigtimedwait(&signals, nullptr, &limit);
    } else {
        sigwaitinfo(&signals, nullptr);
    }
}

static int Serve(const Program &program, const Options &options) {
    // Blocked before the first thread starts, so that only this thread takes them.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);

    Heap heap;
    Library library(LibraryPath(program), heap);
    Server server(library);
    if (!options.Threads.empty() &&
        !server.SetPoolThreadNum(options.Threads[0], options.Threads[1])) {
        throw std::runtime_error("the library refused the thread counts");
    }
    const auto handler = [&server](HostWord message) { PrintAndAnswer(server, message); };
    if (!server.StartServer(options.Port, handler, options.Serial)) {
        throw std::runtime_error(fmt::format("cannot start the service on port {}", options.Port));
    }
    PrintLine("listening on port {}", options.Port);
    WaitForEnd(signals, options.Seconds);
    PrintLine("stopping");
    server.StopServer();
    PrintLine("stopped");
    return kDone;
}

void AddServe(CLI::App &app, Program &program) {
    auto options = std::make_shared<Options>();
    CLI::App *serve = app.add_subcommand(
        "serve", "An echo service that prints every event, until Ctrl-C, SIGTERM or --seconds.");
    serve->add_option("--port", options->Port, "the port to listen on")
        ->required()
        ->check(CLI::Range(1, 65535));
    serve->add_flag("--serial", options->Serial, "one handler call at a time");
    serve->add_option("--threads", options->Threads, "least and greatest thread count of each pool")
        ->expected(2)
        ->check(CLI::Range(1, INT32_MAX))
        ->type_name("MIN MAX");
    serve->add_option("--seconds", options->Seconds, "stop after this time")
        ->check(CLI::Range(1, INT32_MAX));
    serve->callback([&program, options] {
        if (!options->Threads.empty() && options->Threads[0] > options->Threads[1]) {
            throw CLI::ValidationError("--threads", "MIN is greater than MAX");
        }
        program.Status = Serve(program, *options);
    });
}

} // namespace nrpc::tool
