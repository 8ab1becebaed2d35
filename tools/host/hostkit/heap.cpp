#include "hostkit/heap.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include <fmt/format.h>

#include "hostkit/cancellation.h"

namespace nrpc::hostkit {

static constexpr int kNewByte = 0xCD;
static constexpr int kFreedByte = 0xDD;
static constexpr int kGuardByte = 0xFB;
static constexpr size_t kGuardLen = 16; // behind every block
static constexpr size_t kMaxKeptBlocks = 1024;
static constexpr size_t kMaxKeptBytes = 4 * 1024 * 1024;

static bool HoldsOnly(const void *bytes, size_t length, int value) {
    const auto *at = static_cast<const uint8_t *>(bytes);
    return std::all_of(at, at + length, [value](uint8_t byte) { return byte == value; });
}

namespace {

struct Guard {
    explicit Guard(std::mutex &mutex) : Lock(mutex) {}
    HoldOffCancel Shield; // outlives the lock
    std::lock_guard<std::mutex> Lock;
};

} // namespace

Heap::~Heap() {
    for (const auto &[address, block] : m_Live) {
        std::free(const_cast<void *>(address));
    }
    for (const Freed &freed : m_KeptBack) {
        std::free(freed.Address);
    }
}

HostWord Heap::Serve(HostWord code, HostWord param1, HostWord param2) {
    const Guard guard(m_Lock);
    switch (code) {
    case kHostAlloc:
        ++m_Calls.Alloc;
        if (m_FailIn == 1) {
            m_FailIn = m_FailForEver ? 1 : 0;
            return 0;
        }
        if (m_FailIn > 1) {
            --m_FailIn;
        }
        return reinterpret_cast<HostWord>(AllocLocked(param1));
    case kHostFree:
        ++m_Calls.Free;
        FreeLocked(reinterpret_cast<void *>(param1));
        return 0;
    case kHostFreeArray:
        ++m_Calls.FreeArray;
        m_Calls.LastArrayType = param1;
        FreeLocked(reinterpret_cast<void *>(param2));
        return 0;
    default:
        m_Violations.push_back({kUnknownService, reinterpret_cast<void *>(code), 0});
        return 0;
    }
}

void *Heap::Alloc(size_t size) {
    const Guard guard(m_Lock);
    return AllocLocked(size);
}

void Heap::Free(void *block) {
    const Guard guard(m_Lock);
    FreeLocked(block);
}

void *Heap::AllocLocked(size_t size) {
    if (size > SIZE_MAX - kGuardLen) {
        return nullptr;
    }
    auto *block = static_cast<uint8_t *>(std::malloc(size + kGuardLen));
    if (block == nullptr) {
        return nullptr;
    }
    if (m_Poison) {
        std::memset(block, kNewByte, size);
    }
    std::memset(block + size, kGuardByte, kGuardLen);
    m_Live[block] = {block, size, ++m_LastSequence};
    m_LiveBytes += size;
    return block;
}

void Heap::FreeLocked(void *block) {
    if (block == nullptr) {
        return;
    }
    const auto live = m_Live.find(block);
    if (live == m_Live.end()) {
        const auto before = std::find_if(m_KeptBack.begin(), m_KeptBack.end(),
                                         [block](const Freed &f) { return f.Address == block; });
        const bool again = before != m_KeptBack.end();
        m_Violations.push_back(
            {again ? kDoubleFree : kForeignFree, block, again ? before->Sequence : 0});
        return;
    }
    const auto [address, size, sequence] = live->second;
    if (!HoldsOnly(static_cast<uint8_t *>(block) + size, kGuardLen, kGuardByte)) {
        m_Violations.push_back({kOverrun, address, sequence});
    }
    if (m_Poison) {
        std::memset(block, kFreedByte, size);
    }
    m_Live.erase(live);
    m_LiveBytes -= size;
    m_KeptBack.push_back({block, size, sequence, m_Poison});
    m_KeptBytes += size;
    while (m_KeptBack.size() > kMaxKeptBlocks || m_KeptBytes > kMaxKeptBytes) {
        Freed &oldest = m_KeptBack.front();
        CheckFreed(oldest);
        m_KeptBytes -= oldest.Size;
        std::free(oldest.Address);
        m_KeptBack.pop_front();
    }
}

// Reports a late write once: afterwards the block counts as not filled.
void Heap::CheckFreed(Freed &freed) {
    if (freed.Filled && !HoldsOnly(freed.Address, freed.Size, kFreedByte)) {
        m_Violations.push_back({kWriteAfterFree, freed.Address, freed.Sequence});
        freed.Filled = false;
    }
}

void Heap::FailAllocation(uint64_t nth, bool forEver) {
    const Guard guard(m_Lock);
    m_FailIn = nth;
    m_FailForEver = forEver;
}

void Heap::StopFailing() {
    FailAllocation(0);
}

void Heap::SetPoison(bool on) {
    const Guard guard(m_Lock);
    m_Poison = on;
}

size_t Heap::LiveBlockCount() const {
    const Guard guard(m_Lock);
    return m_Live.size();
}

size_t Heap::LiveByteCount() const {
    const Guard guard(m_Lock);
    return m_LiveBytes;
}

std::vector<Heap::Block> Heap::LiveBlocks() const {
    const Guard guard(m_Lock);
    std::vector<Block> blocks;
    blocks.reserve(m_Live.size());
    for (const auto &[address, block] : m_Live) {
        blocks.push_back(block);
    }
    std::sort(blocks.begin(), blocks.end(),
              [](const Block &a, const Block &b) { return a.Sequence < b.Sequence; });
    return blocks;
}

std::optional<size_t> Heap::SizeOf(const void *address) const {
    const Guard guard(m_Lock);
    const auto live = m_Live.find(address);
    return live == m_Live.end() ? std::nullopt : std::optional(live->second.Size);
}

Heap::Calls Heap::CallCounts() const {
    const Guard guard(m_Lock);
    return m_Calls;
}

std::vector<Heap::Violation> Heap::Violations() {
    const Guard guard(m_Lock);
    for (Freed &freed : m_KeptBack) {
        CheckFreed(freed);
    }
    return m_Violations;
}

void Heap::ReportBadValue(const void *address) {
    const Guard guard(m_Lock);
    const auto live = m_Live.find(address);
    m_Violations.push_back({kBadValue, address, live == m_Live.end() ? 0 : live->second.Sequence});
}

std::string ToText(const Heap::Violation &violation) {
    static constexpr const char *kNames[] = {"foreign free",     "double free",     "overrun",
                                             "write after free", "unknown service", "bad value"};
    const auto address = reinterpret_cast<HostWord>(violation.Address);
    if (violation.Kind == Heap::kUnknownService) {
        return fmt::format("unknown service {}", address);
    }
    return violation.Sequence == 0 ? fmt::format("{} at {:#x}", kNames[violation.Kind], address)
                                   : fmt::format("{} of block {} at {:#x}", kNames[violation.Kind],
                                                 violation.Sequence, address);
}

} // namespace nrpc::hostkit
