// Each pair of bytes is a step of somebody who writes messages into a narrow socket, in parts,
// giving some up in the middle and some for want of memory, or of somebody who reads them in
// pieces. What was not given up arrives whole, in order and once; what was given up does not
// disturb it.
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <deque>
#include <string>
#include <vector>

#include "check.h"
#include "failing_malloc.h"
#include "protocol/control.h"
#include "protocol/records.h"

using namespace nrpc;

static constexpr size_t kMaxInputLen = 512;
static constexpr size_t kElementAroundLen = 19; // a record but for its count and its payload

// A message on its way, or what is left of one given up.
struct Begun {
    int Packets; // still to be written
    std::string Record;
    bool GivenUp = false;
};

struct Wire {
    int Ends[2]; // the writer's, the reader's
    int32_t Number = 10;
    OutgoingPackets Outgoing = {};
    std::deque<Begun> Messages; // those in Outgoing
    Assembly Received = {};
    // Id and payload of each record; the close notice is "close".
    std::vector<std::string> Sent;
    std::vector<std::string> Arrived;
};

// --- the reader -------------------------------------------------------------------------------

static void TakeMessage(void *receiver, MessageChunk *chunks) {
    auto *wire = static_cast<Wire *>(receiver);
    RecordReader reader;
    CHECK(OpenRecords(&reader, chunks));
    Record record;
    RecordResult result = kRecordTaken;
    while ((result = ReadRecord(&reader, &record)) == kRecordTaken) {
        MessageChunk *block = TakePayload(&reader, &record);
        CHECK(block != nullptr);
        const auto *payload = reinterpret_cast<const char *>(record.Payload);
        wire->Arrived.push_back(record.MsgID +
                                std::string(payload, static_cast<size_t>(record.Len)));
        FreeChunks(block);
    }
    if (result == kRecordClose) {
        wire->Arrived.push_back("close");
    }
    CloseRecords(&reader);
}

// False when there is nothing to read.
static bool Read(Wire *wire, size_t limit) {
    std::vector<uint8_t> bytes(limit);
    const ssize_t len = recv(wire->Ends[1], bytes.data(), limit, MSG_DONTWAIT);
    int32_t packets = 0;
    CHECK(len <= 0 || Assembly_Feed(&wire->Received, bytes.data(), static_cast<int32_t>(len),
                                    TakeMessage, wire, &packets) == kFed);
    return len > 0;
}

// --- the writer -------------------------------------------------------------------------------

static void Write(Wire *wire) {
    if (wire->Outgoing.First == nullptr) {
        return;
    }
    const AttemptResult result = WriteFirstPacket(&wire->Outgoing, wire->Ends[0]);
    CHECK(result != kWriteBroken);
    Begun &message = wire->Messages.front();
    if (result == kPacketWritten && --message.Packets == 0) {
        if (!message.GivenUp) {
            wire->Sent.push_back(message.Record);
        }
        wire->Messages.pop_front();
    }
}

static void WriteAll(Wire *wire) {
    do {
        Write(wire);
    } while (Read(wire, 10240) || wire->Outgoing.First != nullptr);
    CHECK(wire->Messages.empty());
}

// A packet begun goes out all the same, and with it its message if it is the last one.
static void GiveUp(Wire *wire) {
    const bool isBegun = wire->Outgoing.SentLen > 0;
    AbandonMessage(&wire->Outgoing);
    CHECK((wire->Outgoing.First != nullptr) == isBegun);
    wire->Messages.resize(isBegun ? 1 : 0);
    if (isBegun) {
        Begun &message = wire->Messages.front();
        message.GivenUp = message.GivenUp || message.Packets > 1;
        message.Packets = 1;
    }
}

// Whoever begins a message has finished or given up the one before. `failing` is the allocation
// that fails, 0 none.
static void Begin(Wire *wire, size_t len, int32_t failing) {
    GiveUp(wire);
    MsgIDText id;
    FormatMsgID(wire->Number, id);
    std::string payload;
    while (payload.size() < len) {
        payload += "not the same in any two packets"; // as 31 does not divide their length
    }
    payload.resize(len);
    const size_t messageLen = kElementAroundLen + std::to_string(len).size() + len;
    const auto count = static_cast<int32_t>((messageLen + kMaxChunkLen - 1) / kMaxChunkLen);
    SendMsgList *packets = nullptr;
    g_MallocsToFailure = failing;
    const int32_t result = CreateRecordMsgList(
        id, reinterpret_cast<const uint8_t *>(payload.data()), static_cast<int32_t>(len), &packets);
    g_MallocsToFailure = 0;
    CHECK(result == (len == 0 || (failing > 0 && failing <= count) ? 0 : 1));
    if (result == 0) {
        return;
    }
    wire->Messages.push_back({count, id + payload});
    AppendPackets(&wire->Outgoing, packets);
}

static void SendControl(Wire *wire, bool cancels, bool fails) {
    WriteAll(wire); // otherwise it would wait for the reader
    g_MallocsToFailure = fails ? 1 : 0;
    if (cancels) {
        SendCancelMessageToServer("0011", wire->Ends[0], &wire->Outgoing);
    } else {
        SendCloseMessage(wire->Ends[0], &wire->Outgoing);
    }
    g_MallocsToFailure = 0;
    CHECK(wire->Outgoing.First == nullptr);
    if (!fails) {
        wire->Sent.push_back(cancels ? "00010011" : "close");
    }
}

static void TakeStep(Wire *wire, uint8_t what, uint8_t how) {
    switch (what % 8) {
    case 0:
        wire->Number = how % 2 != 0 ? NextRequestNumber(wire->Number) : wire->Number;
        return Begin(wire, size_t{how} * how / 2, what / 8);
    case 1:
        return GiveUp(wire);
    case 2:
        return SendControl(wire, how % 2 != 0, what / 8 == 1);
    case 3:
    case 4:
        Read(wire, 1 + size_t{how} * 40);
        return;
    default:
        return Write(wire);
    }
}

// Afterwards a bare close text, and a reader who leaves.
static void End(Wire *wire) {
    WriteAll(wire);
    CHECK(wire->Arrived == wire->Sent);
    char text[kCloseTextLen + 1] = {};
    CHECK(SendCloseText(wire->Ends[0], 1) == kWritten);
    CHECK(recv(wire->Ends[1], text, sizeof(text), MSG_DONTWAIT) == kCloseTextLen);
    CHECK(std::string(text) == kCloseText);
    close(wire->Ends[1]);
    Begin(wire, 1, 0);
    CHECK(WriteFirstPacket(&wire->Outgoing, wire->Ends[0]) == kWriteBroken);
    close(wire->Ends[0]);
    FreeOutgoing(&wire->Outgoing);
    Assembly_Reset(&wire->Received);
    CHECK(BudgetHasRoom(kBudgetLen)); // nothing is counted any more
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    Wire wire = {};
    CHECK(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, wire.Ends) == 0);
    const int narrow = 1; // the system takes its least size
    CHECK(setsockopt(wire.Ends[0], SOL_SOCKET, SO_SNDBUF, &narrow, sizeof(narrow)) == 0);
    for (size_t at = 0; at + 1 < std::min(size, kMaxInputLen); at += 2) {
        TakeStep(&wire, data[at], data[at + 1]);
    }
    End(&wire);
    return 0;
}
