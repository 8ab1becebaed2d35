#include "support/word_array.h"

#include <cstring>

namespace nrpc {

static constexpr int32_t kWordLen = sizeof(ArrayWord);

// -1, which no operation takes for a size or a count, when there can be no such number.
static int32_t ByteCount(int32_t words) {
    return words < 0 || words > kMaxMemSize / kWordLen ? -1 : words * kWordLen;
}

int32_t CDWordArray_GetSize(const CDWordArray *array) {
    return array->Size / kWordLen;
}

int32_t CDWordArray_GetUpperBound(const CDWordArray *array) {
    return CDWordArray_GetSize(array) - 1;
}

ArrayWord *CDWordArray_GetPtr(const CDWordArray *array) {
    return static_cast<ArrayWord *>(static_cast<void *>(CMem_GetPtr(array)));
}

ArrayWord CDWordArray_GetAt(const CDWordArray *array, int32_t index) {
    ArrayWord value;
    std::memcpy(&value, array->Ptr + index * kWordLen, sizeof value);
    return value;
}

void CDWordArray_SetAt(CDWordArray *array, int32_t index, ArrayWord value) {
    std::memcpy(array->Ptr + index * kWordLen, &value, sizeof value);
}

int32_t CDWordArray_Find(const CDWordArray *array, ArrayWord value) {
    const int32_t size = CDWordArray_GetSize(array);
    for (int32_t index = 0; index < size; ++index) {
        if (CDWordArray_GetAt(array, index) == value) {
            return index;
        }
    }
    return -1;
}

int32_t CDWordArray_Add(CDWordArray *array, ArrayWord value) {
    return CMem_Append(array, &value, kWordLen);
}

int32_t CDWordArray_InsertAt(CDWordArray *array, int32_t index, ArrayWord value) {
    return CMem_Insert(array, ByteCount(index), &value, kWordLen);
}

int32_t CDWordArray_RemoveAt(CDWordArray *array, int32_t index, int32_t count) {
    const int32_t position = ByteCount(index);
    if (position < 0) {
        return 0; // to CMem_Remove, -1 would mean the end
    }
    return CMem_Remove(array, position, ByteCount(count));
}

int32_t CDWordArray_SetSize(CDWordArray *array, int32_t count) {
    return CMem_Realloc(array, ByteCount(count)) != nullptr ? 1 : 0;
}

void CDWordArray_RemoveAll(CDWordArray *array) {
    CMem_Free(array);
}

int32_t CDWordArray_Copy(CDWordArray *array, const CDWordArray *other) {
    return CMem_CopyFrom(array, other->Ptr, other->Size);
}

int32_t CDWordArray_Append(CDWordArray *array, const CDWordArray *other) {
    const int32_t sizeBefore = CDWordArray_GetSize(array);
    CMem_Append(array, other->Ptr, other->Size);
    return sizeBefore;
}

} // namespace nrpc
