#include "host/library_info.h"

#include <array>
#include <cstddef>
#include <iterator>
#include <span>

#include "client_commands/commands.h"
#include "server_commands/connected_clients.h"
#include "server_commands/lifecycle.h"
#include "server_commands/request_reply.h"

// The texts stand here in UTF-8; g++ turns them into the host's GBK (-fexec-charset=GBK). clang++
// cannot, so what it builds of this file is good for warnings only.
#if !defined(__clang__)
static_assert(sizeof("远") == 3 && static_cast<unsigned char>("远"[0]) == 0xD4 &&
                  static_cast<unsigned char>("远"[1]) == 0xB6,
              "compile this file with -fexec-charset=GBK");
#endif

namespace nrpc {

// Values that the host asks for and interprets.
constexpr uint32_t kFormatNumber = 20000101;
constexpr uint32_t kHostState = 0xC0000000;
constexpr uint32_t kElementState = 3;
constexpr int32_t kHostVersionMajor = 3;
constexpr int32_t kHostVersionMinor = 7;
constexpr int32_t kGbkChinese = 1;
constexpr int16_t kNoCategory = -1;
constexpr int16_t kLevel = 1;

constexpr uint16_t kOrdinary = kCmdEveryRow;
constexpr uint16_t kHidden = kCmdEveryRow | kCmdHidden;
constexpr uint16_t kConstructor = kHidden | kCmdConstructor;
constexpr uint16_t kDestructor = kHidden | kCmdDestructor;

// ---- Arguments ----

// Texts that several arguments share.
constexpr char kMessageOfClient[] =
    "客户端所发消息的地址。该方法必须在用户的处理函数内调用，本参数就是该处理函数的参数";
constexpr char kMessageForClient[] =
    "触发客户端处理函数的消息地址。该方法必须在该处理函数内调用，本参数就是该处理函数的参数";
constexpr char kRequestCode[] =
    "请求的来源，唯一标识某个客户端的某一次请求，不能更改。本参数用于接收该方法的执行结果";
constexpr char kRequest[] = "请求的全部内容。本参数用于接收该方法的执行结果";
constexpr char kDestination[] =
    "信息的目的端，可以是请求代码（文本型），也可以是客户句柄（整数型）。"
    "使用请求代码时，目的端就是该请求的来源";
constexpr char kRequestContent[] = "客户端发送的请求信息的内容";
constexpr char kServerResult[] = "服务器返回的结果内容";
constexpr char kTimeout[] = "最长等待时间，以毫秒为单位，必须大于或等于0";

constexpr ArgInfo Arg(const char *name, uint32_t typeCode, uint32_t flags,
                      const char *description) {
    return {name, description, 0, typeCode, 0, flags};
}

constexpr ArgInfo s_SetWorkFun_ArgInfo[] = {
    Arg("端口号", kInteger, kArgInput, "本参数作为服务启动的端口号"),
    Arg("处理函数", kSubroutinePointer, kArgInput,
        "服务器收到客户端的请求时，以及有客户端连接或断开连接时，本支持库都会自动调用该函数，"
        "在该函数内可以取得消息的类型和内容。本支持库会在多个线程内调用该函数，"
        "因此在该函数内修改全局变量时，必须使用编程环境提供的多线程加锁机制。"
        "该函数有一个整数型参数，即消息地址，通过它可以取得完整的消息"),
    // The wording is fixed. fnStartServer works the other way round: true, or no argument, makes
    // the calls serial, and only an explicit false makes them parallel.
    Arg("处理方式", kLogical, kArgOptional,
        "处理函数是否可以并行处理各个客户端的请求。真为并行处理，性能最好，支持的客户端最多，"
        "响应最快，为默认方式；假为串行处理，性能有限，但不会因并发访问而发生冲突"),
};
constexpr ArgInfo s_SetPool_ArgInfo[] = {
    Arg("最小线程数", kInteger, kArgInput, "线程池内的线程数量的最小值"),
    Arg("最大线程数", kInteger, kArgInput, "线程池内的线程数量的最大值"),
};
constexpr ArgInfo s_ClientRequestText_ArgInfo[] = {
    Arg("消息地址", kInteger, kArgInput, kMessageOfClient),
    Arg("请求代码", kText, kArgOutput, kRequestCode),
    Arg("请求信息", kText, kArgOutput, kRequest),
};
constexpr ArgInfo s_ClientRequestBin_ArgInfo[] = {
    Arg("消息地址", kInteger, kArgInput, kMessageOfClient),
    Arg("请求代码", kText, kArgOutput, kRequestCode),
    Arg("请求信息", kByteSet, kArgOutput, kRequest),
};
constexpr ArgInfo s_ServerSendResultText_ArgInfo[] = {
    Arg("目的端", kAnyType, kArgInput, kDestination),
    Arg("发送信息", kText, kArgInput, "服务器所要发送的文本形式的信息"),
};
constexpr ArgInfo s_ServerSendResultBin_ArgInfo[] = {
    Arg("目的端", kAnyType, kArgInput, kDestination),
    Arg("发送信息", kByteSet, kArgInput, "服务器所要发送的字节集形式的结果信息"),
};
constexpr ArgInfo s_GetClientHandle_ArgInfo[] = {
    Arg("消息地址", kInteger, kArgInput, kMessageOfClient),
    Arg("客户句柄", kInteger, kArgOutput,
        "发送该消息的客户端的句柄。本参数用于接收该方法的执行结果"),
};
constexpr ArgInfo s_ClientIPAddr_ArgInfo[] = {
    Arg("客户句柄", kInteger, kArgInput, "客户端的句柄值"),
    Arg("客户IP地址", kText, kArgOutput, "客户端的IP地址。本参数用于接收该方法的执行结果"),
};
constexpr ArgInfo s_GetAllClient_ArgInfo[] = {
    Arg("客户句柄数组", kInteger, kArgOutputArray,
        "与本服务器连接的所有客户端的句柄数组。本参数用于接收该方法的执行结果"),
};
constexpr ArgInfo s_Disconnect_ArgInfo[] = {
    Arg("客户句柄", kInteger, kArgInput, "欲断开的客户端的句柄"),
};
constexpr ArgInfo s_ServerGetMsgKind_ArgInf[] = {
    Arg("消息地址", kInteger, kArgInput, "触发服务器端处理函数的消息地址"),
};
constexpr ArgInfo s_ClientConnect_ArgInfo[] = {
    Arg("端口号", kInteger, kArgInput, "服务器的端口号，取值范围为0到65535"),
    Arg("服务器地址", kText, kArgInput, "服务器的IP地址、域名或局域网内的计算机名"),
    Arg("请求方式", kLogical, kArgInput,
        "真为同步请求方式，此时忽略最后一个参数；假为异步请求方式。"
        "同步请求方式的客户端不能发送异步请求，异步请求方式的客户端也不能发送同步请求"),
    Arg("处理函数", kSubroutinePointer, kArgOptional,
        "在同步请求方式下本参数没有意义，可以省略。在异步请求方式下不能省略；"
        "客户端收到数据，或与服务器的连接断开时，本支持库会自动调用该函数。"
        "该函数有一个整数型参数，即触发该函数的消息地址，通过它可以取得消息的类型和内容"),
};
constexpr ArgInfo s_SendSynRequestText_ArgInfo[] = {
    Arg("请求文本", kText, kArgInput, "客户端发送的请求文本的内容"),
    Arg("结果文本", kText, kArgOutput, kServerResult),
    Arg("超时", kInteger, kArgInput, kTimeout),
};
constexpr ArgInfo s_SendSynRequestBin_ArgInfo[] = {
    Arg("请求字节集", kByteSet, kArgInput, "客户端发送的请求字节集的内容"),
    Arg("结果字节集", kByteSet, kArgOutput, kServerResult),
    Arg("超时", kInteger, kArgInput, kTimeout),
};
constexpr ArgInfo s_SendAsynRequestText_ArgInfo[] = {
    Arg("请求信息", kText, kArgInput, kRequestContent),
};
constexpr ArgInfo s_SendAsynRequestBin_ArgInfo[] = {
    Arg("请求信息", kByteSet, kArgInput, kRequestContent),
};
constexpr ArgInfo s_GetResultText_ArgInfo[] = {
    Arg("消息地址", kInteger, kArgInput, kMessageForClient),
    Arg("结果信息", kText, kArgOutput, kServerResult),
};
constexpr ArgInfo s_GetResultBin_ArgInfo[] = {
    Arg("消息地址", kInteger, kArgInput, kMessageForClient),
    Arg("结果信息", kByteSet, kArgOutput, kServerResult),
};
constexpr ArgInfo s_ClientGetMsgKind_ArgInf[] = {
    Arg("消息地址", kInteger, kArgInput, "触发客户端处理函数的消息地址"),
};

// ---- Commands ----

constexpr char kGetResultHelp[] =
    "在异步请求方式下取得服务器返回的结果，必须在客户端的处理函数内调用。"
    "如果正确得到服务器返回的结果，该方法返回真，否则返回假";

enum class Owner { Server, Client };

// All that there is to say of a command. The host's tables below are computed from these rows.
struct CommandRow {
    int32_t Index; // by which the host calls it
    Owner Type;
    const char *Name;
    const char *EnglishName;
    uint16_t Flags;
    uint32_t ReturnType;
    std::span<const ArgInfo> Args;
    CommandEntry Entry;
    const char *Description;
};

constexpr std::span<const ArgInfo> kNoArgs;

constexpr CommandRow s_Rows[] = {
    {0, Owner::Server, "服务器的构造函数", "CreateServer", kConstructor, kNoType, kNoArgs,
     fnCreateServer, ""},
    {1, Owner::Server, "启动", "StartServer", kOrdinary, kLogical, s_SetWorkFun_ArgInfo,
     fnStartServer,
     "启动服务。启动后可以接收客户端发来的消息，并可以向客户端发送回复。"
     "该方法执行成功返回真，失败返回假"},
    {2, Owner::Server, "停止", "StopServer", kOrdinary, kNoType, kNoArgs, fnStopServer,
     "停止正在工作的服务。由于要释放大量的系统资源，需要等待片刻，"
     "在此期间请勿强行关闭主程序。应在关闭主程序之前，在主线程内同步调用该方法"},
    {3, Owner::Server, "置线程池大小", "SetPoolThreadNum", kOrdinary, kLogical, s_SetPool_ArgInfo,
     fnSetPoolThreadNum,
     "设置每个线程池内的线程数量的最大值和最小值，必须在服务器启动之前设置。"
     "服务共有四个线程池：一个接收线程池、一个发送线程池和两个处理线程池。"
     "线程数量随负载自动增减，因此该方法设置的是供本支持库选择的线程数量范围。"
     "如果不设置，默认最小值为5，最大值为20。最小值不能小于1。"
     "该方法执行成功返回真，失败返回假"},
    {4, Owner::Server, "取请求文本", "GetRequestText", kOrdinary, kLogical,
     s_ClientRequestText_ArgInfo, fnGetRequestText,
     "取得客户发出的请求信息文本。如果正确得到客户的请求信息，该方法返回真，否则返回假"},
    {5, Owner::Server, "取请求字节集", "GetRequestBin", kOrdinary, kLogical,
     s_ClientRequestBin_ArgInfo, fnGetRequestBin,
     "取得客户发出的请求信息字节集。如果正确得到客户的请求信息，该方法返回真，否则返回假"},
    {6, Owner::Server, "发送文本", "SendText", kOrdinary, kLogical, s_ServerSendResultText_ArgInfo,
     fnSendResultText, "服务程序发送文本数据到客户端。该方法执行成功返回真，失败返回假"},
    {7, Owner::Server, "发送字节集", "SendBinary", kOrdinary, kLogical,
     s_ServerSendResultBin_ArgInfo, fnSendResultBin,
     "服务程序发送字节集数据到客户端。该方法执行成功返回真，失败返回假"},
    {8, Owner::Server, "取客户句柄", "GetClientHandle", kOrdinary, kLogical,
     s_GetClientHandle_ArgInfo, fnGetClientHandle,
     "根据客户端请求消息的地址取得该客户端的句柄。"
     "该方法执行成功返回真；如果该客户端已不可用或发生意外情况，返回假"},
    {9, Owner::Server, "取客户IP", "GetClientIPAddr", kOrdinary, kLogical, s_ClientIPAddr_ArgInfo,
     fnGetClientIPAddr,
     "根据客户句柄取得对应客户端的IP地址。"
     "该方法执行成功返回真；如果该客户端已不可用或发生意外情况，返回假"},
    {10, Owner::Server, "取客户数", "GetClientCount", kOrdinary, kInteger, kNoArgs,
     fnGetClientCount,
     "取得当前与服务器连接的客户端的数量。该方法执行成功返回大于或等于0的整数，出错返回-1"},
    {11, Owner::Server, "取客户数组", "GetAllClient", kOrdinary, kLogical, s_GetAllClient_ArgInfo,
     fnGetAllClient, "取得当前与服务器连接的所有客户端的句柄。该方法执行成功返回真，失败返回假"},
    {12, Owner::Server, "断开连接", "Disconnect", kOrdinary, kNoType, s_Disconnect_ArgInfo,
     fnDisconnect, "断开与一个客户的连接"},
    {13, Owner::Server, "服务析构函数", "ServerRelease", kDestructor, kNoType, kNoArgs,
     fnServerRelease, ""},
    {14, Owner::Client, "客户端的构造函数", "CreateClient", kConstructor, kNoType, kNoArgs,
     fnCreateClient, ""},
    {15, Owner::Client, "连接", "ClientConnect", kOrdinary, kLogical, s_ClientConnect_ArgInfo,
     fnClientConnect, "连接到指定地址和端口的服务器。该方法连接成功返回真，失败返回假"},
    {16, Owner::Client, "断开", "ClientdisConnect", kOrdinary, kNoType, kNoArgs, fnClientdisConnect,
     "切断与服务器的连接"},
    {17, Owner::Client, "同步发送文本", "SendSynRequestText", kOrdinary, kInteger,
     s_SendSynRequestText_ArgInfo, fnSendSynRequestText,
     "客户端向服务器发送文本形式的同步请求，"
     "收到服务器返回的结果后该方法才会返回，否则一直阻塞到超时为止。"
     "执行成功并收到结果返回1；在超时时间内没有收到结果返回0；因其他错误没有收到结果返回-1"},
    {18, Owner::Client, "同步发送字节集", "SendSynRequestBin", kOrdinary, kInteger,
     s_SendSynRequestBin_ArgInfo, fnSendSynRequestBin,
     "客户端向服务器发送字节集形式的同步请求，"
     "收到服务器返回的结果后该方法才会返回，否则一直阻塞到超时为止。"
     "执行成功并收到结果返回1；在超时时间内没有收到结果返回0；因其他错误没有收到结果返回-1"},
    {19, Owner::Client, "异步发送文本", "SendAsynRequestText", kOrdinary, kLogical,
     s_SendAsynRequestText_ArgInfo, fnSendAsynRequestText,
     "客户端向服务器发送文本形式的异步请求。该方法执行成功返回真，失败返回假"},
    {20, Owner::Client, "异步发送字节集", "SendAsynRequestBin", kOrdinary, kLogical,
     s_SendAsynRequestBin_ArgInfo, fnSendAsynRequestBin,
     "客户端向服务器发送字节集形式的异步请求。该方法执行成功返回真，失败返回假"},
    {21, Owner::Client, "取返回文本", "GetResultText", kOrdinary, kLogical, s_GetResultText_ArgInfo,
     fnGetResultText, kGetResultHelp},
    {22, Owner::Client, "取返回字节集", "GetResultBin", kOrdinary, kLogical, s_GetResultBin_ArgInfo,
     fnGetResultBin, kGetResultHelp},
    {23, Owner::Client, "客户端的析构函数", "ReleaseClient", kDestructor, kNoType, kNoArgs,
     fnReleaseClient, "如果客户端没有关闭的话，自动关闭"},
    {24, Owner::Client, "取消息类型", "ClientGetMsgKind", kOrdinary, kInteger,
     s_ClientGetMsgKind_ArgInf, fnClientGetMsgKind,
     "取得触发客户端处理函数的消息的类型，必须在该处理函数内调用。"
     "该方法返回0表示服务器关闭或连接意外断开；返回1表示客户端收到数据；返回-1表示出错"},
    {25, Owner::Client, "备用", "", kHidden, kLogical, kNoArgs, fnClientDemo2, ""},
    {26, Owner::Client, "备用", "", kHidden, kLogical, kNoArgs, fnClientDemo3, ""},
    {27, Owner::Server, "取消息类型", "GetMsgKind", kOrdinary, kInteger, s_ServerGetMsgKind_ArgInf,
     fnGetMsgKind,
     "取得触发服务器端处理函数的消息的类型。"
     "该方法返回0表示有客户端连接到服务器；"
     "返回1表示有客户端断开连接，包括主动断开和意外断开；"
     "返回2表示有客户端向服务器发送了字节流；返回-1表示出错"},
    {28, Owner::Server, "置超时时间", "ServerSetTimeout", kHidden, kLogical, kNoArgs, fnClientDemo4,
     "设置网络超时时间。不同的网络差别很大，局域网与互联网之间尤其如此，"
     "因此超时时间应与所在网络相适应。超时时间是指服务器与客户端之间一次交互的超时时间；"
     "一次普通的通信需要经过若干次交互，每次交互最多传送约10K字节，并且都要检查是否超时。"
     "该设置对性能影响很大。服务器的超时时间默认为300毫秒"},
};

// ---- The host's tables, computed from the rows ----

constexpr CommandInfo InfoOf(const CommandRow &row) {
    return {
        .Name = row.Name,
        .EnglishName = row.EnglishName,
        .Description = row.Description,
        .CategoryIndex = kNoCategory,
        .Flags = row.Flags,
        .ReturnType = row.ReturnType,
        .Reserved1 = 0,
        .Level = kLevel,
        .Reserved2 = 0,
        .Reserved3 = 0,
        .ArgCount = static_cast<int32_t>(row.Args.size()),
        .Args = row.Args.data(), // null where there are none
    };
}

template <typename Cell>
constexpr std::array<Cell, kCommandCount> Column(Cell (*cellOf)(const CommandRow &row)) {
    std::array<Cell, kCommandCount> column = {};
    for (size_t i = 0; i < column.size(); ++i) {
        column[i] = cellOf(s_Rows[i]);
    }
    return column;
}

template <size_t Count>
constexpr std::array<int32_t, Count> IndexesOf(Owner type) {
    std::array<int32_t, Count> indexes = {};
    size_t next = 0;
    for (const CommandRow &row : s_Rows) {
        if (row.Type == type) {
            indexes[next++] = row.Index; // one too many does not compile
        }
    }
    return indexes;
}

constexpr std::array<CommandInfo, kCommandCount> s_Commands = Column<CommandInfo>(InfoOf);
constexpr std::array<CommandEntry, kCommandCount> s_RunFunc =
    Column<CommandEntry>([](const CommandRow &row) { return row.Entry; });
constexpr auto s_nServerCmdIndex = IndexesOf<kServerCommandCount>(Owner::Server);
constexpr auto s_nClientCmdIndex = IndexesOf<kClientCommandCount>(Owner::Client);

constexpr bool ArgIsSound(const ArgInfo &arg) {
    const bool value =
        arg.TypeCode == kInteger || arg.TypeCode == kText || arg.TypeCode == kByteSet;
    switch (arg.Flags) {
    case kArgInput:
    case kArgOptional:
        return value || arg.TypeCode == kLogical || arg.TypeCode == kSubroutinePointer ||
               arg.TypeCode == kAnyType;
    case kArgOutput:
        return value;
    case kArgOutputArray:
        return arg.TypeCode == kInteger;
    default:
        return false;
    }
}

constexpr bool RowsAreSound() {
    int32_t index = 0;
    for (const CommandRow &row : s_Rows) {
        const bool lifecycle = row.Flags == kConstructor || row.Flags == kDestructor;
        const bool result = row.ReturnType == kLogical || row.ReturnType == kInteger;
        if (row.Index != index++ || (row.ReturnType != kNoType && (lifecycle || !result)) ||
            (row.Flags != kOrdinary && !row.Args.empty())) {
            return false;
        }
        for (const ArgInfo &arg : row.Args) {
            if (!ArgIsSound(arg)) {
                return false;
            }
        }
    }
    return true;
}

static_assert(std::size(s_Rows) == kCommandCount && RowsAreSound());
static_assert(s_nServerCmdIndex == std::array<int32_t, kServerCommandCount>{
                                       0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 27, 28});
static_assert(s_nClientCmdIndex == std::array<int32_t, kClientCommandCount>{
                                       14, 15, 16, 17, 18, 19, 20, 21, 22, 23, 24, 25, 26});

// ---- Types and library ----

constexpr ElementInfo g_ServerElement[] = {
    {kInteger, 0, "服务器的数据结构指针", "ServerDataPtr", "", kElementState, 0},
};
constexpr ElementInfo g_ClientElement[] = {
    {kInteger, 0, "已经废弃，不用", "ConnectFlag", "1为已经成功连接到服务器 0为没有连接到服务器",
     kElementState, 0},
    {kInteger, 0, "客户端数据结构指针", "ClientDataPtr", "", kElementState, 0},
};

constexpr DataTypeInfo s_Types[] = {
    {
        .Name = "远程服务",
        .EnglishName = "NRPCServer",
        .Description = "该数据类型提供对服务器端程序的支持",
        .CommandCount = std::size(s_nServerCmdIndex),
        .CommandIndexes = s_nServerCmdIndex.data(),
        .State = kHostState,
        .Reserved = {},
        .ElementCount = std::size(g_ServerElement),
        .Elements = g_ServerElement,
    },
    {
        .Name = "请求客户端",
        .EnglishName = "NRPCClient",
        .Description = "该数据类型提供对客户端程序的支持",
        .CommandCount = std::size(s_nClientCmdIndex),
        .CommandIndexes = s_nClientCmdIndex.data(),
        .State = kHostState,
        .Reserved = {},
        .ElementCount = std::size(g_ClientElement),
        .Elements = g_ClientElement,
    },
};

constexpr LibraryInfo s_LibraryInfo = {
    .FormatNumber = kFormatNumber,
    .LibraryId = "7E41B0C95D2A4F86A1C3E9D05B7F2468",
    .MajorVersion = NRPC_VERSION_MAJOR,
    .MinorVersion = NRPC_VERSION_MINOR,
    .BuildNumber = NRPC_VERSION_PATCH,
    .HostVersion1Major = kHostVersionMajor,
    .HostVersion1Minor = kHostVersionMinor,
    .HostVersion2Major = kHostVersionMajor,
    .HostVersion2Minor = kHostVersionMinor,
    .DisplayName = "远程服务支持库",
    .Language = kGbkChinese,
    .Description =
        "本支持库支持编写服务器端程序和客户端程序。客户端发送请求，服务器收到请求后，"
        "自动运行预先设置的处理函数，在其中可以分析请求、计算结果，并将结果发回该客户端。"
        "服务器模型支持多用户、多任务，内部由多个线程池协同收发数据，"
        "适用于网络中间件、远程调用服务器和分布式计算",
    .State = kHostState,
    .MakerName = "NRPC 开发组",
    .MakerPostcode = "",
    .MakerAddress = "",
    .MakerPhone = "",
    .MakerFax = "",
    .MakerEmail = "",
    .MakerHomePage = "",
    .MakerNote = "欢迎使用远程服务支持库，祝您编程愉快！",
    .TypeCount = std::size(s_Types),
    .Types = s_Types,
    .CategoryCount = 0,
    .CategoryList = "\0", // an empty list: two zero bytes
    .CommandCount = kCommandCount,
    .Commands = s_Commands.data(),
    .RunFunctions = s_RunFunc.data(),
    .Reserved1 = nullptr,
    .Reserved2 = nullptr,
    .NotifyFunction = ProcessNotifyLib,
    .Reserved3 = {},
};

} // namespace nrpc

NRPC_HOST_ENTRY const nrpc::LibraryInfo *GetNewInf() {
    return &nrpc::s_LibraryInfo;
}
