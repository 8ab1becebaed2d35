// fuzz/check.h: what a fuzzer holds to be true. A violation ends the process, and with it the run.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#define CHECK(condition)                                                                           \
    do {                                                                                           \
        if (!(condition)) {                                                                        \
            std::fprintf(stderr, "%s:%d: not true: %s\n", __FILE__, __LINE__, #condition);         \
            std::abort();                                                                          \
        }                                                                                          \
    } while (false)

// What each fuzzer consists of. Answers 0.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);
