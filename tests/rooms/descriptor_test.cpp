// The descriptor as a host reads it: bytes at fixed offsets behind GetNewInf, texts in GBK. The
// offsets stand here a second time on purpose: the records of library_info.h are what is tested.
#include "host/library_info.h"

#include <gtest/gtest.h>
#include <iconv.h>

#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "client_commands/commands.h"
#include "server_commands/connected_clients.h"
#include "server_commands/lifecycle.h"
#include "server_commands/request_reply.h"

#if defined(__i386__) // a host's pointers have 32 bits

namespace nrpc {
namespace {

std::string FromGbk(const char *text) {
    const iconv_t converter = iconv_open("UTF-8", "GBK");
    if (converter == reinterpret_cast<iconv_t>(-1)) {
        ADD_FAILURE() << "this system cannot convert from GBK";
        return {};
    }
    std::string in(text);
    std::string out(2 * in.size(), '\0'); // two bytes of GBK are at most three of UTF-8
    char *from = in.data();
    char *to = out.data();
    size_t left = in.size();
    size_t room = out.size();
    if (iconv(converter, &from, &left, &to, &room) == static_cast<size_t>(-1) || left != 0) {
        ADD_FAILURE() << "not GBK at byte " << in.size() - left << " of " << in;
    }
    iconv_close(converter);
    out.resize(out.size() - room);
    return out;
}

// Some record of the descriptor, read by offset.
struct Record {
    const char *Start;

    template <typename Value>
    Value Get(size_t offset) const {
        Value value;
        std::memcpy(&value, Start + offset, sizeof(value));
        return value;
    }
    int32_t Number(size_t offset) const { return Get<int32_t>(offset); }
    Record Follow(size_t offset) const { return {Get<const char *>(offset)}; }
    Record Row(size_t index, size_t size) const { return {Start + index * size}; }
    std::string Text(size_t offset) const {
        const char *text = Follow(offset).Start;
        if (text == nullptr) {
            ADD_FAILURE() << "null text at offset " << offset;
            return {};
        }
        return FromGbk(text);
    }
    std::string Hex(size_t offset) const {
        std::ostringstream out;
        out << "0x" << std::hex << std::uppercase << Get<uint32_t>(offset);
        return out.str();
    }
    std::string Words(size_t offset, size_t count) const {
        std::string out;
        for (size_t i = 0; i < count; ++i) {
            out += (i == 0 ? "" : " ") + std::to_string(Number(offset + 4 * i));
        }
        return out;
    }
};

constexpr size_t kTypeSize = 56, kElementSize = 28, kCommandSize = 36, kArgSize = 24;

Record Library() {
    return {reinterpret_cast<const char *>(GetNewInf())};
}

std::vector<Record> Rows(Record owner, size_t countOffset, size_t rowsOffset, size_t size) {
    std::vector<Record> rows;
    for (int32_t i = 0; i < owner.Number(countOffset); ++i) {
        rows.push_back(owner.Follow(rowsOffset).Row(static_cast<size_t>(i), size));
    }
    return rows;
}
std::vector<Record> Types() {
    return Rows(Library(), 84, 88, kTypeSize);
}
std::vector<Record> ElementsOf(Record type) {
    return Rows(type, 48, 52, kElementSize);
}
std::vector<Record> Commands() {
    return Rows(Library(), 100, 104, kCommandSize);
}
std::vector<Record> ArgsOf(Record command) {
    return Rows(command, 28, 32, kArgSize);
}

// The whole descriptor as text, one group of fields per line.
class Listing {
  public:
    std::string Of(Record library) {
        Line("library", "format " + library.Words(0, 1) + ", version " + library.Words(8, 3) +
                            ", host " + library.Words(20, 4) + ", language " +
                            library.Words(40, 1) + ", state " + library.Hex(48));
        Line("library id", library.Text(4));
        Line("library name", library.Text(36));
        Line("library help", library.Text(44));
        static const char *const maker[] = {"name", "postcode", "address",   "phone",
                                            "fax",  "e-mail",   "home page", "note"};
        for (size_t i = 0; i < std::size(maker); ++i) {
            Line(std::string("maker ") + maker[i], library.Text(52 + 4 * i));
        }
        Line("library counts", "types " + library.Words(84, 1) + ", categories " +
                                   library.Words(92, 1) + ", commands " + library.Words(100, 1));
        Line("library category list", "bytes " + std::to_string(library.Follow(96).Get<char>(0)) +
                                          " " + std::to_string(library.Follow(96).Get<char>(1)));
        Line("library reserved", library.Words(112, 2) + ", " + library.Words(124, 9));
        AddTypes();
        AddCommands();
        return m_Text;
    }

