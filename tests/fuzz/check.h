// What a fuzzer reports as a fault.
#pragma once

#include <cstdio>
#include <cstdlib>

#define VLL_CHECK(condition)                                                          \
    do {                                                                              \
        if (!(condition)) {                                                           \
            fprintf(stderr, "%s:%d: not true: %s\n", __FILE__, __LINE__, #condition); \
            abort();                                                                  \
        }                                                                             \
    } while (false)
