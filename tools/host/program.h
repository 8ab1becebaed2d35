// program.h: what the subcommands of nrpc-host share.
#pragma once

#include <chrono>
#include <string>
#include <string_view>

#include <CLI/CLI.hpp>

#include "output.h"

namespace nrpc::tool {

// kInterrupted: a call or a connect, by Ctrl-C or SIGTERM; numbered as shells do.
enum ExitStatus { kDone = 0, kFailed = 1, kBadArguments = 2, kInterrupted = 130 };

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

// What the help of a subcommand ends with: examples, a line each and without the program's name,
// and the exit statuses.
void EndHelp(CLI::App &app, std::initializer_list<std::string_view> examples);

// Test bytes of which no two neighbouring stretches are alike: a lost or doubled packet shows.
hostkit::Bytes CountedBytes(size_t count);

inline double MsSince(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start)
        .count();
}

} // namespace nrpc::tool
