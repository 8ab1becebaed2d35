// nrpc-host: describes the library, serves with it, calls with it, and demonstrates it.
#include <csignal>
#include <sstream>

#include "program.h"

namespace nrpc::tool {

std::string LibraryPath(const Program &program) {
    return program.LibraryPath.empty() ? hostkit::FindLibrary() : program.LibraryPath;
}

void EndHelp(CLI::App &app, std::initializer_list<std::string_view> examples) {
    std::string text = "Examples:\n";
    for (const std::string_view example : examples) {
        text += fmt::format("  nrpc-host {}\n", example);
    }
    text += "\nExit status:\n"
            "  0    it worked\n"
            "  1    something failed\n"
            "  2    the arguments are wrong\n"
            "  130  Ctrl-C or SIGTERM interrupted a call or a connect";
    app.footer(text);
}

hostkit::Bytes CountedBytes(size_t count) {
    hostkit::Bytes bytes(count);
    for (size_t i = 0; i < count; ++i) {
        bytes[i] = static_cast<uint8_t>(i * 31 + i / 251);
    }
    return bytes;
}

static int Main(int argc, char **argv) {
    signal(SIGPIPE, SIG_DFL); // whatever the caller made of it: a gone reader ends the program
    Program program;
    CLI::App app("A stand-in for the host of the remote-service library.", "nrpc-host");
    app.add_option("--library", program.LibraryPath, "the library to load")->type_name("PATH");
    app.set_version_flag("--version", "nrpc-host " NRPC_VERSION, "Print the version and exit");
    AddDescribe(app, program);
    AddServe(app, program);
    AddCall(app, program);
    AddLoad(app, program);
    AddDemo(app, program);
    AddDemoServer(app, program);
    AddDemoClient(app, program);
    EndHelp(app, {"serve --port 7000", "call 127.0.0.1:7000 hello", "describe --json"});
    try {
        app.parse(argc, argv);
        if (app.get_subcommands().empty()) {
            throw CLI::RequiredError("a subcommand (see --help)");
        }
    } catch (const CLI::ParseError &error) {
        if (error.get_exit_code() != 0) {
            return Complain(error.what(), kBadArguments);
        }
        std::ostringstream text; // the help or the version
        app.exit(error, text, text);
        Print(text.str());
    } catch (const std::exception &error) {
        return Complain(error.what(), kFailed);
    }
    return program.Status;
}

} // namespace nrpc::tool

int main(int argc, char **argv) {
    return nrpc::tool::Main(argc, argv);
}
