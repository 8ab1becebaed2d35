// nrpc-host serve: answers every request with its own content and prints each event.
#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <ctime>
#include <memory>
#include <system_error>

#include "console.h"
#include "program.h"

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
};

// What ends or interrupts the wait for the service's end: signals, typed lines, the time.
class Watch {
  public:
    Watch(Server &server, const Options &options);
    ~Watch() { close(m_Signals); }
    Watch(const Watch &) = delete;
    Watch &operator=(const Watch &) = delete;
    void UntilEnd();

  private:
    using Clock = std::chrono::steady_clock;
    int WaitMs() const; // until the next thing is due
    void PushToAll();
    bool ReadLines(); // false: the service is to stop

    Server &m_Server;
    const std::chrono::seconds m_PushPause;
    Clock::time_point m_End = Clock::time_point::max();
    Clock::time_point m_NextPush = Clock::time_point::max();
    int32_t m_PushCount = 0;
    int m_Signals;
    int m_Input = STDIN_FILENO; // -1 after its end
    std::string m_Unread;
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

// Two handlers, of which one is used. They may run several times at once.
static void Answer(Server &server, HostWord message) {
    const std::optional<RequestBin> request = server.GetRequestBin(message);
    if (request.has_value()) {
        server.SendBinary(request->Code, request->Content);
    }
}

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

Watch::Watch(Server &server, const Options &options)
    : m_Server(server), m_PushPause(options.PushSeconds) {
    if (options.Seconds > 0) {
        m_End = Clock::now() + std::chrono::seconds(options.Seconds);
    }
    if (options.PushSeconds > 0) {
        m_NextPush = Clock::now() + m_PushPause;
    }
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    m_Signals = signalfd(-1, &signals, SFD_CLOEXEC);
    if (m_Signals < 0) {
        throw std::system_error(errno, std::generic_category(), "signalfd");
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
    PrintLine("{}  push        \"{}\" to {}", TimeOfDay(), text, Counted(queued, "client"));
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
        if (!RunConsoleLine(m_Server, line)) {
            return false;
        }
    }
    return true;
}

void Watch::UntilEnd() {
    for (;;) {
        pollfd waits[] = {{m_Signals, POLLIN, 0}, {m_Input, POLLIN, 0}};
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
    const auto handler = [&server, &options](HostWord message) {
        options.Quiet ? Answer(server, message) : PrintAndAnswer(server, message);
    };
    if (!server.StartServer(options.Port, handler, options.Serial)) {
        throw std::runtime_error(fmt::format("cannot start the service on port {}", options.Port));
    }
    PrintLine("listening on port {}", options.Port);
    Watch(server, options).UntilEnd();
    PrintLine("stopping");
    server.StopServer();
    PrintLine("stopped");
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
    serve->callback([&program, options] {
        if (!options->Threads.empty() && options->Threads[0] > options->Threads[1]) {
            throw CLI::ValidationError("--threads", "MIN is greater than MAX");
        }
        program.Status = Serve(program, *options);
    });
}

} // namespace nrpc::tool
