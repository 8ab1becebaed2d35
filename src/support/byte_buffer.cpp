// Files above 2 GiB open and report their true length also where a long has 32 bits.
#ifndef _FILE_OFFSET_BITS
#define _FILE_OFFSET_BITS 64
#endif

#include "support/byte_buffer.h"

#include <pthread.h>
#include <stdio.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <utility>

namespace nrpc {

MemPool _m_membuf;

static pthread_mutex_t s_PoolLock = PTHREAD_MUTEX_INITIALIZER;
static bool s_ForksWatched; // set in WatchForks, read behind its pthread_once

namespace {

class PoolGuard {
  public:
    [[nodiscard]] PoolGuard() { pthread_mutex_lock(&s_PoolLock); }
    ~PoolGuard() { pthread_mutex_unlock(&s_PoolLock); }
    PoolGuard(const PoolGuard &) = delete;
    PoolGuard &operator=(const PoolGuard &) = delete;
};

} // namespace

static void LockPool() {
    pthread_mutex_lock(&s_PoolLock);
}
static void UnlockPool() {
    pthread_mutex_unlock(&s_PoolLock);
}
static void WatchForks() {
    s_ForksWatched = pthread_atfork(LockPool, UnlockPool, UnlockPool) == 0;
}

// Null when all are in use. Unwatched forks could leave the lock held in a child: no slots then.
static uint8_t *TakeSlot(MemPool *pool) {
    static pthread_once_t s_Once = PTHREAD_ONCE_INIT;
    pthread_once(&s_Once, WatchForks);
    if (!s_ForksWatched) {
        return nullptr;
    }
    PoolGuard guard;
    const int32_t index = FindByte(pool->InUse, kPoolSlotCount, 0);
    if (index < 0) {
        return nullptr;
    }
    pool->InUse[index] = 1;
    ++pool->UsedCount;
    return pool->Slots[index];
}

static bool LiesIn(const void *data, const void *begin, size_t len) {
    // Below `begin` the difference is huge.
    return reinterpret_cast<std::uintptr_t>(data) - reinterpret_cast<std::uintptr_t>(begin) < len;
}

static bool IsSlot(const MemPool *pool, const void *block) {
    return LiesIn(block, pool->Slots, sizeof pool->Slots);
}

static uint8_t *SetBlock(CMem *mem, void *block, int32_t capacity, int32_t size) {
    mem->Ptr = static_cast<uint8_t *>(block);
    mem->Capacity = capacity;
    mem->Size = size;
    return mem->Ptr;
}

void CMem_init_(CMem *mem) {
    SetBlock(mem, nullptr, 0, 0);
    mem->Pool = &_m_membuf;
}

void CMem_Free(CMem *mem) {
    _CMem_Free(mem, mem->Ptr);
    SetBlock(mem, nullptr, 0, 0);
}

void _CMem_Free(CMem *mem, void *block) {
    MemPool *pool = mem->Pool;
    if (!IsSlot(pool, block)) {
        std::free(block);
        return;
    }
    PoolGuard guard;
    pool->InUse[(static_cast<uint8_t *>(block) - pool->Slots[0]) / kPoolSlotLen] = 0;
    --pool->UsedCount;
}

bool CMem_Holds(const CMem *mem, const void *data) {
    return LiesIn(data, mem->Ptr, static_cast<size_t>(mem->Capacity));
}

uint8_t *CMem_Alloc(CMem *mem, int32_t size) {
    if (mem->Ptr != nullptr) {
        return CMem_Realloc(mem, size);
    }
    if (size <= 0 || size > kMaxMemSize) {
        return nullptr;
    }
    uint8_t *slot = size <= kPoolSlotLen ? TakeSlot(mem->Pool) : nullptr;
    if (slot != nullptr) {
        return SetBlock(mem, slot, kPoolSlotLen, size);
    }
    const int32_t capacity = size + kHeadRoomLen;
    void *block = std::malloc(static_cast<size_t>(capacity));
    return block == nullptr ? nullptr : SetBlock(mem, block, capacity, size);
}

uint8_t *CMem_Realloc(CMem *mem, int32_t size) {
    if (size == 0) {
        CMem_Free(mem);
        return nullptr;
    }
    if (mem->Ptr == nullptr) {
        return CMem_Alloc(mem, size);
    }
    if (size < 0 || size > kMaxMemSize) {
        return nullptr;
    }
    const bool pooled = IsSlot(mem->Pool, mem->Ptr);
    const int32_t spare = mem->Capacity - size;
    if (spare >= 0 && (pooled || spare < kShrinkSpareLen)) {
        mem->Size = size;
        return mem->Ptr;
    }
    const int32_t capacity = size + kHeadRoomLen;
    void *block = std::realloc(pooled ? nullptr : mem->Ptr, static_cast<size_t>(capacity));
    if (block == nullptr) {
        return nullptr;
    }
    if (pooled) {
        std::memcpy(block, mem->Ptr, static_cast<size_t>(mem->Size));
        _CMem_Free(mem, mem->Ptr);
    }
    return SetBlock(mem, block, capacity, size);
}

// Puts `newCount` bytes in the place of the `oldCount` that lie at `position`; at or behind the end
// there are 0. The caller has checked that no argument is negative and that the result is not
// empty.
static int32_t Splice(CMem *mem, int32_t position, int32_t oldCount, const void *data,
                      int32_t newCount) {
    if (CMem_Holds(mem, data)) {
        CMem copy;
        CMem_init_(&copy);
        const int32_t done = CMem_Append(&copy, data, newCount) != 0
                                 ? Splice(mem, position, oldCount, copy.Ptr, newCount)
                                 : 0;
        CMem_Free(&copy);
        return done;
    }
    const int32_t end = std::max(mem->Size, position);
    const int32_t keptCount = end - oldCount;
    if (newCount > kMaxMemSize - keptCount) {
        return 0;
    }
    const int32_t newSize = keptCount + newCount;
    if (newCount > oldCount) {
        if (CMem_Realloc(mem, newSize) == nullptr) {
            return 0;
        }
        uint8_t *at = mem->Ptr + position;
        std::memmove(at + newCount, at + oldCount, static_cast<size_t>(keptCount - position));
    } else if (newCount < oldCount) {
        // What goes is moved to the end, where shrinking drops it and a failure can fetch it back.
        uint8_t *hole = mem->Ptr + position + newCount;
        std::rotate(hole, mem->Ptr + position + oldCount, mem->Ptr + end);
        if (CMem_Realloc(mem, newSize) == nullptr) {
            std::rotate(hole, mem->Ptr + newSize, mem->Ptr + end);
            return 0;
        }
    }
    if (data != nullptr) {
        std::memcpy(mem->Ptr + position, data, static_cast<size_t>(newCount));
    } else {
        std::memset(mem->Ptr + position, 0, static_cast<size_t>(newCount));
    }
    return 1;
}

int32_t CMem_Append(CMem *mem, const void *data, int32_t count) {
    return count < 1 ? 1 : Splice(mem, mem->Size, 0, data, count);
}

int32_t CMem_Insert(CMem *mem, int32_t position, const void *data, int32_t count) {
    if (count == 0) {
        return 1;
    }
    return position < 0 || count < 0 ? 0 : Splice(mem, position, 0, data, count);
}

int32_t CMem_Remove(CMem *mem, int32_t position, int32_t count) {
    if (position < -1 || count < 0) {
        return 0;
    }
    if (position == -1) {
        const int32_t newSize = std::max(mem->Size - count, 0);
        return CMem_Realloc(mem, newSize) != nullptr || newSize == 0 ? 1 : 0;
    }
    if (count == 0) {
        return 1;
    }
    if (position >= mem->Size) {
        return 0;
    }
    const int32_t removed = std::min(count, mem->Size - position);
    if (removed == mem->Size) {
        CMem_Free(mem);
        return 1;
    }
    return Splice(mem, position, removed, nullptr, 0);
}

int32_t CMem_Replace(CMem *mem, int32_t position, int32_t oldCount, const void *data,
                     int32_t newCount) {
    if (position < 0 || oldCount < 0 || newCount < 0) {
        return 0;
    }
    if (oldCount == 0 || position >= mem->Size) {
        return CMem_Insert(mem, position, data, newCount);
    }
    if (newCount == 0) {
        return CMem_Remove(mem, position, oldCount);
    }
    return Splice(mem, position, std::min(oldCount, mem->Size - position), data, newCount);
}

int32_t CMem_CopyFrom(CMem *mem, const void *data, int32_t count) {
    const int32_t oldSize = mem->Size;
    mem->Size = 0;
    if (CMem_Append(mem, data, count) == 0) {
        mem->Size = oldSize;
        return 0;
    }
    return 1;
}

void CMem_XchgMem(CMem *first, CMem *second) {
    std::swap(*first, *second);
}

template <typename Value>
static int32_t AddValue(CMem *mem, Value value) {
    return CMem_Append(mem, &value, sizeof value);
}

int32_t CMem_AddByte(CMem *mem, uint8_t value) {
    return AddValue(mem, value);
}
int32_t CMem_AddShort(CMem *mem, int16_t value) {
    return AddValue(mem, value);
}
int32_t CMem_AddWord(CMem *mem, uint16_t value) {
    return AddValue(mem, value);
}
int32_t CMem_AddInt(CMem *mem, int32_t value) {
    return AddValue(mem, value);
}
int32_t CMem_AddDWord(CMem *mem, uint32_t value) {
    return AddValue(mem, value);
}
int32_t CMem_AddLong(CMem *mem, int32_t value) {
    return AddValue(mem, value);
}
int32_t CMem_AddFloat(CMem *mem, float value) {
    return AddValue(mem, value);
}
int32_t CMem_AddDouble(CMem *mem, double value) {
    return AddValue(mem, value);
}

int32_t CMem_AddText(CMem *mem, const char *text) {
    return CMem_Append(mem, text, TextLen(text));
}

int32_t CMem_AddStr(CMem *mem, const char *text) {
    return CMem_Append(mem, text, TextLen(text) + 1); // null data is the one zero byte
}

// -1 when it is not to be had or no buffer could hold so much.
static int32_t FileLen(FILE *file) {
    if (fseeko(file, 0, SEEK_END) != 0) {
        return -1;
    }
    const off_t len = ftello(file);
    if (len < 0 || len > kMaxMemSize || fseeko(file, 0, SEEK_SET) != 0) {
        return -1;
    }
    return static_cast<int32_t>(len);
}

// The number of bytes read, or -1.
static int32_t ReadOpenFile(CMem *mem, FILE *file, int32_t count) {
    if (count == -1) {
        count = FileLen(file);
        if (count == -1) {
            return -1;
        }
    }
    if (count <= 0) {
        return 0;
    }
    if (CMem_Alloc(mem, count) == nullptr) {
        return -1;
    }
    const auto got = static_cast<int32_t>(fread(mem->Ptr, 1, static_cast<size_t>(count), file));
    if (ferror(file) != 0) {
        return -1;
    }
    // A file that ended early: what is left unread must not count as content.
    return got == count || CMem_Realloc(mem, got) != nullptr || got == 0 ? got : -1;
}

int32_t CMem_ReadFile(CMem *mem, const char *path, int32_t count) {
    int32_t result = -1;
    FILE *file = fopen(path, "rbe");
    if (file != nullptr) {
        result = ReadOpenFile(mem, file, count);
        if (fclose(file) != 0) {
            result = -1;
        }
    }
    if (result <= 0) {
        CMem_Free(mem);
    }
    return result;
}

int32_t CMem_WriteFile(const CMem *mem, const char *path, int32_t count) {
    if (count < -1) {
        return 0;
    }
    FILE *file = fopen(path, "wbe");
    if (file == nullptr) {
        return 0;
    }
    const auto len = static_cast<size_t>(count == -1 ? mem->Size : std::min(count, mem->Size));
    const bool written = len == 0 || fwrite(mem->Ptr, 1, len, file) == len;
    // What is still buffered is written only now.
    return fclose(file) == 0 && written ? 1 : 0;
}

int32_t FindByte(const void *bytes, int32_t count, uint8_t value) {
    if (count < 1) {
        return -1;
    }
    const auto *first = static_cast<const uint8_t *>(bytes);
    const void *found = std::memchr(first, value, static_cast<size_t>(count));
    return found == nullptr ? -1
                            : static_cast<int32_t>(static_cast<const uint8_t *>(found) - first);
}

int32_t TextLen(const char *text) {
    return text == nullptr ? 0 : static_cast<int32_t>(strnlen(text, INT32_MAX - 1));
}

} // namespace nrpc
