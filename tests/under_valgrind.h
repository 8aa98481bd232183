// True when the test runs under valgrind, which preloads its own allocator.
// Tests that make deliberately impossible allocations, or read in front of a
// heap block on purpose, skip themselves there as they do under sanitizers.
#ifndef OSTREL_TEST_UNDER_VALGRIND_H
#define OSTREL_TEST_UNDER_VALGRIND_H

#include <cstdlib>
#include <cstring>

inline bool under_valgrind() {
    const char *preload = getenv("LD_PRELOAD");
    return preload != nullptr && strstr(preload, "vgpreload") != nullptr;
}

#endif
