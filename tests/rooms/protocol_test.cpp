// Bytes on the wire and what stands under them: packets, assembly, records, names, what is still to
// be written, the memory budget, gates and the book of live objects.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "protocol/assembly.h"
#include "protocol/control.h"
#include "protocol/outgoing.h"
#include "protocol/records.h"
#include "support/budget.h"
#include "support/gate.h"
#include "support/live_object.h"
#include "support/threads.h"

using namespace nrpc;

namespace {

constexpr int32_t kMiB = 1024 * 1024;
std::mt19937 s_Random(20240608);

int32_t Int(size_t number) {
    return static_cast<int32_t>(number);
}

std::string Text(const void *bytes, size_t len) {
    return {static_cast<const char *>(bytes), len};
}

// The wire, written a second time, for a little-endian machine.
std::string Head(const std::string &id, int32_t totalLen, int32_t index, int32_t chunkLen) {
    const int32_t words[] = {totalLen, index, chunkLen};
    return "NMSG" + id + Text(words, sizeof(words));
}

std::string Framed(const std::string &id, const std::string &message, size_t chunkLen = 8192) {
    std::string wire;
    for (size_t at = 0; at < message.size(); at += chunkLen) {
        const std::string chunk = message.substr(at, chunkLen);
        wire += Head(id, Int(message.size()), Int(at / chunkLen), Int(chunk.size())) + chunk;
    }
    return wire;
}

std::string Noise(size_t length) {
    std::string bytes(length, 0);
    std::generate(bytes.begin(), bytes.end(), [] { return static_cast<char>(s_Random()); });
    return bytes;
}

// Just these bytes, so that a read beyond their end shows.
std::vector<uint8_t> Exact(const std::string &bytes) {
    return {bytes.begin(), bytes.end()};
}

SendMsgList *Cut(const char *id, const std::string &data, decltype(CreateSendMsgList) *create) {
    SendMsgList *list = nullptr;
    EXPECT_EQ(create(id, Exact(data).data(), Int(data.size()), &list), 1);
    return list;
}

// The bytes of the packets, which are freed.
std::string Joined(SendMsgList *list) {
    std::string wire;
    for (; list != nullptr; list = FreeFirstPacket(list)) {
        wire += Text(list->Packet, static_cast<size_t>(list->PacketLen));
    }
    return wire;
}

// An assembly and the messages that came out of it, each with a bar behind it.
struct Receiver {
    Assembly State = {};
    std::string Messages;
    int32_t Packets = 0;

    ~Receiver() { Assembly_Reset(&State); }
    FeedResult Feed(const std::string &bytes) {
        const std::vector<uint8_t> copy = Exact(bytes);
        return Assembly_Feed(&State, copy.data(), Int(copy.size()), Take, this, &Packets);
    }
    static void Take(void *receiver, MessageChunk *chunks) {
        chunks = JoinChunks(chunks);
        static_cast<Receiver *>(receiver)->Messages += Text(chunks->Data, chunks->Len) + '|';
        FreeChunks(chunks);
    }
};

} // namespace

TEST(Packets, HeadsThatNoPacketHasCountAsWrongMagic) {
    const auto check = [](const std::string &head, bool isLegal) {
        ReceivedPacket packet = {-7, 0, 0, 0, nullptr};
        EXPECT_EQ(ParsePacketHead(Exact(head).data(), &packet), isLegal) << head;
        EXPECT_EQ(packet.MsgNumber, isLegal ? 11 : -7); // nothing is stored for a wrong one
        const PacketResult result = GetPacketFromBuf(Exact(head).data(), kPacketHeadLen, &packet);
        EXPECT_EQ(result != kPacketBadMagic, isLegal) << head;
    };
    // Lengths of message and chunk.
    const int32_t legal[][2] = {{0, 0}, {5, 1}, {5, 8193}, {256 * kMiB, kMiB}};
    const int32_t wrong[][2] = {{5, 0},           {0, -5},
                                {-1, 0},          {-1, 5},
                                {INT32_MIN, 5},   {5, -1},
                                {5, INT32_MIN},   {256 * kMiB + 1, 5},
                                {kMiB, kMiB + 1}, {INT32_MAX, INT32_MAX - 19}};
    for (const auto &[total, chunk] : wrong) {
        check(Head("0011", total, 0, chunk), false);
    }
    for (const auto &[total, chunk] : legal) {
        std::string head = Head("0011", total, 0, chunk);
        check(head, true);
        for (size_t at = 0; at < 4; ++at) {
            check(std::string(head).replace(at, 1, "m"), false);
        }
    }
}

