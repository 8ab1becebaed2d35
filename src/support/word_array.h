// support/word_array.h: CDWordArray, an array of words in a byte buffer (byte_buffer.h says who
// owns, shares and frees what, and what a failure leaves behind).
//
//   Words      as wide as a pointer, 4 bytes in the product: callers keep addresses in them. What
//              an address points to stays the caller's; freeing the array does not free it.
//   Units      indexes and counts are elements.
//   Lifetime   CMem_init_ first, CDWordArray_RemoveAll last.
#pragma once

#include "support/byte_buffer.h"

namespace nrpc {

using ArrayWord = std::uintptr_t;

struct CDWordArray : CMem {};

int32_t CDWordArray_GetSize(const CDWordArray *array);
// -1 when empty.
int32_t CDWordArray_GetUpperBound(const CDWordArray *array);
// Null when empty; valid until the array changes. Aligned to 4 bytes only: where words are wider,
// use GetAt.
ArrayWord *CDWordArray_GetPtr(const CDWordArray *array);
// The index lies below the size; it is not checked.
ArrayWord CDWordArray_GetAt(const CDWordArray *array, int32_t index);
void CDWordArray_SetAt(CDWordArray *array, int32_t index, ArrayWord value);
// The index of the first equal element, or -1.
int32_t CDWordArray_Find(const CDWordArray *array, ArrayWord value);

int32_t CDWordArray_Add(CDWordArray *array, ArrayWord value);
// Behind the end, the elements between the old end and `index` are not set.
int32_t CDWordArray_InsertAt(CDWordArray *array, int32_t index, ArrayWord value);
// The count is cut to what is there.
int32_t CDWordArray_RemoveAt(CDWordArray *array, int32_t index, int32_t count);
// New elements are not set. 0 elements free the array, result 0.
int32_t CDWordArray_SetSize(CDWordArray *array, int32_t count);
void CDWordArray_RemoveAll(CDWordArray *array);

// `other` may be the array itself.
int32_t CDWordArray_Copy(CDWordArray *array, const CDWordArray *other);
// The number of elements before; compare with the number after to see a failure.
int32_t CDWordArray_Append(CDWordArray *array, const CDWordArray *other);

} // namespace nrpc
