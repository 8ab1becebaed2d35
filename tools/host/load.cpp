// nrpc-host load: many clients that ask as fast as they get answers, and every reply checked.
#include "load.h"

#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>
#include <unordered_map>

#include "call.h"
#include "signals.h"

namespace nrpc::tool {

using namespace hostkit;
using Clock = std::chrono::steady_clock;

// Every client is a thread of ours and one to three of the library's: 32 bits of address space hold
// few stacks of the usual size, while the sanitizer's threads of 64 bits need more.
static constexpr size_t kStackLen = size_t{sizeof(void *) == 4 ? 256 : 8192} * 1024;
static constexpr int kPauseMs = 100;
static constexpr int32_t kHeadLen = 8; // client and number, so that another's reply is noticed

namespace {

// What the clients have in common.
struct Load {
    const LoadOptions &Options;
    Address Server;
    Bytes Pattern;
    std::atomic<bool> IsOver = false;
    std::atomic<int64_t> RequestsLeft = 0;
    std::atomic<uint64_t> ReplyCount = 0;
    std::atomic<int32_t> ClientsLeft = 0;
    // Held while connecting: more at once than the server's backlog of 10 would wait for seconds.
    std::mutex ConnectLock{};

    // Whether one more request is to be sent; it is counted.
    bool TakeRequest() { return !IsOver && RequestsLeft.fetch_sub(1) > 0; }
};

// One client and its thread.
class Worker {
  public:
    Worker(Library &library, Load &load, uint32_t number)
        : m_Load(load), m_Number(number), m_Client(library) {}
    // Tries until it works or the load is over.
    void Connect();
    // Once connected.
    void Run();
    LoadResult m_Result; // complete once Run has returned

  private:
    void RunSynchronously();
    void RunAsynchronously();
    Bytes NextRequest();
    bool IsEcho(const Bytes &reply, uint32_t *number) const;
    void CountRight(Clock::time_point sent);
    void OnMessage(HostWord message);
    // Waits until at most `most` requests are under way; gives up those that nothing came for.
    void Await(size_t most);

