// The descriptor as a host reads it: bytes at fixed offsets behind GetNewInf, texts in GBK. The
// offsets stand here a second time on purpose: the records of library_info.h are what is tested.
#include "host/library_info.h"

#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <sstream>
#include <string>

#include "client_commands/commands.h"
#include "hostkit/gbk.h"
#include "server_commands/connected_clients.h"
#include "server_commands/lifecycle.h"
#include "server_commands/request_reply.h"

#if defined(__i386__) // a host's pointers have 32 bits

namespace nrpc {
namespace {

template <typename Value>
Value Get(const char *record, size_t offset) {
    Value value;
    std::memcpy(&value, record + offset, sizeof(value));
    return value;
}

const char *Follow(const char *record, size_t offset) {
    return Get<const char *>(record, offset);
}

const char *Library() {
    return reinterpret_cast<const char *>(GetNewInf());
}

std::string Field(char kind, const char *record, size_t offset) {
    char number[16];
    switch (kind) {
    case 'b':
        return std::to_string(Get<int8_t>(record, offset));
    case 's':
        return std::to_string(Get<int16_t>(record, offset));
    case 'n':
        return std::to_string(Get<int32_t>(record, offset));
    case 'h':
        return snprintf(number, sizeof(number), "0x%X", Get<uint16_t>(record, offset)), number;
    case 'x':
        return snprintf(number, sizeof(number), "0x%X", Get<uint32_t>(record, offset)), number;
    default:
        const char *text = Follow(record, offset);
        return text == nullptr ? "null" : hostkit::Utf8FromGbk(text);
    }
}

// The lines with each @<kind><offset> replaced by what the record has there: b a byte, s 16 bits,
// n 32 bits, h and x the same in hexadecimal, t a text. *<count>: so many fields of 32 bits.
std::string Lines(const std::string &title, const char *record,
                  std::initializer_list<std::string> patterns) {
    std::string lines;
    for (const std::string &pattern : patterns) {
        std::string line = title;
        for (size_t at = 0; at < pattern.size();) {
            if (pattern[at] != '@') {
                line += pattern[at++];
                continue;
            }
            char kind = 0;
            size_t offset = 0, count = 1;
            int length = 0, repetition = 0;
            sscanf(&pattern[at], "@%c%zu%n*%zu%n", &kind, &offset, &length, &count, &repetition);
            for (size_t i = 0; i < count; ++i) {
                line += (i > 0 ? " " : "") + Field(kind, record, offset + 4 * i);
            }
            at += static_cast<size_t>(std::max(length, repetition));
        }
        lines += line.substr(0, line.find_last_not_of(' ') + 1) + "\n";
    }
    return lines;
}

template <typename Print>
void ForEachRow(const char *owner, size_t countOffset, size_t rowSize, const Print &print) {
    for (int32_t i = 0; i < Get<int32_t>(owner, countOffset); ++i) {
        print(i, Follow(owner, countOffset + 4) + static_cast<size_t>(i) * rowSize);
    }
}

std::string Listing() {
    std::string all = Lines("library", Library(),
                            {": format @n0, version @n8*3, host @n20*4, language @n40, state @x48",
                             " id: @t4", " name: @t36", " help: @t44"});
    all += Lines("maker", Library(),
                 {" name: @t52", " postcode: @t56", " address: @t60", " phone: @t64", " fax: @t68",
                  " e-mail: @t72", " home page: @t76", " note: @t80"});
    all += Lines("library", Library(), {" counts: types @n84, categories @n92, commands @n100"});
    all += Lines("library", Follow(Library(), 96), {" category list: bytes @b0 @b1"});
    all += Lines("library", Library(), {" reserved: @n112*2, @n124*9"});
    ForEachRow(Library(), 84, 56, [&](int number, const char *type) {
        const std::string title = "type " + std::to_string(number);
        all +=
            "\n" + Lines(title, type, {": @t0 = @t4, state @x20, reserved @n24*6", " help: @t8"});
        all += Lines(title, Follow(type, 16), {" commands: @n0*" + Field('n', type, 12)});
        ForEachRow(type, 48, 28, [&](int element, const char *row) {
            all += Lines(
                title + " element " + std::to_string(element), row,
                {": @t8 = @t12, type @x0, reserved @n4, state @n20, default @n24", " help: @t16"});
        });
    });
    ForEachRow(Library(), 100, 36, [&](int number, const char *command) {
        const std::string title = "command " + std::to_string(number);
        all += "\n" + Lines(title, command,
                            {": @t0 = @t4, category @s12, flags @h14, returns @x16, level @s22, "
                             "reserved @s20 @s24 @s26, arguments @n28",
                             " help: @t8"});
        EXPECT_EQ(Follow(command, 32) == nullptr, Get<int32_t>(command, 28) == 0);
        ForEachRow(command, 28, 24, [&](int argument, const char *row) {
            all +=
                Lines(title + " argument " + std::to_string(argument + 1), row,
                      {": @t0, type @x12, flags @n20, reserved @n8, default @n16", " help: @t4"});
        });
    });
    return all;
}

// A change of any byte that a host can see shows here. Reviewed and meant, the new listing takes
// the place of tests/data/descriptor.txt.
TEST(Descriptor, IsTheReviewedOne) {
    std::stringstream golden;
    golden << std::ifstream(NRPC_TEST_DATA "/descriptor.txt").rdbuf();
    const std::string path = ::testing::TempDir() + "nrpc-descriptor-actual.txt";
    std::ofstream(path) << Listing();
    EXPECT_EQ(golden.str(), Listing()) << "The whole descriptor as it is now: " << path;
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
    EXPECT_EQ(Get<uint32_t>(Library(), 100), std::size(entries));
    for (size_t i = 0; i < std::size(entries); ++i) {
        EXPECT_EQ(Get<CommandEntry>(Follow(Library(), 108), 4 * i), entries[i]) << i;
    }
    EXPECT_EQ(Get<decltype(&ProcessNotifyLib)>(Library(), 120), &ProcessNotifyLib);
}

} // namespace
} // namespace nrpc

#endif
