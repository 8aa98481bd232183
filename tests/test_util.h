// Helpers shared by the test suites: log capture, sanitizer and valgrind
// detection, process resource counts, polling, and allocation failures.
#ifndef OSTREL_TEST_UTIL_H
#define OSTREL_TEST_UTIL_H

// Captures the lines the library logs, with their level, source path, line
// and text, through the support library's sink. One capture at a time.

#include <mutex>
#include <string>
#include <vector>

#include "zurn_general.h"

struct LogLine {
    std::string module;
    int level;
    std::string path;
    int line;
    std::string text;
};

class LogCapture {
public:
    explicit LogCapture(int threshold = 1) {
        prev_level_ = ZurnGeneral_SetLogLevel(threshold);
        ZurnGeneral_SetLogSink(&LogCapture::sink, this, ZURN_LOG_SINK_ONLY);
    }
    ~LogCapture() {
        ZurnGeneral_SetLogSink(nullptr, nullptr, ZURN_LOG_SINK_AND_FILE);
        ZurnGeneral_SetLogLevel(prev_level_);
    }
    LogCapture(const LogCapture &) = delete;
    LogCapture &operator=(const LogCapture &) = delete;

    std::vector<LogLine> lines() {
        std::lock_guard<std::mutex> lk(mu_);
        return lines_;
    }
    void clear() {
        std::lock_guard<std::mutex> lk(mu_);
        lines_.clear();
    }
    // Lines of one level, as "path|text" for compact comparisons.
    std::vector<std::string> texts(int level) {
        std::vector<std::string> out;
        for (const auto &l : lines())
            if (l.level == level) out.push_back(l.path + "|" + l.text);
        return out;
    }
    bool has(int level, const std::string &path, const std::string &text) {
        for (const auto &l : lines())
            if (l.level == level && l.path == path && l.text == text) return true;
        return false;
    }

private:
    static void sink(void *user, const char *module, int level, const char *path, int line, const char *text) {
        auto *self = static_cast<LogCapture *>(user);
        std::lock_guard<std::mutex> lk(self->mu_);
        self->lines_.push_back({module ? module : "", level, path ? path : "", line, text ? text : ""});
    }
    std::mutex mu_;
    std::vector<LogLine> lines_;
    int prev_level_;
};

// True when the test runs under valgrind, which preloads its own allocator.
// Tests that make deliberately impossible allocations, or read in front of a
// heap block on purpose, skip themselves there as they do under sanitizers.

#include <cstdlib>
#include <cstring>

inline bool under_valgrind() {
    const char *preload = getenv("LD_PRELOAD");
    return preload != nullptr && strstr(preload, "vgpreload") != nullptr;
}

// Helpers shared by the thread-group tests: counting the process's open
// descriptors, threads and live heap bytes, and waiting for detached threads
// to be gone.

#include <dirent.h>
#include <malloc.h>
#include <unistd.h>

#include <chrono>
#include <cstddef>
#include <functional>
#include <thread>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define OSTREL_TEST_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define OSTREL_TEST_SANITIZED 1
#endif
#endif
#ifndef OSTREL_TEST_SANITIZED
#define OSTREL_TEST_SANITIZED 0
#endif
#if OSTREL_TEST_SANITIZED
// From the sanitizer runtime's allocator interface.
extern "C" size_t __sanitizer_get_current_allocated_bytes(void);
#endif

namespace tgtest {

inline int count_dir_entries(const char *path) {
    DIR *d = opendir(path);
    if (d == nullptr) return -1;
    int n = 0;
    while (dirent *e = readdir(d))
        if (e->d_name[0] != '.') ++n;
    closedir(d);
    return n;
}

// Open descriptors, not counting the one used to list them.
inline int open_fds() { return count_dir_entries("/proc/self/fd") - 1; }
inline int live_threads() { return count_dir_entries("/proc/self/task"); }

// Heap bytes in use: the sanitizer allocator's own count, or glibc's main
// arena (where the library's records are allocated by the calling thread).
inline size_t heap_in_use() {
#if OSTREL_TEST_SANITIZED
    return __sanitizer_get_current_allocated_bytes();
#else
    return mallinfo2().uordblks;
#endif
}

// Polls a condition every millisecond; false if it is still unmet after a
// generous bound (the bound only keeps a broken build from hanging).
inline bool eventually(const std::function<bool()> &cond, int bound_seconds = 60) {
    auto end = std::chrono::steady_clock::now() + std::chrono::seconds(bound_seconds);
    while (!cond()) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

// The process's thread count once the sanitizer runtimes have started any
// helper thread of their own (ThreadSanitizer starts one with the first
// thread the program creates).
inline int thread_baseline() {
    std::thread([] {}).join();
    return live_threads();
}

// Detached threads still run their last steps (closing the control pair,
// freeing the node) after Destroy has returned; this waits until the
// process is back to `baseline` threads.
inline bool threads_back_to(int baseline) {
    return eventually([baseline] { return live_threads() <= baseline; });
}

} // namespace tgtest

#ifdef OSTREL_TEST_INTERPOSE_ALLOC
// Allocation failures: a test file that defines OSTREL_TEST_INTERPOSE_ALLOC before
// including this header interposes the process's malloc, calloc and realloc so
// that it can make one of the next allocations fail and can count allocations. In sanitizer builds the
// runtime owns the allocator: nothing is interposed, OSTREL_ALLOC_INTERPOSED
// is 0 and the suites that need it skip themselves.

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

// Tables of calls: a call with an allocation to fail (-1: none), its code, the
// last error it leaves (77 before the call) and its log lines.
#include <gtest/gtest.h>

#include <functional>

#include "osl_internal.h"
#include "ostrel_error.h"

struct Row { int fail; std::function<uint32_t()> call; uint32_t code, last_error; std::string lines; };
#define ROW(call, code, last_error, lines) Row{-1, [&] { return call; }, code, last_error, lines}
#define FAIL_ROW(n, call, code, last_error, lines) Row{n, [&] { return call; }, code, last_error, lines}

// Runs the rows in order. The lines of source path `path` are taken as they
// are, others with their path in front; `edit` then makes them comparable
// (names for pointers, blanks for sizes). Rows that need a failed allocation
// are passed over where the sanitizer runtime owns the allocator.
inline void run_rows(const std::vector<Row> &rows, const std::string &path, const std::function<void(std::string &)> &edit) {
    for (size_t i = 0; i < rows.size(); ++i) {
        if (rows[i].fail >= 0 && !OSTREL_ALLOC_INTERPOSED) continue;
        LogCapture cap;
        g_OSL_errno = 77;
        alloc_failure::fail_allocation_number(rows[i].fail);
        EXPECT_EQ(rows[i].call(), rows[i].code) << "row " << i;
        alloc_failure::fail_allocation_number(-1);
        EXPECT_EQ(Ostrel_GetLastError(), rows[i].last_error) << "row " << i;
        std::string lines;
        for (const auto &l : cap.lines()) lines += (l.path == path ? "" : l.path + ": ") + l.text + "\n";
        edit(lines);
        EXPECT_EQ(lines, rows[i].lines) << "row " << i;
    }
}
#endif // OSTREL_TEST_INTERPOSE_ALLOC

#endif
