// What the fuzz targets use to state an invariant: a broken one prints what
// failed and aborts, so libFuzzer keeps the input as a crash.
#pragma once

#include <cstdio>
#include <cstdlib>

#define FUZZ_CHECK(condition)                                                                 \
    do {                                                                                      \
        if (!(condition)) {                                                                   \
            fprintf(stderr, "%s:%d: invariant broken: %s\n", __FILE__, __LINE__, #condition); \
            abort();                                                                          \
        }                                                                                     \
    } while (0)
