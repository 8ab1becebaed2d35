// The first byte chooses how the others are cut into reads. Both engines receive these over a
// socket: the handlers must get the same records (but for cancels, which the server deals with
// itself), hear once of the end, and nothing is left in the budget.
#include <sys/socket.h>
#include <unistd.h>

#include <thread>

#include "check.h"
#include "client/context.h"
#include "client/receive.h"
#include "server/client_list.h"
#include "server/receive.h"
#include "server/start_stop.h"
#include "server/work.h"
#include "stream.h"

using namespace nrpc;

static constexpr size_t kMaxStreamLen = 8192; // below what the engines read at once

// In the place of the system's (fuzz/CMakeLists.txt): the client's pauses after bytes that are none
// would take nearly all of the time.
extern "C" int __wrap_clock_nanosleep(clockid_t, int, const timespec *, timespec *);
extern "C" int __wrap_clock_nanosleep(clockid_t, int, const timespec *, timespec *) {
    return 0;
}

struct Outcome {
    std::vector<std::string> Records; // id and payload each
    int Ends = 0;
};

// The end of a connection from which exactly these reads come, then its end.
static int SocketWith(const std::vector<Bytes> &reads) {
    int ends[2];
    CHECK(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends) == 0);
    for (const Bytes &read : reads) {
        CHECK(send(ends[0], read.data(), read.size(), 0) == static_cast<ssize_t>(read.size()));
    }
    close(ends[0]);
    return ends[1];
}

template <typename Message>
static std::string RecordOf(const Message &message) {
    const std::string payload(reinterpret_cast<const char *>(message.Data), message.DataLen);
    return std::string(message.MsgID, kMsgIDLen) + payload;
}

// --- the server's end -------------------------------------------------------------------------

static ServerContext *StartedServer() {
    ServerContext *server = CreateServerContext();
    CHECK(server != nullptr && SockInit(server, 1, 1) == 1); // everything but the threads
    return server;
}

// As the accept thread does.
static void Admit(ServerContext *server, int socket) {
    ClientEntry *entry = NewClientEntry(socket);
    Add_To_Client_List(server->ClientList, entry);
    CHECK(!OpenToReceive(server->ClientList, entry, NewMidResult(socket, kClientDisconnected)));
}

static Outcome ServerOutcome(int socket) {
    static ServerContext *s_Server = StartedServer();
    Admit(s_Server, socket);
    ThreadArg worker = {};
    worker.Context = s_Server;
    while (void *client = TakeClient(s_Server)) {
        ServeClient(&worker, client);
        while (void *task = TakeTask(s_Server)) {
            ServeTask(&worker, task);
        }
    }
    Outcome outcome;
    while (MidResult *message = MidResultIsNotNull(s_Server->MidResultQueue)) {
        CHECK(message->Socket == socket);
        if (message->MsgKind == kRequestArrived) {
            outcome.Records.push_back(RecordOf(*message));
        } else {
            ++outcome.Ends;
        }
        FreeMidResult(message);
    }
    return outcome;
}

// --- the client's end -------------------------------------------------------------------------

static Outcome ClientOutcome(int socket) {
    ClientContext *client = CreateClientContext();
    CHECK(client != nullptr);
    client->RequestMode = kAsynchronous;
    client->Socket = socket;
    client->CloseFlag = 0;
    client->CloseMessage = NewClientMessage(kConnectionClosed);
    HoldAgain(&client->Life);
    std::thread(ClientFunRecvThread, client).join();
    Outcome outcome;
    while (ClientMessage *message = RemFromWorkDataList(client)) { // the newest first
        if (message->MsgKind == kDataReceived) {
            outcome.Records.insert(outcome.Records.begin(), RecordOf(*message));
        } else {
            ++outcome.Ends;
        }
        FreeClientMessage(message);
    }
    CHECK(RetireObject(&client->Life));
    DropObject(&client->Life);
    return outcome;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size == 0) {
        return 0;
    }
    std::string stream(reinterpret_cast<const char *>(data) + 1, std::min(size - 1, kMaxStreamLen));
    MendPackets(&stream);
    for (const uint32_t random : {0u, CutsOf(data[0])}) {
        const std::vector<Bytes> reads = CutIntoReads(stream, random);
        const Outcome atServer = ServerOutcome(SocketWith(reads));
        Outcome atClient = ClientOutcome(SocketWith(reads));
        std::erase_if(atClient.Records,
                      [](const std::string &record) { return record.starts_with("0001"); });
        CHECK(atServer.Records == atClient.Records);
        CHECK(atServer.Ends == 1 && atClient.Ends == 1);
        CHECK(BudgetHasRoom(kBudgetLen));
    }
    return 0;
}
