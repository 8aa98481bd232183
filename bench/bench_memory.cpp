// With memory debugging off, Ostrel_Malloc_D + Ostrel_Free must cost about
// what malloc + free cost (target: within 1.1x). Written as an application
// writes them they are the header's inline forms: a check of this file's
// cached answer, the system call and the last-error store. The Call variants
// name the library's functions in parentheses, so every call goes into the
// library (a flag check and one more call level), as a compiler without the
// inline forms builds them. The pairs run side by side for each size;
// compare BM_OstrelMallocFree/<size> and BM_OstrelCallMallocFree/<size> with
// BM_SystemMallocFree/<size>.
#include <benchmark/benchmark.h>

#include <cstdlib>

#include "ostrel_memory.h"

static void BM_SystemMallocFree(benchmark::State &st) {
    const size_t size = static_cast<size_t>(st.range(0));
    for (auto _ : st) {
        void *p = malloc(size);
        benchmark::DoNotOptimize(p);
        free(p);
    }
}

static void BM_OstrelMallocFree(benchmark::State &st) {
    const uint64_t size = static_cast<uint64_t>(st.range(0));
    for (auto _ : st) {
        void *p = Ostrel_Malloc_D(size, __FILE__, __LINE__);
        benchmark::DoNotOptimize(p);
        Ostrel_Free(p);
    }
}

static void BM_OstrelCallMallocFree(benchmark::State &st) {
    const uint64_t size = static_cast<uint64_t>(st.range(0));
    for (auto _ : st) {
        void *p = (Ostrel_Malloc_D)(size, __FILE__, __LINE__);
        benchmark::DoNotOptimize(p);
        (Ostrel_Free)(p);
    }
}

// A batch of live blocks at once, so the allocator does more than recycle
// one chunk.
static void BM_SystemMallocFreeBatch(benchmark::State &st) {
    void *blocks[64];
    for (auto _ : st) {
        for (size_t i = 0; i < 64; ++i) {
            blocks[i] = malloc(16 + 8 * i);
            benchmark::DoNotOptimize(blocks[i]);
        }
        for (void *p : blocks) free(p);
    }
    st.SetItemsProcessed(st.iterations() * 64);
}

static void BM_OstrelMallocFreeBatch(benchmark::State &st) {
    void *blocks[64];
    for (auto _ : st) {
        for (size_t i = 0; i < 64; ++i) {
            blocks[i] = Ostrel_Malloc_D(16 + 8 * i, __FILE__, __LINE__);
            benchmark::DoNotOptimize(blocks[i]);
        }
        for (void *p : blocks) Ostrel_Free(p);
    }
    st.SetItemsProcessed(st.iterations() * 64);
}

BENCHMARK(BM_SystemMallocFree)->Arg(16)->Arg(256)->Arg(4096);
BENCHMARK(BM_OstrelMallocFree)->Arg(16)->Arg(256)->Arg(4096);
BENCHMARK(BM_OstrelCallMallocFree)->Arg(16)->Arg(256)->Arg(4096);
BENCHMARK(BM_SystemMallocFreeBatch);
BENCHMARK(BM_OstrelMallocFreeBatch);
