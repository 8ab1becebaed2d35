#include "hostkit/library.h"

#include <dlfcn.h>

#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <vector>

namespace nrpc::hostkit {

static constexpr uint32_t kFormatNumber = 20000101;
static constexpr int kUntouchedByte = 0xA5;

// --- calling an entry function ----------------------------------------------------------------

#if defined(__i386__)

// void HostkitCallEntry(entry, result, argCount, args, padding): calls with the three words pushed
// below a boundary of 16 bytes and `padding` more bytes.
asm(R"(
    .pushsection .text
    .hidden HostkitCallEntry
    .globl HostkitCallEntry
    .type HostkitCallEntry, @function
HostkitCallEntry:
    .cfi_startproc
    pushl %ebp
    .cfi_def_cfa_offset 8
    .cfi_offset %ebp, -8
    movl %esp, %ebp
    .cfi_def_cfa_register %ebp
    andl $-16, %esp
    subl 24(%ebp), %esp
    pushl 20(%ebp)
    pushl 16(%ebp)
    pushl 12(%ebp)
    call *8(%ebp)
    leave
    .cfi_def_cfa %esp, 4
    ret
    .cfi_endproc
    .size HostkitCallEntry, . - HostkitCallEntry
    .popsection
)");
extern "C" void HostkitCallEntry(CommandEntry entry, HostValue *result, int32_t argCount,
                                 HostValue *args, int32_t padding);

static void CallEntry(CommandEntry entry, HostValue *result, int32_t argCount, HostValue *args,
                      int stackOffset) {
    HostkitCallEntry(entry, result, argCount, args, (4 - stackOffset) & 15);
}

#else

static void CallEntry(CommandEntry entry, HostValue *result, int32_t argCount, HostValue *args,
                      int) {
    entry(result, argCount, args);
}

#endif

// --- loading ----------------------------------------------------------------------------------

static void *Load(const std::string &path) {
    void *handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (handle == nullptr) {
        throw std::runtime_error(std::string("cannot load the library: ") + dlerror());
    }
    return handle;
}

template <typename Function>
static Function Export(void *handle, const char *name) {
    void *address = dlsym(handle, name);
    if (address == nullptr) {
        throw std::runtime_error(std::string("the library has no export ") + name);
    }
    return reinterpret_cast<Function>(address);
}

Library::Library(const std::string &path, Heap &heap, HandOver handOver, Manner serviceManner)
    : m_Path(path), m_Heap(heap), m_Handle(Load(path)),
      m_Service(Service([&heap](HostWord code, HostWord param1, HostWord param2) {
                    return heap.Serve(code, param1, param2);
                }),
                serviceManner) {
    m_Info = Export<const LibraryInfo *(*)()>(m_Handle, "GetNewInf")();
    m_Notify = Export<decltype(m_Notify)>(m_Handle, "ProcessNotifyLib");
    if (m_Info == nullptr || m_Info->FormatNumber != kFormatNumber) {
        throw std::runtime_error(path + ": not a library of the host's descriptor format");
    }
    for (int32_t i = 0; i < m_Info->CommandCount; ++i) {
        m_Commands.emplace(m_Info->Commands[i].EnglishName, i);
    }
    if (handOver == kHandOverService) {
        HandOverService();
    }
}

Library::~Library() {
    m_Service.Release();
    dlclose(m_Handle);
}

int32_t Library::Notify(int32_t code, HostWord param1, HostWord param2) const {
    return m_Notify(code, param1, param2);
}

void Library::HandOverService() const {
    if (Notify(kNotifyCodeHostService, m_Service.Address(), 0) != 0) {
        throw std::runtime_error(m_Path + ": the library refused the host's service function");
    }
}

// --- commands ---------------------------------------------------------------------------------

int32_t Library::CommandIndex(std::string_view englishName) const {
    const auto found = m_Commands.find(englishName);
    if (found == m_Commands.end() || englishName.empty()) {
        throw std::invalid_argument("no command " + std::string(englishName));
    }
    return found->second;
}

CallResult Library::Call(int32_t command, HostWord *members,
                         std::initializer_list<Value> args) const {
    if (command < 0 || command >= m_Info->CommandCount ||
        m_Info->Commands[command].ArgCount != static_cast<int32_t>(args.size())) {
        throw std::invalid_argument("no such command, or not its number of arguments");
    }
    std::vector<HostValue> cells;
    cells.reserve(1 + args.size());
    cells.push_back(Value::Any(reinterpret_cast<HostWord>(members), kInteger).Cell());
    for (const Value &value : args) {
        cells.push_back(value.Cell());
    }
    HostValue result;
    std::memset(&result, kUntouchedByte, sizeof(result));
    const HostValue untouched = result;
    CallEntry(m_Info->RunFunctions[command], &result, static_cast<int32_t>(cells.size()),
              cells.data(), m_StackOffset.load());
    constexpr size_t kNumberLen = sizeof(result.Number);
    return {result.Number, result.Number != untouched.Number,
            std::memcmp(result.Bytes + kNumberLen, untouched.Bytes + kNumberLen,
                        sizeof(result.Bytes) - kNumberLen) != 0 ||
                result.TypeCode != untouched.TypeCode};
}

CallResult Library::Call(std::string_view englishName, HostWord *members,
                         std::initializer_list<Value> args) const {
    return Call(CommandIndex(englishName), members, args);
}

void Library::SetStackOffset(int offset) {
    if (offset < 0 || offset > 12 || offset % 4 != 0) {
        throw std::invalid_argument("the stack stands at 0, 4, 8 or 12 modulo 16");
    }
    m_StackOffset = offset;
}

std::string FindLibrary() {
    static constexpr const char *kName = "libnrpc.so";
    std::error_code error;
    const auto program = std::filesystem::read_symlink("/proc/self/exe", error).parent_path();
    for (const char *place : {".", "../lib", "../lib/i386-linux-gnu"}) {
        const auto path = program / place / kName;
        if (!error && std::filesystem::exists(path, error)) {
            return path.lexically_normal().string();
        }
        error.clear();
    }
    return kName;
}

} // namespace nrpc::hostkit
