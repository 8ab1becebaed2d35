// host/library_info.h: the constant descriptor from which the host learns everything: the two data
// types, the 29 commands with their arguments and help texts, and the entry functions.
//   Layout     fixed to the byte; every integer little-endian, every pointer 32 bits, every text
//              GBK with a zero byte. An empty text is a pointer to a zero byte, never null.
//   Lifetime   constant data, never changed, never freed.
#pragma once

#include "host/frame.h"

namespace nrpc {

struct ArgInfo {
    const char *Name;
    const char *Description;
    uint32_t Reserved;
    uint32_t TypeCode;
    int32_t DefaultValue;
    uint32_t Flags; // ArgFlag
};

enum ArgFlag : uint32_t { kArgInput = 0, kArgOptional = 2, kArgOutput = 4, kArgOutputArray = 8 };

struct CommandInfo {
    const char *Name;
    const char *EnglishName;
    const char *Description;
    int16_t CategoryIndex;
    uint16_t Flags; // CommandFlag
    uint32_t ReturnType;
    uint16_t Reserved1;
    int16_t Level;
    uint16_t Reserved2;
    uint16_t Reserved3;
    int32_t ArgCount;
    const ArgInfo *Args;
};

enum CommandFlag : uint16_t {
    kCmdHidden = 0x0004,
    kCmdDestructor = 0x0100,
    kCmdConstructor = 0x0200,
    kCmdEveryRow = 0xC000,
};

struct ElementInfo {
    uint32_t TypeCode;
    uint32_t Reserved;
    const char *Name;
    const char *EnglishName;
    const char *Description;
    uint32_t State;
    int32_t DefaultValue;
};

struct DataTypeInfo {
    const char *Name;
    const char *EnglishName;
    const char *Description;
    int32_t CommandCount;
    const int32_t *CommandIndexes;
    uint32_t State;
    uint32_t Reserved[6];
    int32_t ElementCount;
    const ElementInfo *Elements;
};

struct LibraryInfo {
    uint32_t FormatNumber;
    const char *LibraryId;
    int32_t MajorVersion;
    int32_t MinorVersion;
    int32_t BuildNumber;
    int32_t HostVersion1Major;
    int32_t HostVersion1Minor;
    int32_t HostVersion2Major;
    int32_t HostVersion2Minor;
    const char *DisplayName;
    int32_t Language;
    const char *Description;
    uint32_t State;
    const char *MakerName;
    const char *MakerPostcode;
    const char *MakerAddress;
    const char *MakerPhone;
    const char *MakerFax;
    const char *MakerEmail;
    const char *MakerHomePage;
    const char *MakerNote;
    int32_t TypeCount;
    const DataTypeInfo *Types;
    int32_t CategoryCount;
    const char *CategoryList;
    int32_t CommandCount;
    const CommandInfo *Commands;
    const CommandEntry *RunFunctions;
    const void *Reserved1;
    const void *Reserved2;
    int32_t (*NotifyFunction)(int32_t code, HostWord param1, HostWord param2);
    const void *Reserved3[9];
};

#if defined(__i386__)
static_assert(sizeof(ArgInfo) == 24 && offsetof(ArgInfo, Flags) == 20);
static_assert(sizeof(CommandInfo) == 36 && offsetof(CommandInfo, ReturnType) == 16 &&
              offsetof(CommandInfo, Level) == 22 && offsetof(CommandInfo, Args) == 32);
static_assert(sizeof(ElementInfo) == 28 && offsetof(ElementInfo, State) == 20);
static_assert(sizeof(DataTypeInfo) == 56 && offsetof(DataTypeInfo, ElementCount) == 48);
static_assert(sizeof(LibraryInfo) == 160 && offsetof(LibraryInfo, DisplayName) == 36 &&
              offsetof(LibraryInfo, TypeCount) == 84 &&
              offsetof(LibraryInfo, NotifyFunction) == 120);
#endif

inline constexpr int32_t kServerCommandCount = 16;
inline constexpr int32_t kClientCommandCount = 13;
inline constexpr int32_t kCommandCount = kServerCommandCount + kClientCommandCount;

} // namespace nrpc

// The descriptor, always the same address. May be called at any time.
NRPC_EXPORT const nrpc::LibraryInfo *GetNewInf();
