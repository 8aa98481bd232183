// Interposes the process's malloc, calloc and realloc so that a test can make
// one of the next allocations fail and can count allocations. Include it from
// exactly one source file of a test executable. In sanitizer builds the
// runtime owns the allocator: nothing is interposed, OSTREL_ALLOC_INTERPOSED
// is 0 and the suites that need it skip themselves.
#ifndef OSTREL_TEST_ALLOC_FAILURE_H
#define OSTREL_TEST_ALLOC_FAILURE_H

#include <cstddef>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define OSTREL_ALLOC_INTERPOSED 0
#else
#define OSTREL_ALLOC_INTERPOSED 1

extern "C" void *__libc_malloc(size_t);
extern "C" void *__libc_calloc(size_t, size_t);
extern "C" void *__libc_realloc(void *, size_t);

namespace alloc_failure {
inline int g_allocs_before_failure = -1; // negative: never fail
inline long g_alloc_count = 0;

inline bool fail_now() {
    ++g_alloc_count;
    return g_allocs_before_failure >= 0 && g_allocs_before_failure-- == 0;
}
} // namespace alloc_failure

extern "C" void *malloc(size_t n) { return alloc_failure::fail_now() ? nullptr : __libc_malloc(n); }
extern "C" void *calloc(size_t a, size_t b) { return alloc_failure::fail_now() ? nullptr : __libc_calloc(a, b); }
extern "C" void *realloc(void *p, size_t n) { return alloc_failure::fail_now() ? nullptr : __libc_realloc(p, n); }
#endif

namespace alloc_failure {

// Makes the allocation after the next n succeed-able ones fail (0: the very
// next one); a negative n turns failures off.
inline void fail_allocation_number(int n) {
#if OSTREL_ALLOC_INTERPOSED
    g_allocs_before_failure = n;
#else
    (void)n;
#endif
}

// Allocations made so far through malloc, calloc and realloc.
inline long allocation_count() {
#if OSTREL_ALLOC_INTERPOSED
    return g_alloc_count;
#else
    return 0;
#endif
}

} // namespace alloc_failure

#endif
