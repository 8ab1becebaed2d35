// output.h: what the program prints, for people or with --json for programs. Any thread may print.
// Output that cannot be written ends the process: quietly when its reader has gone, as the signal
// for that does, otherwise with one line on standard error and status 1.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "hostkit.h"

namespace nrpc::tool {

using Json = nlohmann::ordered_json;

// As a whole.
void Print(std::string_view text);

template <typename... Args>
void PrintLine(fmt::format_string<Args...> format, Args &&...args) {
    Print(fmt::format(format, std::forward<Args>(args)...) + '\n');
}

// On one line.
void PrintJson(const Json &object);

// What has happened: a line, or the object in its place.
template <typename... Args>
void PrintEvent(bool asJson, const Json &event, fmt::format_string<Args...> format,
                Args &&...args) {
    if (asJson) {
        PrintJson(event);
    } else {
        PrintLine(format, std::forward<Args>(args)...);
    }
}

// The first line of `what` on standard error; answers `status`.
int Complain(std::string_view what, int status);

// "1 client", "2 clients"
std::string Counted(uint64_t count, std::string_view noun, std::string_view plural = {});

// The beginning of a payload of the host.
struct Excerpt {
    std::string Text; // in UTF-8
    bool IsWhole;

    std::string Quoted() const; // and readable on a terminal
};

Excerpt ExcerptOf(hostkit::ByteSpan payload);

} // namespace nrpc::tool
