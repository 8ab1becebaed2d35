// nrpc-host demo: a server process and a client process exchange what the library is for, and both
// report what they found.
#include "demo.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <memory>
#include <system_error>
#include <thread>

namespace nrpc::tool {

static constexpr double kLimitMs = 60000; // for everything together

namespace {

// A process of this program: its input and its output are pipes.
class Child {
  public:
    Child(std::string name, std::vector<std::string> arguments);
    ~Child(); // ends the process if it still runs
    Child(const Child &) = delete;
    Child &operator=(const Child &) = delete;

    const std::string &Name() const { return m_Name; }
    int Output() const { return m_Output; }
    // The next piece of output; false at its end.
    bool Read(std::string *unread);
    void EndInput();
    // The exit status, or -1 when it ended otherwise or not within the limit.
    int Wait(std::chrono::steady_clock::time_point start);

  private:
    std::string m_Name;
    pid_t m_Process = -1;
    int m_Input = -1;
    int m_Output = -1;
};

} // namespace

static void MakePipe(int ends[2]) {
    if (pipe2(ends, O_CLOEXEC) != 0) {
        throw std::system_error(errno, std::generic_category(), "pipe");
    }
}

Child::Child(std::string name, std::vector<std::string> arguments) : m_Name(std::move(name)) {
    std::vector<char *> argv;
    for (std::string &argument : arguments) {
        argv.push_back(argument.data());
    }
    argv.push_back(nullptr);
    int input[2] = {-1, -1};
    int output[2] = {-1, -1};
    MakePipe(input);
    MakePipe(output);
    const pid_t parent = getpid();
    m_Process = fork();
    if (m_Process == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() == parent && dup2(input[0], STDIN_FILENO) >= 0 &&
            dup2(output[1], STDOUT_FILENO) >= 0) {
            execv("/proc/self/exe", argv.data());
        }
        _exit(kFailed);
    }
    const int error = errno;
    close(input[0]);
    close(output[1]);
    m_Input = input[1];
    m_Output = output[0];
    if (m_Process < 0) {
        throw std::system_error(error, std::generic_category(), "fork");
    }
}

Child::~Child() {
    EndInput();
    close(m_Output);
    if (m_Process > 0) {
        kill(m_Process, SIGKILL);
        waitpid(m_Process, nullptr, 0);
    }
}

bool Child::Read(std::string *unread) {
    char buffer[4096];
    const ssize_t count = read(m_Output, buffer, sizeof(buffer));
    if (count > 0) {
        unread->append(buffer, static_cast<size_t>(count));
    }
    return count > 0 || (count < 0 && errno == EINTR);
}

void Child::EndInput() {
    if (m_Input >= 0) {
        close(std::exchange(m_Input, -1));
    }
}

int Child::Wait(std::chrono::steady_clock::time_point start) {
    int status = 0;
    while (waitpid(m_Process, &status, WNOHANG) == 0) {
        if (MsSince(start) > kLimitMs) {
            return -1;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    m_Process = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

namespace {

// Prints what both processes report until both have ended.
class Demo {
  public:
    Demo(std::string library, bool asJson) : m_Library(std::move(library)), m_AsJson(asJson) {}
    int Run();

  private:
    // Reads on; true once the child has ended its output.
    bool ReadFrom(Child &child, std::string *unread);
    void TakeLine(const std::string &who, const std::string &line);
    void CheckExit(Child &child);
    void Report(bool passed, const std::string &who, const std::string &what);
    int Summarize();
    int RemainingMs() const;

    std::string m_Library;
    bool m_AsJson;
    std::chrono::steady_clock::time_point m_Start = std::chrono::steady_clock::now();
    std::string m_Port; // empty until the server listens
    size_t m_Passed = 0;
    size_t m_Failed = 0;
};

} // namespace

int Demo::RemainingMs() const {
    const double left = kLimitMs - MsSince(m_Start);
    return left > 0 ? static_cast<int>(left) : 0;
}

void Demo::Report(bool passed, const std::string &who, const std::string &what) {
    (passed ? m_Passed : m_Failed) += 1;
    PrintEvent(m_AsJson, {{"event", "check"}, {"process", who}, {"passed", passed}, {"text", what}},
               "{:<4} {}  {}", passed ? "ok" : "FAIL", who, what);
}

int Demo::Summarize() {
    const double seconds = MsSince(m_Start) / 1000;
    PrintEvent(
        m_AsJson,
        {{"event", "summary"}, {"passed", m_Passed}, {"failed", m_Failed}, {"seconds", seconds}},
        "{}: {} passed, {} failed, in {:.1f} s", m_Failed == 0 ? "all is well" : "FAILED",
        Counted(m_Passed, "check"), m_Failed, seconds);
    return m_Failed == 0 ? kDone : kFailed;
}

void Demo::TakeLine(const std::string &who, const std::string &line) {
    if (line.starts_with("port ")) {
        m_Port = line.substr(5);
        return;
    }
    Report(line.starts_with("ok "), who, line.substr(line.find(' ') + 1));
}

bool Demo::ReadFrom(Child &child, std::string *unread) {
    const bool more = child.Read(unread);
    for (size_t end = unread->find('\n'); end != std::string::npos; end = unread->find('\n')) {
        TakeLine(child.Name(), unread->substr(0, end));
        unread->erase(0, end + 1);
    }
    return !more;
}

void Demo::CheckExit(Child &child) {
    const int status = child.Wait(m_Start);
    if (status != kDone) {
        Report(false, child.Name(), fmt::format("the process ended with status {}", status));
    }
}

int Demo::Run() {
    Child server("server", {"nrpc-host", "--library", m_Library, "demo-server"});
    std::unique_ptr<Child> client;
    std::string fromServer;
    std::string fromClient;
    bool serverEnded = false;
    bool clientEnded = false;
    while (!serverEnded) {
        pollfd waits[] = {{server.Output(), POLLIN, 0},
                          {client == nullptr || clientEnded ? -1 : client->Output(), POLLIN, 0}};
        if (poll(waits, std::size(waits), RemainingMs()) == 0) {
            Report(false, "demo", fmt::format("not finished within {:.0f} s", kLimitMs / 1000));
            return Summarize();
        }
        if (waits[0].revents != 0) {
            serverEnded = ReadFrom(server, &fromServer);
        }
        if (waits[1].revents != 0) {
            clientEnded = ReadFrom(*client, &fromClient);
            if (clientEnded) {
                CheckExit(*client);
                server.EndInput();
            }
        }
        if (client == nullptr && !m_Port.empty()) {
            client = std::make_unique<Child>(
                "client", std::vector<std::string>{"nrpc-host", "--library", m_Library,
                                                   "demo-client", "--port", m_Port});
        }
    }
    CheckExit(server);
    if (!clientEnded) {
        Report(false, "server", "ended before the client did");
    }
    return Summarize();
}

void AddDemo(CLI::App &app, Program &program) {
    CLI::App *demo = app.add_subcommand(
        "demo", "A server process and a client process exchange requests; each finding is a line.");
    auto json = std::make_shared<bool>(false);
    demo->add_flag("--json", *json, "a JSON object for each finding, and for their count");
    EndHelp(*demo, {"demo", "demo --json"});
    demo->callback([&program, json] { program.Status = Demo(LibraryPath(program), *json).Run(); });
}

} // namespace nrpc::tool