    Load &m_Load;
    const uint32_t m_Number;
    uint32_t m_RequestNumber = 0;
    std::mutex m_Lock; // guards the result and the rest while a handler may run
    std::unordered_map<uint32_t, Clock::time_point> m_UnderWay;
    bool m_IsClosed = false;
    Client m_Client; // ends first
};

} // namespace

Bytes Worker::NextRequest() {
    Bytes request = m_Load.Pattern;
    ++m_RequestNumber;
    std::memcpy(request.data(), &m_Number, sizeof(m_Number));
    std::memcpy(request.data() + sizeof(m_Number), &m_RequestNumber, sizeof(m_RequestNumber));
    return request;
}

bool Worker::IsEcho(const Bytes &reply, uint32_t *number) const {
    uint32_t client = 0;
    if (reply.size() != m_Load.Pattern.size()) {
        return false;
    }
    std::memcpy(&client, reply.data(), sizeof(client));
    std::memcpy(number, reply.data() + sizeof(client), sizeof(*number));
    return client == m_Number &&
           std::equal(reply.begin() + kHeadLen, reply.end(), m_Load.Pattern.begin() + kHeadLen);
}

void Worker::CountRight(Clock::time_point sent) {
    m_Result.Replies += 1;
    m_Result.Latencies.push_back(static_cast<float>(MsSince(sent)));
    ++m_Load.ReplyCount;
}

void Worker::Connect() {
    const bool isAsynchronous = m_Load.Options.Mode == "async";
    const auto handler = [this](HostWord message) { OnMessage(message); };
    m_IsClosed = false;
    while (!m_Load.IsOver) {
        {
            const std::lock_guard<std::mutex> turn(m_Load.ConnectLock);
            const auto &[host, port] = m_Load.Server;
            if (isAsynchronous ? m_Client.ClientConnect(port, host, handler)
                               : m_Client.ClientConnect(port, host)) {
                m_Result.Connections += 1;
                return;
            }
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(kPauseMs));
    }
}

void Worker::RunSynchronously() {
    while (m_Load.TakeRequest()) {
        const Bytes request = NextRequest();
        const auto sent = Clock::now();
        const BinReply reply = m_Client.SendSynRequestBin(request, m_Load.Options.TimeoutMs);
        uint32_t number = 0;
        if (reply.Result == 1 && IsEcho(reply.Content, &number) && number == m_RequestNumber) {
            CountRight(sent);
            continue;
        }
        m_Result.Wrong += reply.Result == 1 ? 1 : 0;
        m_Result.TimedOut += reply.Result == 0 ? 1 : 0;
        m_Result.Lost += reply.Result == -1 ? 1 : 0;
        m_Client.ClientdisConnect(); // a broken connection looks like a time-out
        Connect();
    }
}

void Worker::OnMessage(HostWord message) {
    const bool isClose = m_Client.ClientGetMsgKind(message) == kConnectionClosed;
    const Bytes reply = isClose ? Bytes() : m_Client.GetResultBin(message).value_or(Bytes());
    const std::lock_guard<std::mutex> guard(m_Lock);
    if (isClose) {
        m_IsClosed = true;
        return;
    }
    uint32_t number = 0;
    const bool isEcho = IsEcho(reply, &number);
    const auto request = m_UnderWay.find(number);
    if (!isEcho || request == m_UnderWay.end()) {
        m_Result.Wrong += 1;
        return;
    }
    CountRight(request->second);
    m_UnderWay.erase(request);
}

void Worker::Await(size_t most) {
    const auto patience = std::chrono::milliseconds(m_Load.Options.TimeoutMs);
    uint64_t replies = 0;
    auto lastReply = Clock::now();
    for (;;) {
        {
            const std::lock_guard<std::mutex> guard(m_Lock);
            const auto now = Clock::now();
            lastReply = m_Result.Replies == replies ? lastReply : now;
            replies = m_Result.Replies;
            if (m_UnderWay.size() <= most && !m_IsClosed) {
                return;
            }
            if (m_IsClosed || now - lastReply > patience) {
                (m_IsClosed ? m_Result.Lost : m_Result.TimedOut) += m_UnderWay.size();
                m_UnderWay.clear();
                break;
            }
        }
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    m_Client.ClientdisConnect();
    Connect();
}

void Worker::RunAsynchronously() {
    const auto window = static_cast<size_t>(m_Load.Options.Window);
    while (m_Load.TakeRequest()) {
        Await(window - 1);
        const Bytes request = NextRequest();
        {
            const std::lock_guard<std::mutex> guard(m_Lock);
            m_UnderWay.emplace(m_RequestNumber, Clock::now());
        }
        m_Client.SendAsynRequestBin(request); // refused: counted as lost when the close is seen
    }
    Await(0);
}

void Worker::Run() {
    m_Load.Options.Mode == "async" ? RunAsynchronously() : RunSynchronously();
    m_Client.ClientdisConnect();
    --m_Load.ClientsLeft;
}

// Until the clients are done, the time is over or a signal comes.
static void Watch(Load &load, const EndSignals &signals, Clock::time_point start) {
    const LoadOptions &options = load.Options;
    const bool showsProgress = isatty(STDERR_FILENO) != 0;
    while (load.ClientsLeft > 0 && !signals.CameWithin(kPauseMs)) {
        const double done = options.Requests > 0
                                ? static_cast<double>(load.ReplyCount) / options.Requests
                                : MsSince(start) / 1000 / options.Seconds;
        if (showsProgress) {
            const auto marks = static_cast<size_t>(std::clamp(done, 0.0, 1.0) * 40);
            fmt::print(stderr, "\r[{:<40}] {:3.0f} %  {}", std::string(marks, '='), done * 100,
                       Counted(load.ReplyCount, "reply", "replies"));
        }
        if (options.Requests == 0 && done >= 1) {
            break;
        }
    }
    if (showsProgress) {
        fmt::print(stderr, "\r{:<72}\r", "");
    }
    load.IsOver = true;
}

static int MakeLoad(const Program &program, const LoadOptions &options) {
    Load load = {options, ParseAddress(options.Server),
                 CountedBytes(static_cast<size_t>(options.ByteCount))};
    load.RequestsLeft = options.Requests > 0 ? options.Requests : INT64_MAX;
    load.ClientsLeft = options.Clients;
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, kStackLen);
    pthread_setattr_default_np(&attributes);
    pthread_attr_destroy(&attributes);
    const EndSignals signals;

    Heap heap;
    Library library(LibraryPath(program), heap);
    std::deque<Worker> workers;
    std::vector<std::thread> threads;
    {
        const EndWatch connecting(signals, [] { _exit(Complain("interrupted", kInterrupted)); });
        if (Client first(library); !first.ClientConnect(load.Server.Port, load.Server.Host)) {
            throw std::runtime_error(fmt::format("cannot connect to {}", options.Server));
        }
        for (uint32_t number = 0; number < static_cast<uint32_t>(options.Clients); ++number) {
            workers.emplace_back(library, load, number).Connect();
        }
    }
    const auto start = Clock::now();
    for (Worker &worker : workers) {
        threads.emplace_back([&worker] { worker.Run(); });
    }
    Watch(load, signals, start);
    LoadResult result;
    result.Seconds = MsSince(start) / 1000;
    for (size_t i = 0; i < threads.size(); ++i) {
        threads[i].join();
        result.Add(workers[i].m_Result);
    }
    PrintLoad(options, result);
    return result.IsGood() ? kDone : kFailed;
}

void AddLoad(CLI::App &app, Program &program) {
    auto options = std::make_shared<LoadOptions>();
    CLI::App *load = app.add_subcommand(
        "load", "Many clients ask an echo service as fast as it answers; every reply is checked. "
                "It fails when one was wrong, lost or late.");
    load->add_option("server", options->Server, "where the server listens")
        ->required()
        ->type_name("HOST:PORT");
    const CLI::Range positive(1, INT32_MAX);
    load->add_option("--clients", options->Clients, "how many at once")
        ->capture_default_str()
        ->check(CLI::Range(1, 1000));
    auto *requests = load->add_option("--requests", options->Requests, "end after so many in all");
    requests->check(positive);
    load->add_option("--seconds", options->Seconds, "end after this time")
        ->capture_default_str()
        ->check(positive)
        ->excludes(requests);
    load->add_option("--bytes", options->ByteCount, "size of a request and its reply")
        ->capture_default_str()
        ->check(CLI::Range(kHeadLen, 64 << 20));
    load->add_option("--mode", options->Mode, "how clients ask")
        ->capture_default_str()
        ->check(CLI::IsMember({"sync", "async"}));
    load->add_option("--window", options->Window, "requests under way on each async client")
        ->capture_default_str()
        ->check(CLI::Range(1, 100000));
    load->add_option("--timeout", options->TimeoutMs, "longest wait for a reply, in ms")
        ->capture_default_str()
        ->check(positive);
    load->add_flag("--json", options->Json, "the figures as one JSON object");
    EndHelp(*load, {"load 127.0.0.1:7000 --clients 50 --seconds 10",
                    "load 127.0.0.1:7000 --mode async --requests 100000 --json"});
    load->callback([&program, options] {
        if (options->Mode == "async" &&
            options->Clients > static_cast<int32_t>(kHandlerSlotCount)) {
            throw CLI::ValidationError("--clients",
                                       fmt::format("at most {} in async mode", kHandlerSlotCount));
        }
        program.Status = MakeLoad(program, *options);
    });
}

} // namespace nrpc::tool
