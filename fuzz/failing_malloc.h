// fuzz/failing_malloc.h: memory that is exhausted at a chosen moment. For fuzzers that are linked
// so that the product's calls of malloc come here (fuzz/CMakeLists.txt).
#pragma once

#include <cstddef>
#include <cstdint>

inline int32_t g_MallocsToFailure; // 0: none will fail

extern "C" void *__real_malloc(size_t size);
extern "C" [[gnu::used]] inline void *__wrap_malloc(size_t size) {
    const bool fails = g_MallocsToFailure > 0 && --g_MallocsToFailure == 0;
    return fails ? nullptr : __real_malloc(size);
}
