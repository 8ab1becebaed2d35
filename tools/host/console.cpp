#include "console.h"

#include <algorithm>
#include <charconv>
#include <optional>

#include "program.h"

namespace nrpc::tool {

using namespace hostkit;

// The next word of the line, which loses it.
static std::string_view TakeWord(std::string_view *line) {
    line->remove_prefix(std::min(line->find_first_not_of(' '), line->size()));
    const std::string_view word = line->substr(0, line->find(' '));
    line->remove_prefix(word.size());
    return word;
}

static std::optional<int32_t> TakeHandle(std::string_view *line) {
    const std::string_view word = TakeWord(line);
    int32_t handle = 0;
    const auto parsed = std::from_chars(word.data(), word.data() + word.size(), handle);
    if (parsed.ec != std::errc() || parsed.ptr != word.data() + word.size()) {
        return std::nullopt;
    }
    return handle;
}

static std::string AddressOf(Server &server, int32_t handle) {
    return server.GetClientIPAddr(handle).value_or("no such client");
}

static void ListClients(Server &server) {
    const auto handles = server.GetAllClient().value_or(std::vector<int32_t>());
    for (const int32_t handle : handles) {
        PrintLine("handle {}  {}", handle, AddressOf(server, handle));
    }
    PrintLine("{}", Counted(handles.size(), "client"));
}

static void Push(Server &server, int32_t handle, std::string_view text) {
    text.remove_prefix(std::min<size_t>(text.size(), 1)); // the blank behind the handle
    const bool queued = server.SendText(handle, GbkFromUtf8(std::string(text)));
    PrintLine("push {}: {}", handle, queued ? "queued" : "refused");
}

static void Kick(Server &server, int32_t handle) {
    const bool was = server.GetClientIPAddr(handle).has_value();
    server.Disconnect(handle);
    PrintLine("kick {}: {}", handle, was ? "disconnected" : "no such client");
}

bool RunConsoleLine(Server &server, std::string_view line) {
    const std::string_view command = TakeWord(&line);
    if (command.empty()) {
        return true;
    }
    if (command == "stop") {
        return false;
    }
    if (command == "clients") {
        ListClients(server);
        return true;
    }
    const bool wantsHandle = command == "ip" || command == "push" || command == "kick";
    const std::optional<int32_t> handle = wantsHandle ? TakeHandle(&line) : std::nullopt;
    if (!handle.has_value()) {
        PrintLine("clients, ip HANDLE, push HANDLE TEXT, kick HANDLE, stop");
    } else if (command == "ip") {
        PrintLine("ip {}: {}", *handle, AddressOf(server, *handle));
    } else if (command == "push") {
        Push(server, *handle, line);
    } else {
        Kick(server, *handle);
    }
    return true;
}

} // namespace nrpc::tool
