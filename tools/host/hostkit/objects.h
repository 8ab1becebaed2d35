// hostkit/objects.h: objects of the library's two data types with its commands as methods, under
// their English names.
//   Lifetime   the constructor command runs in the C++ constructor, the destructor command in the
//              C++ destructor or in Release. The Library outlives the object; no method is running
//              when the object goes.
//   Handlers   a handler belongs to the object from a start or connect that worked until the next
//              one that worked or the object's end; calls under way go on.
//   Threads    methods may be called from any thread, from inside handlers too.
//   Texts      bytes as the host has them (GBK); results of commands that failed are empty options.
//   Errors     what the command answers. A Logical result other than 1 is false.
#pragma once

#include <atomic>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "hostkit/library.h"

namespace nrpc::hostkit {

enum Construction { kConstructed, kNeverConstructed };

class Object {
  public:
    Object(const Object &) = delete;
    Object &operator=(const Object &) = delete;

    // The destructor command, now. Commands may still be called afterwards, as a careless program
    // would; the object has become a dead one.
    void Release();
    CallResult Call(std::string_view command, std::initializer_list<Value> args = {});
    CallResult Call(int32_t command, std::initializer_list<Value> args = {});
    // The member elements, one word each.
    std::vector<HostWord> &Members() { return m_Members; }
    Library &Of() const { return m_Library; }

  protected:
    Object(Library &library, std::string_view englishName, Construction construction);
    ~Object();
    bool Logical(std::string_view command, std::initializer_list<Value> args);
    // Makes the routine the object's only one if `works`, and drops it otherwise.
    bool Adopt(Routine routine, bool works);
    Heap &HostHeap() const { return m_Library.HostHeap(); }

  private:
    int32_t CommandWithFlag(uint16_t flag) const;

    Library &m_Library;
    const DataTypeInfo *m_Type = nullptr;
    std::vector<HostWord> m_Members;
    std::atomic<bool> m_Alive = false;
    std::mutex m_Lock;
    Routine m_Routine; // under m_Lock
};

// Kinds of messages that reach a handler.
enum ServerMessage : int32_t { kClientConnected = 0, kClientDisconnected = 1, kRequest = 2 };
enum ClientMessageKind : int32_t { kConnectionClosed = 0, kDataReceived = 1 };

struct RequestText {
    std::string Code;
    std::string Text;
};

struct RequestBin {
    std::string Code;
    Bytes Content;
};

// A request code, or a client handle.
using Destination = std::variant<std::string, int32_t>;

class Server : public Object {
  public:
    explicit Server(Library &library, Construction construction = kConstructed)
        : Object(library, "NRPCServer", construction) {}

    // `serial` true: one handler call at a time. Left out, the argument is omitted.
    bool StartServer(int32_t port, Handler handler, std::optional<bool> serial = {},
                     Manner manner = kLeavesArguments);
    bool StartServer(int32_t port, HostWord routine, std::optional<bool> serial = {});
    void StopServer();
    bool SetPoolThreadNum(int32_t least, int32_t greatest);
    std::optional<RequestText> GetRequestText(HostWord message);
    std::optional<RequestBin> GetRequestBin(HostWord message);
    bool SendText(const Destination &to, std::string_view text);
    bool SendBinary(const Destination &to, ByteSpan bytes);
    std::optional<int32_t> GetClientHandle(HostWord message);
    std::optional<std::string> GetClientIPAddr(int32_t handle);
    int32_t GetClientCount();
    std::optional<std::vector<int32_t>> GetAllClient();
    void Disconnect(int32_t handle);
    int32_t GetMsgKind(HostWord message);
    CallResult ServerSetTimeout();
};

struct TextReply {
    int32_t Result; // 1: the reply is there, 0: not within the time-out, -1: error
    std::string Text;
};

struct BinReply {
    int32_t Result;
    Bytes Content;
};

class Client : public Object {
  public:
    explicit Client(Library &library, Construction construction = kConstructed)
        : Object(library, "NRPCClient", construction) {}

    // Synchronous, the handler omitted.
    bool ClientConnect(int32_t port, std::string_view address);
    // Asynchronous.
    bool ClientConnect(int32_t port, std::string_view address, Handler handler,
                       Manner manner = kLeavesArguments);
    void ClientdisConnect();
    TextReply SendSynRequestText(std::string_view text, int32_t timeoutMs);
    BinReply SendSynRequestBin(ByteSpan bytes, int32_t timeoutMs);
    bool SendAsynRequestText(std::string_view text);
    bool SendAsynRequestBin(ByteSpan bytes);
    std::optional<std::string> GetResultText(HostWord message);
    std::optional<Bytes> GetResultBin(HostWord message);
    int32_t ClientGetMsgKind(HostWord message);
    // The two commands without an English name.
    CallResult SpareFirst();
    CallResult SpareSecond();
};

} // namespace nrpc::hostkit