  private:
    void AddTypes() {
        for (size_t i = 0; i < Types().size(); ++i) {
            const Record type = Types()[i];
            const std::string title = "type " + std::to_string(i);
            m_Text += "\n";
            Line(title, type.Text(0) + " = " + type.Text(4) + ", state " + type.Hex(20) +
                            ", reserved " + type.Words(24, 6));
            Line(title + " help", type.Text(8));
            Line(title + " commands",
                 type.Follow(16).Words(0, static_cast<size_t>(type.Number(12))));
            for (size_t k = 0; k < ElementsOf(type).size(); ++k) {
                const Record element = ElementsOf(type)[k];
                const std::string elementTitle = title + " element " + std::to_string(k);
                Line(elementTitle, element.Text(8) + " = " + element.Text(12) + ", type " +
                                       element.Hex(0) + ", reserved " + element.Words(4, 1) +
                                       ", state " + element.Words(20, 1) + ", default " +
                                       element.Words(24, 1));
                Line(elementTitle + " help", element.Text(16));
            }
        }
    }
    void AddCommands() {
        for (size_t i = 0; i < Commands().size(); ++i) {
            const Record command = Commands()[i];
            const std::string title = "command " + std::to_string(i);
            std::ostringstream row;
            row << command.Text(0) << " = " << command.Text(4) << ", category "
                << command.Get<int16_t>(12) << ", flags 0x" << std::hex << std::uppercase
                << command.Get<uint16_t>(14) << std::dec << ", returns " << command.Hex(16)
                << ", level " << command.Get<int16_t>(22) << ", reserved "
                << command.Get<int16_t>(20) << ' ' << command.Get<int16_t>(24) << ' '
                << command.Get<int16_t>(26) << ", arguments " << command.Number(28);
            m_Text += "\n";
            Line(title, row.str());
            Line(title + " help", command.Text(8));
            for (size_t k = 0; k < ArgsOf(command).size(); ++k) {
                const Record arg = ArgsOf(command)[k];
                const std::string argTitle = title + " argument " + std::to_string(k + 1);
                Line(argTitle, arg.Text(0) + ", type " + arg.Hex(12) + ", flags " +
                                   arg.Words(20, 1) + ", reserved " + arg.Words(8, 1) +
                                   ", default " + arg.Words(16, 1));
                Line(argTitle + " help", arg.Text(4));
            }
        }
    }
    void Line(const std::string &title, const std::string &text) {
        for (const char c : text) {
            EXPECT_FALSE(static_cast<unsigned char>(c) < ' ') << "control character in " << title;
        }
        m_Text += title + ":" + (text.empty() ? "" : " ") + text + "\n";
    }

    std::string m_Text;
};

// A change of any byte that a host can see shows here. Reviewed and meant, the new listing takes
// the place of tests/data/descriptor.txt.
TEST(Descriptor, IsTheReviewedOne) {
    std::stringstream golden;
    golden << std::ifstream(NRPC_TEST_DATA "/descriptor.txt").rdbuf();
    const std::string actual = Listing().Of(Library());
    const std::string path = ::testing::TempDir() + "nrpc-descriptor-actual.txt";
    if (actual != golden.str()) {
        std::ofstream(path) << actual;
    }
    EXPECT_EQ(golden.str(), actual) << "The whole descriptor as it is now: " << path;
}

// Every command belongs to one type, and each type has one constructor and one destructor.
TEST(Descriptor, GivesEveryCommandToOneType) {
    std::vector<int> owners(Commands().size());
    for (const Record &type : Types()) {
        int constructors = 0, destructors = 0;
        for (const Record &entry : Rows(type, 12, 16, sizeof(int32_t))) {
            const auto index = entry.Get<uint32_t>(0);
            ASSERT_LT(index, owners.size());
            ++owners[index];
            constructors += (Commands()[index].Get<uint16_t>(14) & 0x0200) != 0;
            destructors += (Commands()[index].Get<uint16_t>(14) & 0x0100) != 0;
        }
        EXPECT_EQ(constructors, 1);
        EXPECT_EQ(destructors, 1);
    }
    EXPECT_EQ(owners, std::vector<int>(29, 1));
}

// What the host calls by itself is hidden and has no result; nothing hidden has arguments.
TEST(Descriptor, DescribesEachCommandWithoutContradiction) {
    for (const Record &command : Commands()) {
        SCOPED_TRACE(command.Text(0));
        const int flags = command.Get<uint16_t>(14);
        const bool byHost = (flags & 0x0300) != 0;
        const bool hidden = (flags & 0x0004) != 0;
        EXPECT_EQ(flags & ~0x0304, 0xC000);
        EXPECT_EQ(command.Follow(32).Start == nullptr, command.Number(28) == 0);
        EXPECT_TRUE(!hidden || command.Number(28) == 0);
        EXPECT_TRUE(!byHost || (hidden && command.Number(16) == 0));
        for (const Record &arg : ArgsOf(command)) {
            const int argFlags = arg.Number(20);
            EXPECT_TRUE(argFlags == 0 || argFlags == 2 || argFlags == 4 || argFlags == 8);
        }
    }
}

TEST(Descriptor, LeadsEachIndexToItsEntry) {
    const CommandEntry entries[] = {
        fnCreateServer,       fnStartServer,        fnStopServer,        fnSetPoolThreadNum,
        fnGetRequestText,     fnGetRequestBin,      fnSendResultText,    fnSendResultBin,
        fnGetClientHandle,    fnGetClientIPAddr,    fnGetClientCount,    fnGetAllClient,
        fnDisconnect,         fnServerRelease,      fnCreateClient,      fnClientConnect,
        fnClientdisConnect,   fnSendSynRequestText, fnSendSynRequestBin, fnSendAsynRequestText,
        fnSendAsynRequestBin, fnGetResultText,      fnGetResultBin,      fnReleaseClient,
        fnClientGetMsgKind,   fnClientDemo2,        fnClientDemo3,       fnGetMsgKind,
        fnClientDemo4};
    ASSERT_EQ(std::size(entries), Commands().size());
    for (size_t i = 0; i < std::size(entries); ++i) {
        EXPECT_EQ(Library().Follow(108).Row(i, 4).Get<CommandEntry>(0), entries[i]) << i;
    }
    EXPECT_EQ(Library().Get<decltype(&ProcessNotifyLib)>(120), &ProcessNotifyLib);
}

} // namespace
} // namespace nrpc

#endif
