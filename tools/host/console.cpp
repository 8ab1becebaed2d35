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

static void ListClients(Server &server, bool asJson) {
    Json clients = Json::array();
    for (const int32_t handle : server.GetAllClient().value_or(std::vector<int32_t>())) {
        const std::string address = server.GetClientIPAddr(handle).value_or("gone");
        clients.push_back({{"handle", handle}, {"address", address}});
        if (!asJson) {
            PrintLine("handle {}  {}", handle, address);
        }
    }
    PrintEvent(asJson, {{"event", "clients"}, {"clients", clients}}, "{}",
               Counted(clients.size(), "client"));
}

static void PrintAddress(Server &server, int32_t handle, bool asJson) {
    const std::optional<std::string> address = server.GetClientIPAddr(handle);
    PrintEvent(
        asJson,
        {{"event", "ip"}, {"handle", handle}, {"address", address ? Json(*address) : Json()}},
        "ip {}: {}", handle, address.value_or("no such client"));
}

static void Push(Server &server, int32_t handle, std::string_view text, bool asJson) {
    text.remove_prefix(std::min<size_t>(text.size(), 1)); // the blank behind the handle
    const bool queued = server.SendText(handle, GbkFromUtf8(std::string(text)));
    PrintEvent(asJson, {{"event", "push"}, {"handle", handle}, {"text", text}, {"queued", queued}},
               "push {}: {}", handle, queued ? "queued" : "refused");
}

static void Kick(Server &server, int32_t handle, bool asJson) {
    const bool was = server.GetClientIPAddr(handle).has_value();
    server.Disconnect(handle);
    PrintEvent(asJson, {{"event", "kick"}, {"handle", handle}, {"disconnected", was}},
               "kick {}: {}", handle, was ? "disconnected" : "no such client");
}

bool RunConsoleLine(Server &server, std::string_view line, bool asJson) {
    const std::string_view command = TakeWord(&line);
    if (command.empty()) {
        return true;
    }
    if (command == "stop") {
        return false;
    }
    if (command == "clients") {
        ListClients(server, asJson);
        return true;
    }
    const bool wantsHandle = command == "ip" || command == "push" || command == "kick";
    const std::optional<int32_t> handle = wantsHandle ? TakeHandle(&line) : std::nullopt;
    if (!handle.has_value()) {
        constexpr const char *kHelp = "clients, ip HANDLE, push HANDLE TEXT, kick HANDLE, stop";
        PrintEvent(asJson, {{"event", "help"}, {"text", kHelp}}, "{}", kHelp);
    } else if (command == "ip") {
        PrintAddress(server, *handle, asJson);
    } else if (command == "push") {
        Push(server, *handle, line, asJson);
    } else {
        Kick(server, *handle, asJson);
    }
    return true;
}

} // namespace nrpc::tool
