// Debug memory allocator. With debugging off the four allocation functions
// are the system's malloc, calloc, realloc and free behind one flag check.
// Switched on (once, before any of them has run), every block carries a
// 96-byte header with its origin and a head magic, a tail guard right after
// the caller's bytes, and sits on a circular leak list, newest first, that
// Ostrel_MemorySummary writes out.
#define OSL_SRC_PATH "src/memory"
#include <pthread.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "osl_frame.h"
#include "ostrel_memory.h"

namespace {

constexpr uint32_t kHeadMagic = 0xCABEFADEu;
constexpr uint32_t kTailGuard = 0xFACEBADEu;
constexpr size_t kFileNameLen = 64;

// Header in front of every tracked block; the caller's bytes follow it
// directly and the tail guard follows them, unaligned where the size is not a
// multiple of 4.
struct MemHeader {
    uint32_t uiMagic;
    uint32_t uiLine;
    uint64_t ullSize; // what the caller asked for (count * size for calloc)
    MemHeader *pPrev;  // towards the oldest block; the newest's previous is the oldest
    MemHeader *pNext;  // towards the older blocks, wrapping round to the newest
    char szFile[kFileNameLen];
};

static_assert(sizeof(void *) == 8, "the block header is laid out for 64-bit pointers");
static_assert(sizeof(MemHeader) == 96, "block header is 96 bytes");
static_assert(offsetof(MemHeader, uiMagic) == 0, "head magic at 0");
static_assert(offsetof(MemHeader, uiLine) == 4, "line at 4");
static_assert(offsetof(MemHeader, ullSize) == 8, "size at 8");
static_assert(offsetof(MemHeader, pPrev) == 16, "previous block at 16");
static_assert(offsetof(MemHeader, pNext) == 24, "next block at 24");
static_assert(offsetof(MemHeader, szFile) == 32, "file name at 32");

constexpr size_t kHeaderLen = sizeof(MemHeader);
constexpr size_t kBlockExtra = kHeaderLen + sizeof(uint32_t);
static_assert(kBlockExtra == 100, "a tracked block is 100 bytes longer than asked");

// The one-way debugging switch and the "an allocation function has run" flag,
// in one word so that the usual state (run, debugging off) is one load and
// one compare on the way to the system allocator, and so that the switch and
// the first allocation decide atomically which came first.
constexpr uint32_t kApiInvoked = 1u;
constexpr uint32_t kDebugOn = 2u;
std::atomic<uint32_t> l_mem_state{0};

// Created at load time only when debugging is already on then.
pthread_mutex_t *l_leak_mutex = nullptr;
uint32_t l_leak_count = 0;
MemHeader *l_leak_newest = nullptr;

// Fast-path test: true unless an allocation function has run with debugging
// off. Once that holds it holds for good, since debugging can only be
// switched on before the first call.
inline bool not_plain() { return __builtin_expect(l_mem_state.load(std::memory_order_relaxed) != kApiInvoked, 0); }

// Sets the flag and tells whether debugging is on.
inline bool mark_invoked_debug_on() {
    uint32_t s = l_mem_state.load(std::memory_order_relaxed);
    if ((s & kApiInvoked) == 0) s = l_mem_state.fetch_or(kApiInvoked, std::memory_order_acq_rel);
    return (s & kDebugOn) != 0;
}

inline bool debug_on() { return (l_mem_state.load(std::memory_order_relaxed) & kDebugOn) != 0; }

// The leak list's lock. While the global lock is null (always, since it is
// only made at load time and debugging is never on then), each tracked call
// makes a mutex of its own, locks it and abandons it, and the release finds
// the global null and unlocks nothing: the list is in effect not serialised
// between threads. The call's own mutex lives in this object on the caller's
// stack, so nothing is leaked.
class LeakListLock {
public:
    LeakListLock() : global_(l_leak_mutex) {
        if (global_ != nullptr) {
            pthread_mutex_lock(global_);
            return;
        }
        pthread_mutex_init(&own_, nullptr);
        pthread_mutex_lock(&own_);
    }
    ~LeakListLock() {
        if (global_ != nullptr) pthread_mutex_unlock(global_);
    }
    LeakListLock(const LeakListLock &) = delete;
    LeakListLock &operator=(const LeakListLock &) = delete;

private:
    pthread_mutex_t *global_;
    pthread_mutex_t own_;
};

inline MemHeader *header_of(void *pvUser) {
    return reinterpret_cast<MemHeader *>(static_cast<unsigned char *>(pvUser) - kHeaderLen);
}
inline unsigned char *user_of(MemHeader *h) { return reinterpret_cast<unsigned char *>(h) + kHeaderLen; }

inline uint32_t read_tail(MemHeader *h) {
    uint32_t v;
    memcpy(&v, user_of(h) + h->ullSize, sizeof v);
    return v;
}

// Head magic first: the size that locates the tail guard is only trusted
// once the header looks like ours.
inline bool block_ok(MemHeader *h) { return h->uiMagic == kHeadMagic && read_tail(h) == kTailGuard; }

// Size of a tracked block for a caller's size, or 0 when it cannot be had.
inline size_t tracked_len(uint64_t ullSize) {
    if (ullSize > static_cast<uint64_t>(SIZE_MAX) - kBlockExtra) return 0;
    return static_cast<size_t>(ullSize) + kBlockExtra;
}

void fill_header(MemHeader *h, uint64_t ullSize, const char *szFile, uint32_t uiLine) {
    h->szFile[0] = '\0'; // a null file name leaves it empty
    strrncpy(h->szFile, szFile, kFileNameLen);
    h->uiLine = uiLine;
    memcpy(user_of(h) + ullSize, &kTailGuard, sizeof kTailGuard);
    h->uiMagic = kHeadMagic;
    h->ullSize = ullSize;
}

// The new block goes between the newest and the oldest and becomes the newest.
void leak_insert(MemHeader *h) {
    LeakListLock lock;
    ++l_leak_count;
    if (l_leak_newest == nullptr) {
        h->pPrev = h;
        h->pNext = h;
    } else {
        MemHeader *oldest = l_leak_newest->pPrev;
        h->pNext = l_leak_newest;
        h->pPrev = oldest;
        oldest->pNext = h;
        l_leak_newest->pPrev = h;
    }
    l_leak_newest = h;
}

// Takes a block off the list; if it was the newest, its next becomes the
// newest, or the list empties if it was alone. An unlinked block is left
// linked to itself, so a block already taken off (a realloc that failed left
// it with the caller) is recognised and not unlinked twice.
void leak_unlink(MemHeader *h) {
    LeakListLock lock;
    if (h->pNext == h) {
        if (l_leak_newest != h) return;
        l_leak_newest = nullptr;
    } else {
        h->pPrev->pNext = h->pNext;
        h->pNext->pPrev = h->pPrev;
        if (l_leak_newest == h) l_leak_newest = h->pNext;
    }
    h->pPrev = h;
    h->pNext = h;
    --l_leak_count;
}

void *track(void *pvBlock, uint64_t ullSize, const char *szFile, uint32_t uiLine) {
    auto *h = static_cast<MemHeader *>(pvBlock);
    fill_header(h, ullSize, szFile, uiLine);
    leak_insert(h);
    OSL_SET_LAST_ERROR(0);
    return user_of(h);
}

void write_block_line(const char *szPath, const MemHeader *h) {
    OSL_Log_RecordToFile_Raw_V(szPath, "Memory block: %d bytes allocated at %s - %d.\n", static_cast<int>(h->ullSize),
                               h->szFile, static_cast<int>(h->uiLine));
}

void write_crashed(const char *szPath, const MemHeader *h) {
    OSL_Log_RecordToFile_Raw_V(szPath, "Crashed memory block: %p.\n", static_cast<const void *>(h));
}

// Result of a system-allocator call with debugging off.
inline void *plain_result(void *p) {
    OSL_SET_LAST_ERROR(p ? 0 : OSL_ERR_NO_MEMORY);
    return p;
}

inline void *no_memory() {
    OSL_SET_LAST_ERROR(OSL_ERR_NO_MEMORY);
    return nullptr;
}

// The slow paths: first calls of the process, and every call in debugging
// mode. Kept out of line so the usual path stays a load, a compare and the
// system call.
__attribute__((noinline)) void *malloc_slow(uint64_t ullSize, const char *szFile, uint32_t uiLine) {
    if (!mark_invoked_debug_on()) return plain_result(malloc(static_cast<size_t>(ullSize)));
    size_t len = tracked_len(ullSize);
    void *block = len ? malloc(len) : nullptr;
    if (block == nullptr) return no_memory();
    return track(block, ullSize, szFile, uiLine);
}

__attribute__((noinline)) void *calloc_slow(uint64_t ullCount, uint64_t ullSize, const char *szFile,
                                            uint32_t uiLine) {
    if (!mark_invoked_debug_on())
        return plain_result(calloc(static_cast<size_t>(ullCount), static_cast<size_t>(ullSize)));
    uint64_t total = 0;
    size_t len = __builtin_mul_overflow(ullCount, ullSize, &total) ? 0 : tracked_len(total);
    void *block = len ? calloc(1, len) : nullptr;
    if (block == nullptr) return no_memory();
    return track(block, total, szFile, uiLine);
}

__attribute__((noinline)) void *realloc_slow(void *pvMem, uint64_t ullSize, const char *szFile, uint32_t uiLine) {
    if (!mark_invoked_debug_on()) return plain_result(realloc(pvMem, static_cast<size_t>(ullSize)));
    // A good block is resized from its header; anything else (null, or a
    // pointer whose magic or guard is not ours) goes to realloc as it is.
    void *base = pvMem;
    if (pvMem != nullptr) {
        MemHeader *h = header_of(pvMem);
        if (block_ok(h)) {
            leak_unlink(h);
            base = h;
        }
    }
    size_t len = tracked_len(ullSize);
    void *block = len ? realloc(base, len) : nullptr;
    if (block == nullptr) return no_memory(); // the old block stays valid for the caller, off the list
    return track(block, ullSize, szFile, uiLine);
}

__attribute__((noinline)) void free_slow(void *pvMem) {
    if (!mark_invoked_debug_on()) {
        free(pvMem);
        return;
    }
    if (pvMem == nullptr) return; // nothing in front of it to release
    MemHeader *h = header_of(pvMem);
    if (block_ok(h)) {
        leak_unlink(h);
        h->uiMagic = 0;
    }
    // A block whose magic or guard is broken is released as well, without
    // being taken off the list and without a word.
    free(h);
}

} // namespace

