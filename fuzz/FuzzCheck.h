// A property a fuzz target checks: when it does not hold, the target says
// which and stops like a crash, so libFuzzer keeps the input.
#pragma once

#include <cstdio>
#include <cstdlib>

#define ZVFUZZ_CHECK(condition)                                                                   \
    do {                                                                                          \
        if (!(condition)) {                                                                       \
            std::fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #condition);    \
            std::abort();                                                                         \
        }                                                                                         \
    } while (0)