TEST(Packets, MessagesOfEveryLengthAreCutByTheDrawing) {
    for (const size_t length : {1U, 19U, 8191U, 8192U, 8193U, 16384U, 20000U}) {
        const std::string data = Noise(length);
        const std::string tag = "<Msg9999>" + std::to_string(length) + "</Msg9999>";
        EXPECT_EQ(Joined(Cut("0011", data, CreateSendMsgList)), Framed("0011", data)) << length;
        EXPECT_EQ(Joined(Cut("9999", data, CreateRecordMsgList)), Framed("9999", tag + data));
    }
    SendMsgList *untouched = nullptr;
    EXPECT_EQ(CreateSendMsgList("0011", nullptr, 5, &untouched), 0);
    EXPECT_EQ(CreateSendMsgList("0011", Exact("x").data(), 0, &untouched), 0);
    EXPECT_EQ(CreateRecordMsgList("0011", Exact("x").data(), -1, &untouched), 0);
    EXPECT_EQ(untouched, nullptr);
}

TEST(Reassembly, AnySplitOfTheBytesGivesTheSameMessages) {
    const std::string small = Framed("0011", "a") + Framed("0012", "hello, world", 5);
    for (size_t cut = 1; cut < small.size(); ++cut) {
        Receiver receiver;
        EXPECT_EQ(receiver.Feed(small.substr(0, cut)) + receiver.Feed(small.substr(cut)), 2);
        EXPECT_EQ(receiver.Messages, "a|hello, world|") << cut;
        EXPECT_EQ(receiver.Packets, 4);
        EXPECT_FALSE(Assembly_IsPartial(&receiver.State));
    }
    std::string messages, wire;
    for (const size_t length : {20000U, 1U, 8192U, 70000U, 8193U}) {
        const std::string message = Noise(length);
        wire += Framed("0011", message, length == 70000 ? 65536 : 8192);
        messages += message + '|';
    }
    for (const uint32_t longest : {1U, 30U, 9000U, 200000U}) {
        Receiver receiver;
        for (size_t at = 0, length = 0; at < wire.size(); at += length) {
            length = 1 + s_Random() % longest;
            ASSERT_EQ(receiver.Feed(wire.substr(at, length)), kFed);
        }
        EXPECT_EQ(receiver.Messages, messages) << longest;
    }
}

TEST(Reassembly, PacketsContinueAMessageOrStartAnewByTheRule) {
    static constexpr const char *kCases[][2] = {
        // id, TotalLen, ChunkIndex and chunk of each packet; the messages that come out
        {"0011 4 7 ab  0011 4 8 cd", "abcd|"}, // starts at any index
        {"0011 4 0 ab  0011 4 2 cd  0011 4 3 ef", "cdef|"},
        {"0011 4 0 ab  0011 4 0 cd  0011 4 1 ef", "cdef|"},
        {"0011 4 1 ab  0011 4 0 cd", ""},
        {"0011 4 0 ab  0012 2 1 xy  0011 4 1 cd", "xy|"},
        {"0011 4 0 ab  11xx 4 1 cd", "abcd|"}, // the number counts
        {"0011 9 0 ab  0011 4 1 cd", "abcd|"}, // and the last TotalLen
        {"0011 3 0 ab  0011 3 1 cd  0011 1 2 e", "e|"},
        {"0011 1 0 ab  0011 3 1 c  0011 3 2 de", "cde|"},
        {"0011 5 2147483647 ab  0011 5 -2147483648 cd", ""}, // no overflow
    };
    for (const auto &[packets, expected] : kCases) {
        Receiver receiver;
        std::istringstream in(packets);
        std::string id, chunk;
        for (int32_t total = 0, index = 0; in >> id >> total >> index >> chunk;) {
            EXPECT_EQ(receiver.Feed(Head(id, total, index, Int(chunk.size())) + chunk), kFed);
        }
        EXPECT_EQ(receiver.Messages, expected) << packets;
    }
}

