// program.h: what the subcommands of nrpc-host share.
#pragma once

#include <chrono>
#include <cstdio>
#include <string>
#include <string_view>

#include <fmt/format.h>
#include <CLI/CLI.hpp>

#include "hostkit.h"

namespace nrpc::tool {

enum ExitStatus { kDone = 0, kFailed = 1, kBadArguments = 2 };

// Filled by the command line; each subcommand runs as its callback and leaves its status. Bad
// arguments that the parser cannot see are thrown as CLI::ValidationError, other failures as
// exceptions of any kind.
struct Program {
    std::string LibraryPath; // empty: the library of this program
    int Status = kDone;
};

std::string LibraryPath(const Program &program);

void AddCall(CLI::App &app, Program &program);
void AddDemo(CLI::App &app, Program &program);
void AddDemoClient(CLI::App &app, Program &program);
void AddDemoServer(CLI::App &app, Program &program);
void AddDescribe(CLI::App &app, Program &program);
void AddLoad(CLI::App &app, Program &program);
void AddServe(CLI::App &app, Program &program);

// One line of output, written as a whole: several threads may print.
template <typename... Args>
void PrintLine(fmt::format_string<Args...> format, Args &&...args) {
    const std::string line = fmt::format(format, std::forward<Args>(args)...) + '\n';
    std::fwrite(line.data(), 1, line.size(), stdout);
    std::fflush(stdout);
}

// "1 client", "2 clients"
std::string Counted(uint64_t count, std::string_view noun, std::string_view plural = {});

// The beginning of a payload of the host, quoted and readable.
std::string Excerpt(hostkit::ByteSpan payload);

// Test bytes of which no two neighbouring stretches are alike: a lost or doubled packet shows.
hostkit::Bytes CountedBytes(size_t count);

inline double MsSince(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start)
        .count();
}

} // namespace nrpc::tool
