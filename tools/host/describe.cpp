// nrpc-host describe: everything that the host reads from the descriptor.
#include <memory>

#include "program.h"

namespace nrpc::tool {

using namespace hostkit;

static std::string TypeName(uint32_t typeCode) {
    switch (typeCode) {
    case kNoType:
        return "none";
    case kInteger:
        return "Integer";
    case kText:
        return "Text";
    case kByteSet:
        return "ByteSet";
    case kLogical:
        return "Logical";
    case kSubroutinePointer:
        return "SubroutinePointer";
    case kAnyType:
        return "AnyType";
    default:
        return fmt::format("{:#010x}", typeCode);
    }
}

static std::string TextOf(const char *gbk) {
    return gbk == nullptr ? "" : Utf8FromGbk(gbk);
}

// --- the descriptor as a tree -----------------------------------------------------------------

static Json DescribeArgs(const CommandInfo &command) {
    Json args = Json::array();
    for (int32_t i = 0; i < command.ArgCount; ++i) {
        const ArgInfo &arg = command.Args[i];
        args.push_back({{"Name", TextOf(arg.Name)},
                        {"Type", TypeName(arg.TypeCode)},
                        {"Optional", (arg.Flags & kArgOptional) != 0},
                        {"Output", (arg.Flags & kArgOutput) != 0},
                        {"OutputArray", (arg.Flags & kArgOutputArray) != 0},
                        {"DefaultValue", arg.DefaultValue},
                        {"Description", TextOf(arg.Description)}});
    }
    return args;
}

static Json DescribeCommand(const LibraryInfo &info, int32_t index) {
    const CommandInfo &command = info.Commands[index];
    return {{"Index", index},
            {"Name", TextOf(command.Name)},
            {"EnglishName", TextOf(command.EnglishName)},
            {"Hidden", (command.Flags & kCmdHidden) != 0},
            {"Constructor", (command.Flags & kCmdConstructor) != 0},
            {"Destructor", (command.Flags & kCmdDestructor) != 0},
            {"Flags", fmt::format("{:#06x}", command.Flags)},
            {"CategoryIndex", command.CategoryIndex},
            {"Level", command.Level},
            {"ReturnType", TypeName(command.ReturnType)},
            {"Description", TextOf(command.Description)},
            {"Args", DescribeArgs(command)}};
}

static Json DescribeType(const LibraryInfo &info, const DataTypeInfo &type) {
    Json elements = Json::array();
    for (int32_t i = 0; i < type.ElementCount; ++i) {
        const ElementInfo &element = type.Elements[i];
        elements.push_back({{"Name", TextOf(element.Name)},
                            {"EnglishName", TextOf(element.EnglishName)},
                            {"Type", TypeName(element.TypeCode)},
                            {"State", element.State},
                            {"DefaultValue", element.DefaultValue},
                            {"Description", TextOf(element.Description)}});
    }
    Json commands = Json::array();
    for (int32_t i = 0; i < type.CommandCount; ++i) {
        commands.push_back(DescribeCommand(info, type.CommandIndexes[i]));
    }
    return {{"Name", TextOf(type.Name)},
            {"EnglishName", TextOf(type.EnglishName)},
            {"Description", TextOf(type.Description)},
            {"State", fmt::format("{:#010x}", type.State)},
            {"Elements", elements},
            {"Commands", commands}};
}

static Json Describe(const LibraryInfo &info) {
    Json types = Json::array();
    for (int32_t i = 0; i < info.TypeCount; ++i) {
        types.push_back(DescribeType(info, info.Types[i]));
    }
    const Json maker = {
        {"Name", TextOf(info.MakerName)},         {"Postcode", TextOf(info.MakerPostcode)},
        {"Address", TextOf(info.MakerAddress)},   {"Phone", TextOf(info.MakerPhone)},
        {"Fax", TextOf(info.MakerFax)},           {"Email", TextOf(info.MakerEmail)},
        {"HomePage", TextOf(info.MakerHomePage)}, {"Note", TextOf(info.MakerNote)}};
    return {{"DisplayName", TextOf(info.DisplayName)},
            {"Version",
             fmt::format("{}.{}.{}", info.MajorVersion, info.MinorVersion, info.BuildNumber)},
            {"LibraryId", TextOf(info.LibraryId)},
            {"FormatNumber", info.FormatNumber},
            {"HostVersion1", fmt::format("{}.{}", info.HostVersion1Major, info.HostVersion1Minor)},
            {"HostVersion2", fmt::format("{}.{}", info.HostVersion2Major, info.HostVersion2Minor)},
            {"Language", info.Language},
            {"State", fmt::format("{:#010x}", info.State)},
            {"Description", TextOf(info.Description)},
            {"Maker", maker},
            {"CategoryCount", info.CategoryCount},
            {"CommandCount", info.CommandCount},
            {"Types", types}};
}

// --- the tree for reading ---------------------------------------------------------------------

static std::string Str(const Json &record, const char *field) {
    return record.at(field).get<std::string>();
}

static void PrintText(int indent, const std::string &text) {
    if (!text.empty()) {
        PrintLine("{:{}}{}", "", indent, text);
    }
}

static void PrintCommand(const Json &command) {
    std::string notes;
    for (const char *flag : {"Constructor", "Destructor", "Hidden"}) {
        if (command.at(flag).get<bool>()) {
            notes += fmt::format("  [{}]", flag);
        }
    }
    PrintLine("  {:>2}  {}  {}{}", command.at("Index").get<int>(), Str(command, "EnglishName"),
              Str(command, "Name"), notes);
    PrintText(6, Str(command, "Description"));
    int number = 0;
    for (const Json &arg : command.at("Args")) {
        PrintLine("      {}. {}  {}{}{}{}", ++number, Str(arg, "Name"), Str(arg, "Type"),
                  arg.at("Optional").get<bool>() ? ", optional" : "",
                  arg.at("Output").get<bool>() ? ", output" : "",
                  arg.at("OutputArray").get<bool>() ? ", output array" : "");
        PrintText(9, Str(arg, "Description"));
    }
    if (Str(command, "ReturnType") != "none") {
        PrintLine("      -> {}", Str(command, "ReturnType"));
    }
}

static void PrintReadable(const Json &library) {
    PrintLine("{} {}", Str(library, "DisplayName"), Str(library, "Version"));
    PrintText(0, Str(library, "Description"));
    for (const auto &[name, value] : library.items()) {
        if (!value.is_structured() && name != "DisplayName" && name != "Version" &&
            name != "Description") {
            PrintLine("{}: {}", name, value.is_string() ? value.get<std::string>() : value.dump());
        }
    }
    for (const auto &[name, value] : library.at("Maker").items()) {
        PrintLine("Maker {}: {}", name, value.get<std::string>());
    }
    for (const Json &type : library.at("Types")) {
        PrintLine("\n{}  {}  (State {})", Str(type, "EnglishName"), Str(type, "Name"),
                  Str(type, "State"));
        PrintText(0, Str(type, "Description"));
        int number = 0;
        for (const Json &element : type.at("Elements")) {
            PrintLine("  element {}  {}  {}  {}", number++, Str(element, "EnglishName"),
                      Str(element, "Name"), Str(element, "Type"));
            PrintText(6, Str(element, "Description"));
        }
        for (const Json &command : type.at("Commands")) {
            PrintCommand(command);
        }
    }
}

void AddDescribe(CLI::App &app, Program &program) {
    auto json = std::make_shared<bool>(false);
    CLI::App *describe =
        app.add_subcommand("describe", "Prints what the library tells the host about itself.");
    describe->add_flag("--json", *json, "for programs");
    EndHelp(*describe, {"describe", "describe --json", "--library ./libnrpc.so describe"});
    describe->callback([&program, json] {
        Heap heap;
        const Library library(LibraryPath(program), heap);
        const Json tree = Describe(library.Info());
        if (*json) {
            PrintLine("{}", tree.dump(2));
        } else {
            PrintReadable(tree);
        }
    });
}

} // namespace nrpc::tool