TEST(Reassembly, WhatIsNoPacketCostsWhatIsHeldAndNothingElse) {
    const std::string garbage = "<Msg0000>0</Msg0000>";
    Receiver receiver;
    EXPECT_EQ(receiver.Feed(garbage), kFeedDiscarded);
    EXPECT_EQ(receiver.Feed(Head("0011", 9, 0, 4) + "half"), kFed);
    EXPECT_TRUE(Assembly_IsPartial(&receiver.State));
    EXPECT_EQ(receiver.Feed(garbage), kFeedDiscarded);
    EXPECT_FALSE(Assembly_IsPartial(&receiver.State));
    EXPECT_EQ(receiver.Feed(Head("0011", 9, 1, 5) + "other" + Framed("0012", "fine")), kFed);
    EXPECT_EQ(receiver.Feed(Framed("0012", "last") + garbage), kFeedBroken);
    EXPECT_FALSE(Assembly_IsPartial(&receiver.State));
    EXPECT_EQ(receiver.Messages, "fine|last|");

    EXPECT_EQ(receiver.Feed(Head("0011", 256 * kMiB, 0, kMiB) + "x"), kFed);
    EXPECT_LE(receiver.State.HeldSize, 65536); // memory for what arrived, not for what is to come
    for (const size_t count : {size_t{kMaxChunkCount}, size_t{kMaxChunkCount} + 1}) {
        Receiver many;
        EXPECT_EQ(many.Feed(Framed("0011", std::string(count, 'x'), 1)), kFed);
        EXPECT_EQ(many.Messages.empty(), count > kMaxChunkCount);
        EXPECT_EQ(many.Feed(Framed("0012", "next")), kFed);
        EXPECT_TRUE(many.Messages.ends_with("next|"));
    }
}

TEST(Records, AreReadAsFarAsTheyAreSound) {
    // `expected`: id and payload of each record, and how the reading ends.
    const auto check = [](const std::string &message, const std::string &expected) {
        MessageChunk *chunk = NewChunk(static_cast<uint32_t>(message.size()));
        std::copy(message.begin(), message.end(), chunk->Data);
        RecordReader reader;
        ASSERT_TRUE(OpenRecords(&reader, chunk));
        std::string seen;
        Record record;
        RecordResult result = kRecordEnd;
        while ((result = ReadRecord(&reader, &record)) == kRecordTaken) {
            MessageChunk *payload = TakePayload(&reader, &record);
            seen += record.MsgID + Text(record.Payload, static_cast<size_t>(record.Len)) + ' ';
            FreeChunks(payload);
        }
        CloseRecords(&reader);
        seen += result == kRecordClose ? "close" : "end";
        EXPECT_EQ(seen, expected) << message.substr(0, 60);
    };
    const std::string hello = "<Msg0011>5</Msg0011>hello";
    check(hello + "<Msg0012>2</Msg0012>ab", "0011hello 0012ab end");
    check(hello + "<Msg0012>3</Msg0012>ab", "0011hello end");
    check(hello + "<Msg0000>0</Msg0000>" + hello, "0011hello close");
    check("<Msg0000></Msg0000>", "end"); // 19 bytes
    check("<Msg0000></Msg0000>x", "close");
    check("<Msg%s%n?00012</Msg9999!hello, world", "%s%nhello, world end"); // leniently
    check("<msg0011>5</msg0011>hello", "end");
    for (const char *count : {"5x", "+5", "-1", " 5", "6", "2147483620", "2147483647", "4294967296",
                              "4294967301", "18446744073709551621", "99999999999999999999"}) {
        check("<Msg0011>" + std::string(count) + "</Msg0011>hello", "end");
    }
    check("<Msg0011>" + std::string(1000000, '1'), "end");
}

