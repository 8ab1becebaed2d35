// The server under load, large requests, and what many visits and many starts leave behind.
#include <deque>

#include "system/support.h"

using namespace nrpc;
using namespace nrpc::tests;

namespace {

using Load = SystemTest;

void RunThreads(int count, const std::function<void(int)> &body) {
    std::vector<std::jthread> threads;
    for (int i = 0; i < count; ++i) {
        threads.emplace_back(body, i);
    }
}

// Says whose request it is, as far as it is long enough to.
std::string RequestOf(int client, int sequence) {
    static constexpr size_t kSizes[] = {1, 25, 8150, 8171, 8172, 8173, 8174, 8192, 20000, 200000};
    const std::string head = std::to_string(client) + "/" + std::to_string(sequence) + ";";
    const size_t size = kSizes[static_cast<size_t>(client + sequence) % std::size(kSizes)];
    return (head + Pattern(size, static_cast<uint32_t>(client * 1000 + sequence))).substr(0, size);
}

} // namespace

TEST_F(Load, SixtyFourClientsGetTheirOwnRepliesAndAllOfThem) {
    constexpr int kClients = 64;
    const int requests = Scaled(200);
    EchoServer server(false);
    std::deque<Client> clients;
    for (int32_t count = 1; count <= kClients; ++count) { // no more at once than the backlog holds
        ASSERT_TRUE(clients.emplace_back(TheLibrary()).ClientConnect(server.Port(), kLoopback));
        ASSERT_TRUE(Until([&] { return server->GetClientCount() == count; }));
    }
    RunThreads(kClients, [&](int number) {
        for (int sequence = 0; sequence < requests; ++sequence) {
            const std::string request = RequestOf(number, sequence);
            const BinReply reply = clients[static_cast<size_t>(number)].SendSynRequestBin(
                BytesOf(request), 2 * kPatienceMs);
            ASSERT_EQ(reply.Result, 1) << number << "/" << sequence;
            ASSERT_EQ(std::string(reply.Content.begin(), reply.Content.end()), request);
        }
    });
    clients.clear();
    EXPECT_TRUE(Until([&] { return server.Count(kClientDisconnected) == kClients; }));
    EXPECT_EQ(server.Count(kClientConnected), size_t{kClients});
    EXPECT_EQ(server.Count(kRequest), static_cast<size_t>(kClients * requests));
}

TEST_F(Load, AHugeRequestComesBackWhole) {
    const std::string request = Pattern((kSanitized ? 8U : 64U) << 20);
    EchoServer server;
    Client client(TheLibrary());
    ASSERT_TRUE(client.ClientConnect(server.Port(), kLoopback));
    const BinReply reply = client.SendSynRequestBin(BytesOf(request), 3 * kPatienceMs);
    EXPECT_EQ(reply.Result, 1);
    EXPECT_TRUE(
        std::equal(request.begin(), request.end(), reply.Content.begin(), reply.Content.end()));
}

TEST_F(Load, TwoHundredVisitsLeaveNothing) {
    const auto visit = [](int rounds) {
        EchoServer server;
        RunThreads(8, [&](int) {
            for (int round = 0; round < rounds; ++round) {
                Client client(TheLibrary());
                ASSERT_TRUE(client.ClientConnect(server.Port(), kLoopback));
                ASSERT_EQ(client.SendSynRequestText("hello", kPatienceMs).Text, "hello");
                client.ClientdisConnect();
            }
        });
        const size_t visits = 8 * static_cast<size_t>(rounds);
        EXPECT_TRUE(Until([&] { return server.Count(kClientDisconnected) == visits; }));
        EXPECT_EQ(server->GetClientCount(), 0);
    };
    visit(1);
    const Census before = TakeCensus();
    visit(25);
    ExpectBack(before, 7000, 100); // 200 small records or stacks
}

TEST_F(Load, TwentyStartsAndStopsOfServersSideBySideLeaveNothing) {
    const auto startAndStop = [](int rounds) {
        RunThreads(5, [rounds](int) {
            EchoServer server;
            for (int round = 0; round < rounds; ++round) {
                Peer peer(server.Port());
                EXPECT_EQ(peer.Ask("0011", "hello"), "hello");
                server->StopServer();
                EXPECT_EQ(peer.ReadToEnd(), "");
                server.Start(round % 2 == 0);
            }
        });
    };
    startAndStop(0);
    const Census before = TakeCensus();
    startAndStop(3);
    ExpectBack(before, 4000, 20);
}
