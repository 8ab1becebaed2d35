// nrpc-host serve: answers every request with its own content and prints each event.
#include <poll.h>
#include <unistd.h>

#include <ctime>
#include <memory>

#include "console.h"
#include "program.h"
#include "signals.h"

namespace nrpc::tool {

using namespace hostkit;

namespace {

struct Options {
    int32_t Port = 0;
    bool Serial = false;
    std::vector<int32_t> Threads; // none, or the least and the greatest count
    int32_t Seconds = 0;          // 0: until a signal
    int32_t PushSeconds = 0;      // 0: no pushes
    bool Quiet = false;
    bool Json = false;
};

// What ends or interrupts the wait for the service's end: signals, typed lines, the time.
class Watch {
  public:
    Watch(Server &server, const EndSignals &signals, const Options &options);
    void UntilEnd();

  private:
    using Clock = std::chrono::steady_clock;
    int WaitMs() const; // until the next thing is due
    void PushToAll();
    bool ReadLines(); // false: the service is to stop

    Server &m_Server;
    const EndSignals &m_Signals;
    const bool m_AsJson;
    const std::chrono::seconds m_PushPause;
    Clock::time_point m_End = Clock::time_point::max();
    Clock::time_point m_NextPush = Clock::time_point::max();
    int32_t m_PushCount = 0;
    int m_Input = STDIN_FILENO; // -1 after its end
    std::string m_Unread;
};

} // namespace

// Local for people, "09:15:00.123", and of the world for programs, "2026-01-31T08:15:00.123Z".
static std::string TimeNow(bool forPrograms) {
    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    tm parts = {};
    forPrograms ? gmtime_r(&now.tv_sec, &parts) : localtime_r(&now.tv_sec, &parts);
    char text[32] = "";
    strftime(text, sizeof(text), forPrograms ? "%FT%T" : "%T", &parts);
    return fmt::format("{}.{:03}{}", text, now.tv_nsec / 1000000, forPrograms ? "Z" : "");
}

// An event and its time.
template <typename... Args>
static void Report(bool asJson, Json event, fmt::format_string<Args...> format, Args &&...args) {
    const std::string time = TimeNow(asJson);
    event["time"] = time;
    PrintEvent(asJson, event, "{}  {}", time, fmt::format(format, std::forward<Args>(args)...));
}

// Two handlers, of which one is used. They may run several times at once.
static void Answer(Server &server, HostWord message) {
    const std::optional<RequestBin> request = server.GetRequestBin(message);
    if (request.has_value()) {
        server.SendBinary(request->Code, request->Content);
    }
}

static void PrintAndAnswer(Server &server, HostWord message, bool asJson) {
    const int32_t kind = server.GetMsgKind(message);
    const int32_t handle = server.GetClientHandle(message).value_or(-1);
    if (kind == kClientConnected) {
        const std::string address = server.GetClientIPAddr(handle).value_or("address unknown");
        Report(asJson, {{"event", "connect"}, {"handle", handle}, {"address", address}},
               "connect     handle {}  {}", handle, address);
        return;
    }
    if (kind == kClientDisconnected) {
        Report(asJson, {{"event", "disconnect"}, {"handle", handle}}, "disconnect  handle {}",
               handle);
        return;
    }
    const std::optional<RequestBin> request = server.GetRequestBin(message);
    if (kind != kRequest || !request.has_value()) {
        Report(asJson, {{"event", "unreadable"}, {"kind", kind}, {"handle", handle}},
               "kind {}  handle {}  not readable", kind, handle);
        return;
    }
    const auto &[code, content] = *request;
    const bool answered = server.SendBinary(code, content);
    const Excerpt excerpt = ExcerptOf(content);
    Report(asJson,
           {{"event", "request"},
            {"handle", handle},
            {"code", code},
            {"bytes", content.size()},
            {"text", excerpt.Text},
            {"whole", excerpt.IsWhole},
            {"answered", answered}},
           "request     handle {}  {}  {}  {}{}", handle, code, Counted(content.size(), "byte"),
           excerpt.Quoted(), answered ? "" : "  (reply refused)");
}

Watch::Watch(Server &server, const EndSignals &signals, const Options &options)
    : m_Server(server), m_Signals(signals), m_AsJson(options.Json),
      m_PushPause(options.PushSeconds) {
    if (options.Seconds > 0) {
        m_End = Clock::now() + std::chrono::seconds(options.Seconds);
    }
    if (options.PushSeconds > 0) {
        m_NextPush = Clock::now() + m_PushPause;
    }
}

int Watch::WaitMs() const {
    constexpr int64_t kLongestMs = 1000000;
    const auto next = std::min(m_End, m_NextPush);
    if (next == Clock::time_point::max()) {
        return -1;
    }
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(next - Clock::now()).count();
    return static_cast<int>(std::clamp<int64_t>(left, 0, kLongestMs));
}

void Watch::PushToAll() {
    m_NextPush += m_PushPause;
    const std::string text = fmt::format("push {}", ++m_PushCount);
    size_t queued = 0;
    for (const int32_t handle : m_Server.GetAllClient().value_or(std::vector<int32_t>())) {
        queued += m_Server.SendText(handle, text) ? 1U : 0U;
    }
    Report(m_AsJson, {{"event", "push"}, {"text", text}, {"clients", queued}},
           "push        \"{}\" to {}", text, Counted(queued, "client"));
}

bool Watch::ReadLines() {
    char buffer[4096];
    const ssize_t count = read(m_Input, buffer, sizeof(buffer));
    if (count <= 0) {
        m_Input = -1; // the end of the typing is not the end of the service
        return true;
    }
    m_Unread.append(buffer, static_cast<size_t>(count));
    for (size_t end = m_Unread.find('\n'); end != std::string::npos; end = m_Unread.find('\n')) {
        const std::string line = m_Unread.substr(0, end);
        m_Unread.erase(0, end + 1);
        if (!RunConsoleLine(m_Server, line, m_AsJson)) {
            return false;
        }
    }
    return true;
}

void Watch::UntilEnd() {
    for (;;) {
        pollfd waits[] = {{m_Signals.Descriptor(), POLLIN, 0}, {m_Input, POLLIN, 0}};
        poll(waits, std::size(waits), WaitMs());
        if (waits[0].revents != 0 || Clock::now() >= m_End ||
            (waits[1].revents != 0 && !ReadLines())) {
            return;
        }
        if (Clock::now() >= m_NextPush) {
            PushToAll();
        }
    }
}

static int Serve(const Program &program, const Options &options) {
    const EndSignals signals;
    Heap heap;
    Library library(LibraryPath(program), heap);
    Server server(library);
    if (!options.Threads.empty() &&
        !server.SetPoolThreadNum(options.Threads[0], options.Threads[1])) {
        throw std::runtime_error("the library refused the thread counts");
    }
    const auto handler = [&server, &options](HostWord message) {
        options.Quiet ? Answer(server, message) : PrintAndAnswer(server, message, options.Json);
    };
    if (!server.StartServer(options.Port, handler, options.Serial)) {
        throw std::runtime_error(fmt::format("cannot start the service on port {}", options.Port));
    }
    PrintEvent(options.Json, {{"event", "started"}, {"port", options.Port}}, "listening on port {}",
               options.Port);
    Watch(server, signals, options).UntilEnd();
    PrintEvent(options.Json, {{"event", "stopping"}}, "stopping");
    server.StopServer();
    PrintEvent(options.Json, {{"event", "stopped"}}, "stopped");
    return kDone;
}

void AddServe(CLI::App &app, Program &program) {
    auto options = std::make_shared<Options>();
    CLI::App *serve = app.add_subcommand(
        "serve", "An echo service that prints every event, until Ctrl-C, SIGTERM, --seconds or the "
                 "typed line \"stop\"; \"help\" lists what else may be typed.");
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
    serve
        ->add_option("--push", options->PushSeconds, "push a text to every client at this interval")
        ->type_name("SECONDS")
        ->check(CLI::Range(1, INT32_MAX));
    serve->add_flag("--quiet", options->Quiet, "no line for each event");
    serve->add_flag("--json", options->Json, "a JSON object for each event, on one line");
    EndHelp(*serve, {"serve --port 7000", "serve --port 7000 --threads 2 8 --push 5",
                     "serve --port 7000 --seconds 60 --json"});
    serve->callback([&program, options] {
        if (!options->Threads.empty() && options->Threads[0] > options->Threads[1]) {
            throw CLI::ValidationError("--threads", "MIN is greater than MAX");
        }
        program.Status = Serve(program, *options);
    });
}

} // namespace nrpc::tool