TEST(Names, RequestCodesAreReadStrictly) {
    const auto read = [](const char *code) {
        MsgIDText id = "none";
        int32_t handle = -1;
        const bool taken = ParseRequestCode(code, &handle, id);
        return std::to_string(handle) + (taken ? " " : " not ") + id;
    };
    EXPECT_EQ(read("0000000007#0011tail"), "7 0011");
    EXPECT_EQ(read("2147483647#00#1"), "2147483647 00#1");
    EXPECT_EQ(read("#0011"), "0 0011");
    for (const char *code : {"", "7", "#", "7#", "7#001", "-7#0011", "+7#0011", "7 #0011",
                             "2147483648#0011", "4294967303#0011", "00000000007#0011"}) {
        EXPECT_EQ(read(code), "-1 not none") << code;
    }
}

TEST(Outgoing, APacketBegunIsFinishedBeforeAnythingElse) {
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends), 0);
    std::string wire;
    const auto drain = [&] {
        char buffer[65536];
        for (ssize_t got = 0; (got = read(ends[1], buffer, sizeof(buffer))) > 0;) {
            wire.append(buffer, static_cast<size_t>(got));
        }
    };
    OutgoingPackets outgoing = {};
    SendCancelMessageToServer("0011", ends[0], &outgoing);
    SendCloseMessage(ends[0], &outgoing);
    EXPECT_EQ(SendCloseText(ends[0], 1), kWritten);
    drain();
    EXPECT_EQ(wire, Framed("0001", "<Msg0001>4</Msg0001>0011") +
                        Framed("0000", "<Msg0000>0</Msg0000>") + "<Msg0000>0</Msg0000>");
    const int small = 4096;
    setsockopt(ends[0], SOL_SOCKET, SO_SNDBUF, &small, sizeof(small));
    for (const size_t taken : {0U, 8000U, 20000U, 60000U}) {
        const std::string data = Noise(100000);
        const std::string next = Framed("0012", data.substr(0, 9000));
        wire.clear();
        AppendPackets(&outgoing, Cut("0011", data, CreateSendMsgList));
        while (WriteFirstPacket(&outgoing, ends[0]) != kNoneWritten) {
            wire.size() < taken ? drain() : void();
        }
        AbandonMessage(&outgoing);
        AppendPackets(&outgoing, Cut("0012", data.substr(0, 9000), CreateSendMsgList));
        for (; outgoing.First != nullptr; drain()) {
            ASSERT_GE(WriteFirstPacket(&outgoing, ends[0]), kNoneWritten);
        }
        const size_t begun = (wire.size() - next.size()) / 8212; // packets of the first message
        EXPECT_EQ(wire, Framed("0011", data).substr(0, begun * 8212) + next);
        EXPECT_LT(begun, 12U);
    }
    close(ends[1]);
    AppendPackets(&outgoing, Cut("0013", "x", CreateSendMsgList));
    EXPECT_EQ(WriteFirstPacket(&outgoing, ends[0]), kWriteBroken); // and no signal
    FreeOutgoing(&outgoing);
    close(ends[0]);
}

TEST(Budget, EvictsTheNewestOfPartialMessagesThatFillIt) {
    constexpr size_t kPart = size_t{60} * kMiB;
    constexpr size_t kMost = size_t{400} * kMiB;
    void *parts[] = {TakeCounted(kPart), TakeCounted(kPart)}; // never touched: address space only
    void *most = TakeCounted(kMost);
    PartialAccount old, fresh;
    EXPECT_TRUE(BudgetIsExceeded());
    EXPECT_TRUE(ReportPartial(&old, kPart)); // queues are to blame, and will shrink
    EXPECT_TRUE(ReportPartial(&fresh, kPart));
    EXPECT_TRUE(ReportPartial(&old, kPart + kMost)); // now the partial messages are
    EXPECT_FALSE(ReportPartial(&fresh, kPart + 1));
    EXPECT_FALSE(old.Evicted);
    ReportPartial(&fresh, 0);
    ReportPartial(&old, 0);
    FreeCounted(parts[0], kPart);
    FreeCounted(parts[1], kPart);
    FreeCounted(most, kMost);
    EXPECT_TRUE(BudgetHasRoom(kBudgetLen));
    EXPECT_FALSE(BudgetHasRoom(kBudgetLen + 1));
}

