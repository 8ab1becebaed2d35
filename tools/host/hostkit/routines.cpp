#include "hostkit/routines.h"

#include <array>
#include <atomic>
#include <memory>
#include <mutex>
#include <stdexcept>

#include "hostkit/cancellation.h"

// What every ready-made routine does. Not noexcept: a thread may be ended inside.
extern "C" nrpc::HostWord HostkitRunSlot(size_t slot, nrpc::HostWord first, nrpc::HostWord second,
                                         nrpc::HostWord third);

namespace nrpc::hostkit {

#if defined(__i386__)
static constexpr size_t kMannerCount = 3;
#else
static constexpr size_t kMannerCount = 1;
#endif

// Slots lie in this order: the handlers of each manner, then the services of each manner.
static constexpr size_t kFirstServiceSlot = kMannerCount * kHandlerSlotCount;
static constexpr size_t kSlotCount = kFirstServiceSlot + kMannerCount * kServiceSlotCount;

namespace {

struct Slot {
    // What a call runs; null: nothing. Read by every call.
    std::atomic<const Service *> Bound{nullptr};
    // Calls under way. A call counts itself before it reads Bound.
    std::atomic<int> Inside{0};
    // Under the table's lock.
    bool Taken = false;
    uint64_t LastUse = 0;            // 0: never bound
    std::unique_ptr<Service> Target; // kept after the release, for calls under way
};

struct SlotTable {
    std::mutex Lock;
    uint64_t Uses = 0;
    std::array<Slot, kSlotCount> Slots;
};

struct CallInside {
    explicit CallInside(Slot &slot) : Of(slot) { Of.Inside.fetch_add(1); }
    ~CallInside() { Of.Inside.fetch_sub(1); }
    Slot &Of;
};

} // namespace

// Never destroyed: handlers may still run while the process exits.
static SlotTable &Table() {
    static auto *s_Table = new SlotTable;
    return *s_Table;
}

// --- the ready-made routines ------------------------------------------------------------------

template <size_t Slot>
static void LeavingHandler(HostWord message) {
    HostkitRunSlot(Slot, message, 0, 0);
}

template <size_t Slot>
static HostWord LeavingService(HostWord code, HostWord param1, HostWord param2) {
    return HostkitRunSlot(Slot, code, param1, param2);
}

#if defined(__i386__)

template <size_t Slot>
__attribute__((stdcall)) static void PoppingHandler(HostWord message) {
    HostkitRunSlot(Slot, message, 0, 0);
}

template <size_t Slot>
__attribute__((stdcall)) static HostWord PoppingService(HostWord code, HostWord param1,
                                                        HostWord param2) {
    return HostkitRunSlot(Slot, code, param1, param2);
}

// Two rows of entries, 16 bytes apart, that push their slot and go on together. On the stack then:
// slot, return address, the arguments.
static constexpr size_t kSpoilingEntryLen = 16;
static_assert(kHandlerSlotCount == 64 && kServiceSlotCount == 16 && 2 * kHandlerSlotCount == 128 &&
              kFirstServiceSlot + 2 * kServiceSlotCount == 224);
asm(R"(
    .pushsection .text
    .hidden HostkitSpoilingHandlers
    .globl HostkitSpoilingHandlers
    .hidden HostkitSpoilingServices
    .globl HostkitSpoilingServices
    .hidden HostkitRunSlot

    .balign 16
HostkitSpoilingHandlers:
    .set .Lslot, 128
    .rept 64
    pushl $.Lslot
    jmp .Lhandler
    .balign 16
    .set .Lslot, .Lslot + 1
    .endr
HostkitSpoilingServices:
    .set .Lslot, 224
    .rept 16
    pushl $.Lslot
    jmp .Lservice
    .balign 16
    .set .Lslot, .Lslot + 1
    .endr

.Lhandler:
    call .Lrun
    ret $4
.Lservice:
    call .Lrun
    ret $12

# Runs the slot (4(%esp) at entry), takes it off the stack, and spoils all but the result.
.Lrun:
    pushl %ebp
    movl %esp, %ebp
    andl $-16, %esp
    pushl 24(%ebp)
    pushl 20(%ebp)
    pushl 16(%ebp)
    pushl 8(%ebp)
    call HostkitRunSlot
    movl %ebp, %esp
    popl %ebp
    popl %ecx
    addl $4, %esp
    pushl $0x0c7f
    fldcw (%esp)
    movl $0x9fc0, (%esp)
    ldmxcsr (%esp)
    addl $4, %esp
    fldpi
    std
    movl $0x0badb001, %ebx
    movl $0x0bad5001, %esi
    movl $0x0badd001, %edi
    movl $0x0badbb01, %ebp
    movl $0x0badd101, %edx
    jmp *%ecx
    .popsection
)");
extern "C" __attribute__((visibility("hidden"))) const char HostkitSpoilingHandlers[];
extern "C" __attribute__((visibility("hidden"))) const char HostkitSpoilingServices[];

#endif

template <size_t Slot>
static HostWord AddressOfSlot() {
    constexpr bool kIsService = Slot >= kFirstServiceSlot;
    constexpr size_t kPlace = kIsService ? Slot - kFirstServiceSlot : Slot;
    constexpr size_t kPerManner = kIsService ? kServiceSlotCount : kHandlerSlotCount;
    constexpr size_t kManner = kPlace / kPerManner;
    if constexpr (kManner == kLeavesArguments && kIsService) {
        return reinterpret_cast<HostWord>(&LeavingService<Slot>);
    } else if constexpr (kManner == kLeavesArguments) {
        return reinterpret_cast<HostWord>(&LeavingHandler<Slot>);
    }
#if defined(__i386__)
    else if constexpr (kManner == kPopsArguments && kIsService) {
        return reinterpret_cast<HostWord>(&PoppingService<Slot>);
    } else if constexpr (kManner == kPopsArguments) {
        return reinterpret_cast<HostWord>(&PoppingHandler<Slot>);
    } else {
        return reinterpret_cast<HostWord>(kIsService ? HostkitSpoilingServices
                                                     : HostkitSpoilingHandlers) +
               kPlace % kPerManner * kSpoilingEntryLen;
    }
#endif
}

template <size_t... Slots>
static std::array<HostWord, kSlotCount> AddressesOf(std::index_sequence<Slots...>) {
    return {AddressOfSlot<Slots>()...};
}

static HostWord AddressOf(size_t slot) {
    static const auto s_Addresses = AddressesOf(std::make_index_sequence<kSlotCount>());
    return s_Addresses[slot];
}

// --- binding ----------------------------------------------------------------------------------

// The slot longest unused, and none that a call is still inside of: its address may be known to
// somebody who calls late.
static size_t Bind(Service service, size_t first, size_t perManner, Manner manner) {
    if (static_cast<size_t>(manner) >= kMannerCount) {
        throw std::invalid_argument("this machine has only routines that leave their arguments");
    }
    auto target = std::make_unique<Service>(std::move(service));
    const HoldOffCancel shield;
    SlotTable &table = Table();
    std::unique_ptr<Service> old; // may hold anything: destroyed without the lock
    const std::lock_guard<std::mutex> guard(table.Lock);
    const size_t begin = first + static_cast<size_t>(manner) * perManner;
    size_t best = begin + perManner;
    for (size_t i = begin; i < begin + perManner; ++i) {
        const Slot &slot = table.Slots[i];
        if (!slot.Taken && slot.Inside.load() == 0 &&
            (best == begin + perManner || slot.LastUse < table.Slots[best].LastUse)) {
            best = i;
        }
    }
    if (best == begin + perManner) {
        throw std::runtime_error("every routine slot is bound");
    }
    Slot &slot = table.Slots[best];
    slot.Taken = true;
    slot.LastUse = ++table.Uses;
    old = std::exchange(slot.Target, std::move(target));
    slot.Bound.store(slot.Target.get());
    return best;
}

Routine::Routine(Handler handler, Manner manner)
    : m_Slot(Bind(
          [run = std::move(handler)](HostWord message, HostWord, HostWord) {
              run(message);
              return HostWord{0};
          },
          0, kHandlerSlotCount, manner)) {}

Routine::Routine(Service service, Manner manner)
    : m_Slot(Bind(std::move(service), kFirstServiceSlot, kServiceSlotCount, manner)) {}

Routine &Routine::operator=(Routine &&other) noexcept {
    if (this != &other) {
        Release();
        m_Slot = std::exchange(other.m_Slot, kNoSlot);
    }
    return *this;
}

void Routine::Release() noexcept {
    if (m_Slot == kNoSlot) {
        return;
    }
    const HoldOffCancel shield;
    SlotTable &table = Table();
    const std::lock_guard<std::mutex> guard(table.Lock);
    Slot &slot = table.Slots[std::exchange(m_Slot, kNoSlot)];
    slot.Bound.store(nullptr);
    slot.Taken = false;
}

HostWord Routine::Address() const {
    return m_Slot == kNoSlot ? 0 : AddressOf(m_Slot);
}

} // namespace nrpc::hostkit

nrpc::HostWord HostkitRunSlot(size_t slot, nrpc::HostWord first, nrpc::HostWord second,
                              nrpc::HostWord third) {
    nrpc::hostkit::Slot &called = nrpc::hostkit::Table().Slots[slot];
    const nrpc::hostkit::CallInside inside(called);
    const nrpc::hostkit::Service *target = called.Bound.load();
    return target == nullptr ? 0 : (*target)(first, second, third);
}
