// torture.h: an interposer between the library under torture and the C library, and scenes to play.
//
//   Where      only calls that return into the watched code are touched. A place is that address as
//              an offset and the name of the thread ("host" for the host's own).
//   Counting   by place: in threaded code the order of all calls differs from run to run. Calls
//              are counted, and fail, only while armed.
//   Blocks     have a guard behind them and are kept back after the free, so that a late write and
//              a second free are noticed.
//   Threads    every function may be called from any thread.
#pragma once

#include <cerrno>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace nrpc::torture {

// --- what can be done -------------------------------------------------------------------------

// Outcomes of a call besides error numbers.
enum Outcome : int { kAsUsual = 0, kOneByte = -1, kEndOfStream = -2, kHeldUp = -3 };
// What may be noticed of it: a failure, nothing when it comes once, nothing ever.
enum Healing { kHurts, kHealsOnce, kHeals };

struct Way {
    std::string_view Kind; // call and outcome
    int Outcome;
    Healing Heals;
    std::string_view Call() const { return Kind.substr(0, Kind.find('.')); }
};

inline constexpr Way kWays[] = {
    {"malloc.nomem", ENOMEM, kHurts},
    {"malloc.held", kHeldUp, kHurts},
    {"realloc.nomem", ENOMEM, kHurts},
    {"pthread_create.again", EAGAIN, kHurts},
    {"pthread_create.held", kHeldUp, kHurts},
    {"pthread_attr_init.nomem", ENOMEM, kHurts},
    {"pthread_mutex_init.nomem", ENOMEM, kHurts},
    {"pthread_setspecific.nomem", ENOMEM, kHurts},
    {"send.reset", ECONNRESET, kHurts},
    {"send.nobufs", ENOBUFS, kHurts},
    {"send.byte", kOneByte, kHealsOnce},
    {"send.block", EAGAIN, kHealsOnce},
    {"send.held", kHeldUp, kHurts},
    {"recv.reset", ECONNRESET, kHurts},
    {"recv.byte", kOneByte, kHealsOnce},
    {"recv.end", kEndOfStream, kHurts},
    {"recv.block", EAGAIN, kHealsOnce},
    {"recv.held", kHeldUp, kHurts},
    {"poll.nomem", ENOMEM, kHurts},
    {"poll.intr", EINTR, kHeals},
    {"accept4.emfile", EMFILE, kHealsOnce},
    {"accept4.aborted", ECONNABORTED, kHurts},
    {"accept4.held", kHeldUp, kHurts},
    {"socket.emfile", EMFILE, kHurts},
    {"bind.inuse", EADDRINUSE, kHurts},
    {"listen.inuse", EADDRINUSE, kHurts},
    {"connect.refused", ECONNREFUSED, kHurts},
    {"connect.held", kHeldUp, kHurts},
    {"fcntl.emfile", EMFILE, kHeals},
    {"setsockopt.nomem", ENOMEM, kHeals},
    {"getsockopt.nobufs", ENOBUFS, kHurts},
    {"getsockname.nobufs", ENOBUFS, kHurts},
    {"getpeername.notconn", ENOTCONN, kHurts},
    {"getaddrinfo.again", EAGAIN, kHurts},
    {"shutdown.held", kHeldUp, kHurts},
    {"close.held", kHeldUp, kHurts},
    {"host.nomem", ENOMEM, kHurts}, // the host's own service: its heap does that
};

struct Place {
    std::string Call;
    uint32_t Offset;
    std::string Thread;
    auto operator<=>(const Place &) const = default;
};

struct Fault {
    Place Where;
    int Outcome;
    unsigned Nth;
    bool ForEver; // from the Nth call on
};

// --- the interposer ---------------------------------------------------------------------------

// [begin, end) is the library's code; `fault` null: count only.
void Watch(uintptr_t begin, uintptr_t end, const Fault *fault);
void Arm(bool on);
// From now on the library's pauses of a second and more last a tenth.
void Hurry();
std::map<Place, unsigned> Hits();
bool HasFired();
// Blocks and descriptors that the library has not given back, one line each.
std::vector<std::string> Outstanding();
// Blocks and descriptors that it used or gave back without having them, writes beside a block.
std::vector<std::string> Misdeeds();

// --- the scenes -------------------------------------------------------------------------------

inline constexpr std::string_view kScenes[] = {"life", "bursts", "inside"};

struct Result {
    bool Holds; // else it has printed "fell: <why>" for each thing that must not be
    bool Fired;
    std::map<Place, unsigned> Hits;
};
// Plays it in this process, which is to end without clearing up. With `exact` the fault must not be
// noticeable.
Result PlayScene(std::string_view name, const Fault *fault, bool exact);

} // namespace nrpc::torture