TEST(Budget, ThatNothingRelievesCostsTheNewestPartialMessage) {
    constexpr size_t kPart = 1 << 20;
    void *queued = TakeCounted(kBudgetLen);
    void *parts[] = {TakeCounted(kPart), TakeCounted(kPart)};
    PartialAccount old;
    PartialAccount fresh;
    EXPECT_TRUE(ReportPartial(&old, kPart) && ReportPartial(&fresh, kPart));
    const uint64_t begin = MonotonicMs();
    while (!fresh.Evicted && MonotonicMs() - begin < 40000) {
        EXPECT_TRUE(BudgetIsExceeded());
        MySleep(100);
    }
    EXPECT_TRUE(fresh.Evicted && !old.Evicted);
    EXPECT_GE(MonotonicMs() - begin, 20900U);
    ReportPartial(&fresh, 0);
    ReportPartial(&old, 0);
    FreeCounted(parts[0], kPart);
    FreeCounted(parts[1], kPart);
    FreeCounted(queued, kBudgetLen);
    EXPECT_FALSE(BudgetIsExceeded());
}

TEST(Gates, NobodyIsInsideAfterADrain) {
    Gate gate;
    EXPECT_FALSE(Gate_Enter(&gate));
    std::atomic<bool> done = false;
    int guarded = 0; // changed inside by one thread, outside by the other
    std::thread visitor([&] {
        while (!done) {
            if (const GatePass pass(&gate); pass) {
                ++guarded;
            }
        }
    });
    for (int round = 0; round < 300; ++round) {
        Gate_Open(&gate);
        EXPECT_TRUE(Gate_Enter(&gate));
        Gate_Close(&gate);
        EXPECT_FALSE(Gate_Drain(&gate, 0));
        Gate_Leave(&gate);
        ASSERT_TRUE(Gate_Drain(&gate, 30000));
        const int before = guarded;
        std::this_thread::yield();
        EXPECT_EQ(guarded++, before);
    }
    done = true;
    visitor.join();
}

namespace {
struct Thing {
    LiveObject Life;
    std::atomic<int> Destroyed;
};
void DestroyThing(void *record) {
    ++static_cast<Thing *>(record)->Destroyed;
}
} // namespace

TEST(LiveObjects, AreDestroyedOnceByTheLastOfAllHolders) {
    for (int round = 0; round < 300; ++round) {
        Thing thing = {}; // its memory outlives its life, so that misuse shows
        PublishObject(&thing.Life, &thing, kClientObject, DestroyThing);
        ASSERT_FALSE(HoldObject(&thing, kServerObject) || HoldObject(nullptr, kClientObject));
        std::atomic<int> retired = 0;
        const auto use = [&] {
            for (int step = 0; step < 50 && HoldObject(&thing, kClientObject); ++step) {
                HoldAgain(&thing.Life);
                DropObject(&thing.Life);
                EXPECT_EQ(thing.Destroyed, 0);
                DropObject(&thing.Life);
            }
            if (RetireObject(&thing.Life)) {
                ++retired;
                DropObject(&thing.Life);
            }
        };
        std::thread users[] = {std::thread(use), std::thread(use), std::thread(use)};
        std::for_each(users, users + 3, [](std::thread &user) { user.join(); });
        ASSERT_EQ(retired * 10 + thing.Destroyed, 11);
        ASSERT_FALSE(HoldObject(&thing, kClientObject));
    }
    Thing thing = {};
    PublishObject(&thing.Life, &thing, kServerObject, DestroyThing);
    void *ofParent = TakeCounted(100);
    const pid_t child = fork();
    if (child == 0) { // knows no object of its parent, and answers for none of its memory
        _exit(HoldObject(&thing, kServerObject) || !BudgetHasRoom(kBudgetLen) ? 1 : 0);
    }
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
    FreeCounted(ofParent, 100);
    EXPECT_TRUE(RetireObject(&thing.Life));
    DropObject(&thing.Life);
}