void OSL_Mem_LeakMutexInit(void) {
    if (!debug_on()) return;
    auto *m = static_cast<pthread_mutex_t *>(malloc(sizeof(pthread_mutex_t)));
    if (m == nullptr) return;
    if (pthread_mutex_init(m, nullptr) != 0) {
        free(m);
        return;
    }
    l_leak_mutex = m;
}

extern "C" {

OSTREL_API void *Ostrel_Malloc_D(uint64_t ullSize, const char *szFile, uint32_t uiLine) {
    if (not_plain()) return malloc_slow(ullSize, szFile, uiLine);
    return plain_result(malloc(static_cast<size_t>(ullSize)));
}

OSTREL_API void *Ostrel_Calloc_D(uint64_t ullCount, uint64_t ullSize, const char *szFile, uint32_t uiLine) {
    if (not_plain()) return calloc_slow(ullCount, ullSize, szFile, uiLine);
    return plain_result(calloc(static_cast<size_t>(ullCount), static_cast<size_t>(ullSize)));
}

OSTREL_API void *Ostrel_Realloc_D(void *pvMem, uint64_t ullSize, const char *szFile, uint32_t uiLine) {
    if (not_plain()) return realloc_slow(pvMem, ullSize, szFile, uiLine);
    return plain_result(realloc(pvMem, static_cast<size_t>(ullSize)));
}

OSTREL_API void Ostrel_Free(void *pvMem) {
    if (not_plain()) {
        free_slow(pvMem);
        return;
    }
    free(pvMem);
}

// Once an allocation function has run with debugging off, debugging can never
// come on: from then on the header's inline forms may call the system
// allocator themselves and store into the last-error cell as we do.
OSTREL_API uint32_t *Ostrel_MemoryPlainCell(void) {
    return not_plain() ? nullptr : g_OSL_errno.cell();
}

OSTREL_API void Ostrel_MemorySummary(const char *szFilePath) {
    if (!debug_on() || szFilePath == nullptr) return;
    OSL_Log_RecordToFile_Raw_V(szFilePath, "[New summary]\n");
    MemHeader *newest = l_leak_newest;
    if (newest == nullptr) {
        OSL_Log_RecordToFile_Raw_V(szFilePath, "No memory block existed.\n");
        return;
    }
    // Forward from the newest towards the oldest, until back at the newest or
    // at a block whose guards are broken (its links cannot be trusted).
    MemHeader *bad = nullptr;
    MemHeader *h = newest;
    do {
        if (!block_ok(h)) {
            bad = h;
            break;
        }
        write_block_line(szFilePath, h);
        h = h->pNext;
    } while (h != newest);
    if (bad == nullptr) return;
    write_crashed(szFilePath, bad);
    if (bad == newest || newest->pPrev == newest) return;
    // Then backward from the oldest towards the newer blocks, to report what
    // lies beyond the broken one.
    for (h = newest->pPrev; h != newest; h = h->pPrev) {
        if (!block_ok(h)) {
            write_crashed(szFilePath, h);
            return;
        }
        write_block_line(szFilePath, h);
    }
}

OSTREL_API uint32_t Ostrel_OutputBuffer(const void *pvSrc, int32_t iSrcLen, void *pvDst, int32_t *piDstLen) {
    OSL_ASSERT_ARG(NULL != piDstLen);
    OSL_ASSERT_ARG(iSrcLen >= 0);
    OSL_ASSERT_ARG(((NULL != pvSrc) || (iSrcLen <= 0)));
    if (pvDst == nullptr) {
        *piDstLen = iSrcLen;
        OSL_RETURN(0);
    }
    if (iSrcLen > *piDstLen) {
        OSL_LOG(LOG_LEVEL_ERROR, "Parameter buf_len(%d) is less than out_len(%d).", iSrcLen, *piDstLen);
        *piDstLen = iSrcLen;
        OSL_RETURN(OSL_ERR_NO_MEMORY);
    }
    if (iSrcLen > 0) memcpy(pvDst, pvSrc, static_cast<size_t>(iSrcLen));
    *piDstLen = iSrcLen;
    OSL_LOG_BIN(LOG_LEVEL_INFO, "Ostrel_OutputBuffer() copy data", pvDst, iSrcLen);
    OSL_RETURN(0);
}

OSTREL_API uint32_t Ostrel_SetOption(int32_t iIndex, void *pvValue) {
    if (iIndex != OSL_OPTION_MEMORY_DEBUG) {
        OSL_LOG(LOG_LEVEL_ERROR, "Unknown option index: %d.", iIndex);
        OSL_RETURN(OSL_ERR_INVALID_PARAMETER);
    }
    uint32_t state = l_mem_state.load(std::memory_order_acquire);
    if (state & kDebugOn) OSL_RETURN(0);
    if (state & kApiInvoked) {
        OSL_LOG(LOG_LEVEL_ERROR, "Memory debug option must be set before invoking any memory API.");
        OSL_RETURN(OSL_ERR_INVALID_COMMAND);
    }
    if (reinterpret_cast<uintptr_t>(pvValue) != 1) {
        OSL_LOG(LOG_LEVEL_ERROR, "Invalid option value for memory debug option: %p.", pvValue);
        OSL_RETURN(OSL_ERR_INVALID_PARAMETER);
    }
    // Switched on only if still untouched; an allocation function that got in
    // first (or a concurrent switch) decides otherwise.
    if (!l_mem_state.compare_exchange_strong(state, kDebugOn, std::memory_order_acq_rel)) {
        if (state & kDebugOn) OSL_RETURN(0);
        OSL_LOG(LOG_LEVEL_ERROR, "Memory debug option must be set before invoking any memory API.");
        OSL_RETURN(OSL_ERR_INVALID_COMMAND);
    }
    OSL_RETURN(0);
}

} // extern "C"
