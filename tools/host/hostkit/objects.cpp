#include "hostkit/objects.h"

#include <stdexcept>

#include "hostkit/cancellation.h"

namespace nrpc::hostkit {

// --- any object -------------------------------------------------------------------------------

static const DataTypeInfo *FindType(const LibraryInfo &info, std::string_view englishName) {
    for (int32_t i = 0; i < info.TypeCount; ++i) {
        if (englishName == info.Types[i].EnglishName) {
            return &info.Types[i];
        }
    }
    throw std::runtime_error("the library has no data type " + std::string(englishName));
}

Object::Object(Library &library, std::string_view englishName, Construction construction)
    : m_Library(library), m_Type(FindType(library.Info(), englishName)),
      m_Members(static_cast<size_t>(m_Type->ElementCount)) {
    if (construction == kConstructed) {
        m_Library.Call(CommandWithFlag(kCmdConstructor), m_Members.data());
        m_Alive = true;
    }
}

Object::~Object() {
    const HoldOffCancel shield; // nothing may unwind out of a destructor
    Release();
}

void Object::Release() {
    if (m_Alive.exchange(false)) {
        m_Library.Call(CommandWithFlag(kCmdDestructor), m_Members.data());
    }
}

CallResult Object::Call(std::string_view command, std::initializer_list<Value> args) {
    return m_Library.Call(command, m_Members.data(), args);
}

CallResult Object::Call(int32_t command, std::initializer_list<Value> args) {
    return m_Library.Call(command, m_Members.data(), args);
}

bool Object::Logical(std::string_view command, std::initializer_list<Value> args) {
    return Call(command, args).Number == 1;
}

bool Object::Adopt(Routine routine, bool works) {
    if (works) {
        const HoldOffCancel shield;
        const std::lock_guard<std::mutex> guard(m_Lock);
        std::swap(m_Routine, routine);
    }
    return works;
}

int32_t Object::CommandWithFlag(uint16_t flag) const {
    for (int32_t i = 0; i < m_Type->CommandCount; ++i) {
        const int32_t command = m_Type->CommandIndexes[i];
        if ((m_Library.Info().Commands[command].Flags & flag) != 0) {
            return command;
        }
    }
    throw std::runtime_error("the data type has no constructor or no destructor");
}

// --- server -----------------------------------------------------------------------------------

static Value DestinationValue(const Destination &to) {
    return std::holds_alternative<int32_t>(to) ? Value::Integer(std::get<int32_t>(to))
                                               : Value::Text(std::get<std::string>(to));
}

bool Server::StartServer(int32_t port, Handler handler, std::optional<bool> serial, Manner manner) {
    Routine routine(std::move(handler), manner);
    const bool works = StartServer(port, routine.Address(), serial);
    return Adopt(std::move(routine), works);
}

bool Server::StartServer(int32_t port, HostWord routine, std::optional<bool> serial) {
    return Logical("StartServer",
                   {Value::Integer(port), Value::Subroutine(routine),
                    serial.has_value() ? Value::Logical(*serial) : Value::Omitted()});
}

void Server::StopServer() {
    Call("StopServer");
}

bool Server::SetPoolThreadNum(int32_t least, int32_t greatest) {
    return Logical("SetPoolThreadNum", {Value::Integer(least), Value::Integer(greatest)});
}

std::optional<RequestText> Server::GetRequestText(HostWord message) {
    TextVariable code(HostHeap());
    TextVariable text(HostHeap());
    if (!Logical("GetRequestText",
                 {Value::Address(message), Value::Output(code), Value::Output(text)})) {
        return std::nullopt;
    }
    return RequestText{code.Get(), text.Get()};
}

std::optional<RequestBin> Server::GetRequestBin(HostWord message) {
    TextVariable code(HostHeap());
    ByteSetVariable content(HostHeap());
    if (!Logical("GetRequestBin",
                 {Value::Address(message), Value::Output(code), Value::Output(content)})) {
        return std::nullopt;
    }
    return RequestBin{code.Get(), content.Get()};
}

bool Server::SendText(const Destination &to, std::string_view text) {
    return Logical("SendText", {DestinationValue(to), Value::Text(text)});
}

bool Server::SendBinary(const Destination &to, ByteSpan bytes) {
    return Logical("SendBinary", {DestinationValue(to), Value::ByteSet(bytes)});
}

std::optional<int32_t> Server::GetClientHandle(HostWord message) {
    IntegerVariable handle(HostHeap());
    if (!Logical("GetClientHandle", {Value::Address(message), Value::Output(handle)})) {
        return std::nullopt;
    }
    return handle.Get();
}

std::optional<std::string> Server::GetClientIPAddr(int32_t handle) {
    TextVariable address(HostHeap());
    if (!Logical("GetClientIPAddr", {Value::Integer(handle), Value::Output(address)})) {
        return std::nullopt;
    }
    return address.Get();
}

int32_t Server::GetClientCount() {
    return Call("GetClientCount").Number;
}

std::optional<std::vector<int32_t>> Server::GetAllClient() {
    IntegerArrayVariable handles(HostHeap());
    if (!Logical("GetAllClient", {Value::Output(handles)})) {
        return std::nullopt;
    }
    return handles.Get();
}

void Server::Disconnect(int32_t handle) {
    Call("Disconnect", {Value::Integer(handle)});
}

int32_t Server::GetMsgKind(HostWord message) {
    return Call("GetMsgKind", {Value::Address(message)}).Number;
}

CallResult Server::ServerSetTimeout() {
    return Call("ServerSetTimeout");
}

// --- client -----------------------------------------------------------------------------------

bool Client::ClientConnect(int32_t port, std::string_view address) {
    return Adopt({}, Logical("ClientConnect", {Value::Integer(port), Value::Text(address),
                                               Value::Logical(true), Value::Omitted()}));
}

bool Client::ClientConnect(int32_t port, std::string_view address, Handler handler, Manner manner) {
    Routine routine(std::move(handler), manner);
    const bool works =
        Logical("ClientConnect", {Value::Integer(port), Value::Text(address), Value::Logical(false),
                                  Value::Subroutine(routine.Address())});
    return Adopt(std::move(routine), works);
}

void Client::ClientdisConnect() {
    Call("ClientdisConnect");
}

TextReply Client::SendSynRequestText(std::string_view text, int32_t timeoutMs) {
    TextVariable reply(HostHeap());
    const int32_t result = Call("SendSynRequestText", {Value::Text(text), Value::Output(reply),
                                                       Value::Integer(timeoutMs)})
                               .Number;
    return {result, reply.Get()};
}

BinReply Client::SendSynRequestBin(ByteSpan bytes, int32_t timeoutMs) {
    ByteSetVariable reply(HostHeap());
    const int32_t result = Call("SendSynRequestBin", {Value::ByteSet(bytes), Value::Output(reply),
                                                      Value::Integer(timeoutMs)})
                               .Number;
    return {result, reply.Get()};
}

bool Client::SendAsynRequestText(std::string_view text) {
    return Logical("SendAsynRequestText", {Value::Text(text)});
}

bool Client::SendAsynRequestBin(ByteSpan bytes) {
    return Logical("SendAsynRequestBin", {Value::ByteSet(bytes)});
}

std::optional<std::string> Client::GetResultText(HostWord message) {
    TextVariable text(HostHeap());
    if (!Logical("GetResultText", {Value::Address(message), Value::Output(text)})) {
        return std::nullopt;
    }
    return text.Get();
}

std::optional<Bytes> Client::GetResultBin(HostWord message) {
    ByteSetVariable content(HostHeap());
    if (!Logical("GetResultBin", {Value::Address(message), Value::Output(content)})) {
        return std::nullopt;
    }
    return content.Get();
}

int32_t Client::ClientGetMsgKind(HostWord message) {
    return Call("ClientGetMsgKind", {Value::Address(message)}).Number;
}

static constexpr int32_t kSpareFirst = 25;
static constexpr int32_t kSpareSecond = 26;

CallResult Client::SpareFirst() {
    return Call(kSpareFirst);
}
CallResult Client::SpareSecond() {
    return Call(kSpareSecond);
}

} // namespace nrpc::hostkit
