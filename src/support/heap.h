// support/heap.h: records on the library's own heap.
//   Ownership  the caller of New owns the record; `free` (FreeRecord) ends it. Nothing throws.
//   Errors     null when memory is exhausted; every caller looks.
#pragma once

#include <cstdlib>
#include <memory>
#include <new>
#include <type_traits>

namespace nrpc {

// A value-initialised record, or null when memory is exhausted.
template <typename Record>
Record *NewRecord() {
    static_assert(std::is_trivially_destructible_v<Record>);
    void *memory = std::malloc(sizeof(Record));
    return memory == nullptr ? nullptr : new (memory) Record();
}

// Null is accepted.
template <typename Record>
void FreeRecord(Record *record) {
    static_assert(std::is_trivially_destructible_v<Record>);
    std::free(record);
}

// Frees with an ordinary function when the scope ends: std::unique_ptr<T, FreeWith<FreeT>>.
template <auto Function>
struct FreeWith {
    template <typename Record>
    void operator()(Record *record) const {
        Function(record);
    }
};

} // namespace nrpc
