// hostkit/library.h: a loaded copy of the library, seen as the host sees it: two exports, the
// descriptor, and the entry functions that the descriptor points to.
//   Lifetime   the library stays mapped when the object goes. Its service function then answers 0.
//              Two objects on one path are one library: the service handed over last holds.
//   Threads    commands may be called from any thread.
//   Errors     std::runtime_error for a library that cannot be used, std::invalid_argument for a
//              call that the host's compiler would have refused.
#pragma once

#include <atomic>
#include <initializer_list>
#include <string>
#include <string_view>
#include <unordered_map>

#include "host/library_info.h"
#include "hostkit/heap.h"
#include "hostkit/routines.h"
#include "hostkit/value.h"

namespace nrpc::hostkit {

struct CallResult {
    int32_t Number;     // kUntouchedNumber when the command wrote no result
    bool Written;       // the command wrote bytes 0 to 3 of the result cell
    bool WrittenBeyond; // it wrote others as well, which no command may
};

// What the result cell holds before each call.
inline constexpr int32_t kUntouchedNumber = -0x5A5A5A5B;

class Library {
  public:
    enum HandOver { kHandOverService, kKeepService };

    // Loads `path` and hands over `heap` as its service, unless told to keep it back. `heap` must
    // outlive the object.
    Library(const std::string &path, Heap &heap, HandOver handOver = kHandOverService,
            Manner serviceManner = kLeavesArguments);
    ~Library();
    Library(const Library &) = delete;
    Library &operator=(const Library &) = delete;

    const LibraryInfo &Info() const { return *m_Info; }
    Heap &HostHeap() const { return m_Heap; }
    const std::string &Path() const { return m_Path; }

    // The host's notification.
    int32_t Notify(int32_t code, HostWord param1, HostWord param2) const;
    void HandOverService() const;

    // The index of the command with that English name.
    int32_t CommandIndex(std::string_view englishName) const;
    // Calls a command for the object with these members. `args` are the declared arguments, as many
    // as the descriptor says; their types are not looked at.
    CallResult Call(int32_t command, HostWord *members,
                    std::initializer_list<Value> args = {}) const;
    CallResult Call(std::string_view englishName, HostWord *members,
                    std::initializer_list<Value> args = {}) const;

    // Where the stack stands, modulo 16, when a command is called from now on: 0, 4, 8 or 12. On
    // i386 only; the host aligns to 4 bytes. 0 is what compilers do.
    void SetStackOffset(int offset);

  private:
    std::string m_Path;
    Heap &m_Heap;
    void *m_Handle;
    const LibraryInfo *m_Info = nullptr;
    int32_t (*m_Notify)(int32_t, HostWord, HostWord) = nullptr;
    Routine m_Service;
    std::unordered_map<std::string_view, int32_t> m_Commands; // names in the descriptor
    std::atomic<int> m_StackOffset{0};
};

// The library of this program: beside it, or in ../lib or ../lib/i386-linux-gnu from there as in an
// installed tree, else its bare name for the loader's search.
std::string FindLibrary();

} // namespace nrpc::hostkit
