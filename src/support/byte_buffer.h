// support/byte_buffer.h: CMem, a growable byte buffer, and the pool that serves small ones.
//
//   Ownership  the record belongs to whoever declares it, often on the stack; its block belongs to
//              the record. CMem_init_ comes first and CMem_Free last: nothing is released by
//              itself, and a forgotten buffer keeps its pool slot for the life of the process.
//   Threads    a buffer is used by one thread at a time. The pool behind all of them may be used by
//              every thread at once; its lock is taken briefly and alone. A process may fork.
//   Units      sizes, counts and positions are bytes, signed; kMaxMemSize is the largest size.
//   Aliasing   `data` and texts may lie in the buffer that they are added to.
//   Errors     1 done, 0 failed. A failed operation (memory exhausted, negative or too large
//              arguments) leaves the buffer as it was, but for CMem_ReadFile, which frees it.
#pragma once

#include <cstddef>
#include <cstdint>

namespace nrpc {

inline constexpr int32_t kPoolSlotCount = 32;
inline constexpr int32_t kPoolSlotLen = 256;
// A heap block is this much larger than what was asked for, so that small appends rarely move it.
inline constexpr int32_t kHeadRoomLen = 128;
// A heap block that would have this much to spare is made smaller.
inline constexpr int32_t kShrinkSpareLen = 257;
inline constexpr int32_t kMaxMemSize = INT32_MAX - kHeadRoomLen;

// Under the pool's own lock, but for the bytes of a slot in use: they are its buffer's.
struct MemPool {
    int32_t UsedCount;
    uint8_t InUse[kPoolSlotCount]; // 1 in use, 0 free
    uint8_t Slots[kPoolSlotCount][kPoolSlotLen];
};
static_assert(sizeof(MemPool) == 8228);
static_assert(offsetof(MemPool, InUse) == 4 && offsetof(MemPool, Slots) == 36);

// The one pool of the process.
extern MemPool _m_membuf;

struct CMem {
    uint8_t *Ptr;     // a pool slot, a heap block, or null; null goes with Capacity and Size 0
    int32_t Capacity; // of the block
    int32_t Size;     // in use; 0 with a block is an emptied buffer
    MemPool *Pool;    // always _m_membuf
};
static_assert(sizeof(CMem) == 2 * sizeof(void *) + 8);
static_assert(offsetof(CMem, Capacity) == sizeof(void *) &&
              offsetof(CMem, Size) == sizeof(void *) + 4);

void CMem_init_(CMem *mem);
inline uint8_t *CMem_GetPtr(const CMem *mem) {
    return mem->Size != 0 ? mem->Ptr : nullptr;
}
inline int32_t CMem_GetSize(const CMem *mem) {
    return mem->Size;
}
inline int32_t CMem_IsEmpty(const CMem *mem) {
    return mem->Size == 0 ? 1 : 0;
}
// Keeps the block.
inline void CMem_Empty(CMem *mem) {
    mem->Size = 0;
}
void CMem_Free(CMem *mem);
// Returns a block to where it came from, without a look at the record's fields. Null is accepted.
void _CMem_Free(CMem *mem, void *block);
// Whether `data` points into the block.
bool CMem_Holds(const CMem *mem, const void *data);

// Both set the size; bytes beyond the old size are not set. The block, or null: `size` was 0 (a
// buffer that had a block is then freed), or the operation failed.
uint8_t *CMem_Alloc(CMem *mem, int32_t size);
uint8_t *CMem_Realloc(CMem *mem, int32_t size);

// Null `data` stands for zeros. A count below 1 adds nothing, result 1.
int32_t CMem_Append(CMem *mem, const void *data, int32_t count);
// Behind the end, the bytes between the old end and `position` are not set.
int32_t CMem_Insert(CMem *mem, int32_t position, const void *data, int32_t count);
// Position -1 removes from the end. Counts are cut to what is there; nothing left frees the buffer.
int32_t CMem_Remove(CMem *mem, int32_t position, int32_t count);
// As insertion where there is nothing to replace; `oldCount` is cut to what is there.
int32_t CMem_Replace(CMem *mem, int32_t position, int32_t oldCount, const void *data,
                     int32_t newCount);
// Replaces everything, in the same block where that serves.
int32_t CMem_CopyFrom(CMem *mem, const void *data, int32_t count);
void CMem_XchgMem(CMem *first, CMem *second);

// Append one value as it lies in memory (little-endian).
int32_t CMem_AddByte(CMem *mem, uint8_t value);
int32_t CMem_AddShort(CMem *mem, int16_t value);
int32_t CMem_AddWord(CMem *mem, uint16_t value);
int32_t CMem_AddInt(CMem *mem, int32_t value);
int32_t CMem_AddDWord(CMem *mem, uint32_t value);
int32_t CMem_AddLong(CMem *mem, int32_t value);
int32_t CMem_AddFloat(CMem *mem, float value);
int32_t CMem_AddDouble(CMem *mem, double value);
// Without the terminator, and with it. Null is an empty text.
int32_t CMem_AddText(CMem *mem, const char *text);
int32_t CMem_AddStr(CMem *mem, const char *text);

// The first `count` bytes of a file, -1 for all of it. The number of bytes read; 0 and -1 (no such
// file, read error, longer than kMaxMemSize, memory exhausted) leave the buffer freed.
int32_t CMem_ReadFile(CMem *mem, const char *path, int32_t count);
// Creates or truncates the file and writes at most `count` bytes, -1 for all. 1 once the system has
// accepted every byte; after 0 the file may hold a part.
int32_t CMem_WriteFile(const CMem *mem, const char *path, int32_t count);

// The index of the first byte equal to `value`, or -1.
int32_t FindByte(const void *bytes, int32_t count, uint8_t value);
// The length of a text, 0 for null. Too long for any buffer: above kMaxMemSize, below INT32_MAX.
int32_t TextLen(const char *text);

} // namespace nrpc
