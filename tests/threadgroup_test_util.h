// Helpers shared by the thread-group tests: counting the process's open
// descriptors, threads and live heap bytes, and waiting for detached threads
// to be gone.
#ifndef OSTREL_TEST_THREADGROUP_TEST_UTIL_H
#define OSTREL_TEST_THREADGROUP_TEST_UTIL_H

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

#endif
