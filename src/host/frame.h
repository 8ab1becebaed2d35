// host/frame.h: the frame in which the host calls commands, the host service, and values on the
// host's heap. Knows nothing of the engines.
//   Cells      every argument and every result is one 12-byte HostValue; cell 0 of a command is
//              the object, cells 1 onward its declared arguments.
//   Ownership  a value handed to the host belongs to the host. HostFree ends one that was not.
//   Threads    every function may be called from any thread.
//   Errors     HostAlloc, CloneTextData and CloneBinData answer null when the host's heap is
//              exhausted, or before the host has handed over its service.
#pragma once

#include <cstddef>
#include <cstdint>

namespace nrpc {

// A word of the host: an integer, an address or a routine, 32 bits in the product.
using HostWord = std::uintptr_t;

// Type codes of values and of argument descriptions. 0: none, or an argument that was omitted.
enum TypeCode : uint32_t {
    kNoType = 0,
    kInteger = 0x80000301,
    kText = 0x80000004,
    kByteSet = 0x80000005,
    kLogical = 0x80000002,
    kSubroutinePointer = 0x80000006,
    kAnyType = 0x80000000,
};

#pragma pack(push, 4)
struct HostValue {
    // Only the first word is used. An output argument holds the address of the caller's slot here.
    union {
        int32_t Number;
        HostWord Word;
        const char *Text;
        const int32_t *ByteSet; // 1, byte count, the bytes; null when empty
        HostWord *Slot;
        uint8_t Bytes[8];
    };
    uint32_t TypeCode;
};
#pragma pack(pop)
static_assert(sizeof(HostValue) == 12 && offsetof(HostValue, TypeCode) == 8);

// Services of the host, the first argument of NotifySys.
enum HostService : int32_t {
    kHostFreeArray = 2023, // type code of the array's cell; the array, may be null
    kHostAlloc = 2024,     // size in bytes; 0. Answers the block or null
    kHostFree = 2025,      // the block, may be null; 0
};

// Word 1 before the bytes of a byte set or the elements of an array, word 2 is the count.
inline constexpr int32_t kOneDimension = 1;
inline constexpr size_t kCountedHeadLen = 2 * sizeof(int32_t);

// The notification with which the host hands over its service function.
inline constexpr int32_t kNotifyCodeHostService = 1;

// Calls the host's service function: 0 before it was handed over. The function may pop its
// arguments or leave them, and may change registers that it ought to keep.
HostWord NotifySys(HostWord code, HostWord param1, HostWord param2);

void *HostAlloc(size_t size);
void HostFree(void *block);

// A copy of the text on the host's heap. Null, without an error, for a null or empty text: tell
// that from an exhausted heap with `*failed`.
char *CloneTextData(const char *text, bool *failed);
// The same from `length` bytes: the text ends at the first zero byte among them.
char *CloneTextBytes(const void *bytes, uint32_t length, bool *failed);
// A byte set of `length` bytes; null, without an error, when `length` is 0.
void *CloneBinData(const void *data, uint32_t length, bool *failed);

// Frees the slot's text or byte set and stores the new value, which belongs to the host from now
// on.
void StoreInSlot(HostWord *slot, void *value);

// The number of bytes in a byte set argument and the bytes; 0 for one that is null, has another
// dimension count than 1, or a count below 1.
int32_t ByteSetLength(const int32_t *byteSet);
inline const uint8_t *ByteSetBytes(const int32_t *byteSet) {
    return reinterpret_cast<const uint8_t *>(byteSet + 2);
}

// A command's entry function. `argCount` is not consulted.
using CommandEntry = void (*)(HostValue *result, int32_t argCount, HostValue *args);

// Every function that the host calls carries this: the host aligns its stack to 4 bytes only.
#if defined(__i386__)
#define NRPC_HOST_ENTRY __attribute__((force_align_arg_pointer))
#else
#define NRPC_HOST_ENTRY
#endif
// What the host looks up by name.
#define NRPC_EXPORT extern "C" __attribute__((visibility("default")))

} // namespace nrpc

// The host's notifications. Code kNotifyCodeHostService stores the service function in `param1`,
// for the life of the library or until the next one, and answers 0; every other code changes
// nothing and answers -1. `param2` is not read.
NRPC_EXPORT int32_t ProcessNotifyLib(int32_t code, nrpc::HostWord param1, nrpc::HostWord param2);
