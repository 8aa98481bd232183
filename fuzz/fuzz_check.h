// check(cond): a failed expectation of a fuzz target prints where and what,
// then aborts, which libFuzzer reports together with the input.
#ifndef OSTREL_FUZZ_CHECK_H
#define OSTREL_FUZZ_CHECK_H

#include <cstdio>
#include <cstdlib>

#define check(cond)                                                                         \
    do {                                                                                    \
        if (!(cond)) {                                                                      \
            fprintf(stderr, "%s:%d: expectation failed: %s\n", __FILE__, __LINE__, #cond); \
            abort();                                                                        \
        }                                                                                   \
    } while (0)

#endif
