// How long it takes to stop 200 waiting threads: a thread group's CancelAll
// + Destroy (threads waiting in Select; Destroy returns once the last thread
// has left the group, woken by it) against 200 std::threads waiting on a
// condition variable, woken with notify_all and joined. Each repetition is
// one stop of 200 fresh threads; the median over the repetitions is the
// figure to read, the two medians of one run the ones to compare.
#include <benchmark/benchmark.h>

#include <dirent.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

#include "ostrel_threadgroup.h"
#include "zurn_general.h"

namespace {

constexpr int kThreads = 200;
constexpr int kRepetitions = 15;

int live_threads() {
    DIR *d = opendir("/proc/self/task");
    int n = 0;
    while (dirent *e = readdir(d))
        if (e->d_name[0] != '.') ++n;
    closedir(d);
    return n;
}

void wait_threads_gone(int baseline) {
    while (live_threads() > baseline) std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

std::atomic<int> g_waiting{0};

uint32_t wait_in_select(void *, OstrelThreadNodeHandle node) {
    g_waiting.fetch_add(1);
    int to_close = 0, count = 0;
    while (to_close == 0)
        if (Ostrel_ThreadGroup_Select(node, 60000, &to_close, &count) != 0) break;
    return 0;
}

// Starts the threads and lets them settle in their waits (not timed).
OstrelThreadGroupHandle start_group() {
    OstrelThreadGroupHandle group = nullptr;
    Ostrel_ThreadGroup_Create(&group);
    g_waiting = 0;
    for (int i = 0; i < kThreads; ++i) Ostrel_ThreadGroup_NewThread(group, wait_in_select, nullptr);
    while (g_waiting.load() < kThreads) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    return group;
}

void BM_ThreadGroup_CancelAllDestroy(benchmark::State &state) {
    ZurnGeneral_SetLogLevel(16);
    const int baseline = live_threads();
    for (auto _ : state) {
        state.PauseTiming();
        OstrelThreadGroupHandle group = start_group();
        state.ResumeTiming();
        Ostrel_ThreadGroup_CancelAll(group);
        Ostrel_ThreadGroup_Destroy(group);
        state.PauseTiming();
        wait_threads_gone(baseline);
        state.ResumeTiming();
    }
}

// CancelAll alone: the wake-up write and the 200 one-byte sends.
void BM_ThreadGroup_CancelAllOnly(benchmark::State &state) {
    ZurnGeneral_SetLogLevel(16);
    const int baseline = live_threads();
    for (auto _ : state) {
        state.PauseTiming();
        OstrelThreadGroupHandle group = start_group();
        state.ResumeTiming();
        Ostrel_ThreadGroup_CancelAll(group);
        state.PauseTiming();
        Ostrel_ThreadGroup_Destroy(group);
        wait_threads_gone(baseline);
        state.ResumeTiming();
    }
}

// Peer: the same 200 waiters on a condition variable, notified and joined.
void BM_StdThread_CondVarNotifyJoin(benchmark::State &state) {
    for (auto _ : state) {
        state.PauseTiming();
        std::mutex mu;
        std::condition_variable cv;
        bool stop = false;
        std::atomic<int> waiting{0};
        std::vector<std::thread> threads;
        threads.reserve(kThreads);
        for (int i = 0; i < kThreads; ++i)
            threads.emplace_back([&] {
                std::unique_lock<std::mutex> lk(mu);
                waiting.fetch_add(1);
                cv.wait(lk, [&] { return stop; });
            });
        while (waiting.load() < kThreads) std::this_thread::sleep_for(std::chrono::milliseconds(1));
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        state.ResumeTiming();
        {
            std::lock_guard<std::mutex> lk(mu);
            stop = true;
        }
        cv.notify_all();
        for (auto &t : threads) t.join();
    }
}

#define STOP_200_THREADS(bm)                                                                                    \
    BENCHMARK(bm)->Iterations(1)->Repetitions(kRepetitions)->ReportAggregatesOnly(true)->UseRealTime()->Unit( \
        benchmark::kMillisecond)

STOP_200_THREADS(BM_ThreadGroup_CancelAllDestroy);
STOP_200_THREADS(BM_ThreadGroup_CancelAllOnly);
STOP_200_THREADS(BM_StdThread_CondVarNotifyJoin);

} // namespace
