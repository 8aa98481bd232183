// A log call below the threshold must cost about as much as an empty call:
// the library makes the call for every line and lets the support library drop it.
#include <benchmark/benchmark.h>

#include "zurn_general.h"

extern "C" __attribute__((noinline)) int empty_log_call(uint64_t h, int level, const char *path, int line,
                                                        const char *fmt, ...) {
    benchmark::DoNotOptimize(h);
    return level + line + (path != nullptr) + (fmt != nullptr);
}

static uint64_t context() {
    static uint64_t h = [] {
        LogFileSettings s{};
        s.iBackupCount = 1;
        s.szModuleName = "bench";
        s.iEnabled = 1;
        s.iMaxLineLength = 2048;
        uint64_t c = 0;
        ZurnGeneral_IsNeedLogFile(&s, &c, 1);
        ZurnGeneral_SetLogLevel(2);
        return c;
    }();
    return h;
}

static void BM_EmptyCall(benchmark::State &st) {
    uint64_t h = context();
    for (auto _ : st) benchmark::DoNotOptimize(empty_log_call(h, 1, "src/list", 42, "Create list in %s mode, handle:%p", "copy", &st));
}
BENCHMARK(BM_EmptyCall);

static void BM_FilteredLogCall(benchmark::State &st) {
    uint64_t h = context();
    for (auto _ : st)
        benchmark::DoNotOptimize(
            ZurnGeneral_RecordAppLogToFileEx2_V(h, 1, "src/list", 42, "Create list in %s mode, handle:%p", "copy", &st));
}
BENCHMARK(BM_FilteredLogCall);

static void BM_NullContextLogCall(benchmark::State &st) {
    for (auto _ : st)
        benchmark::DoNotOptimize(ZurnGeneral_RecordAppLogToFileEx2_V(0, 8, "src/list", 42, "Invalid list handle"));
}
BENCHMARK(BM_NullContextLogCall);
