/**
 * @file ostrel_memory.h
 *
 * Ostrel: debug memory allocator.
 *
 * With memory debugging off (the default) these are malloc, calloc, realloc
 * and free. Switched on with Ostrel_SetOption(OSL_OPTION_MEMORY_DEBUG, (void *)1)
 * before the first call of any of them, every block records the file and line
 * that asked for it, is guarded at both ends and stays on a leak list that
 * Ostrel_MemorySummary() writes out. Memory from these functions must be
 * released with Ostrel_Free (or resized with Ostrel_Realloc_D), never free().
 */
#ifndef OSTREL_MEMORY_H
#define OSTREL_MEMORY_H

#include "ostrel_common.h"

#if (defined(__GNUC__) || defined(__clang__)) && !defined(OSTREL_NO_INLINE_ALLOC)
#include <stdlib.h> /* malloc, calloc, realloc and free for the inline forms below */
#endif

OSTREL_EXTERN_C_BEGIN

/** Index of the memory-debug option of Ostrel_SetOption. */
#define OSL_OPTION_MEMORY_DEBUG 1

/** Allocation functions: null on failure (last error 0x90006), last error 0 on
 * success. They do not log. */
OSTREL_API void *Ostrel_Malloc_D(uint64_t ullSize, const char *szFile, uint32_t uiLine);
/** Allocates ullCount * ullSize zero-filled bytes (a product that overflows
 * fails with 0x90006); tracked with szFile and uiLine in debugging mode. */
OSTREL_API void *Ostrel_Calloc_D(uint64_t ullCount, uint64_t ullSize, const char *szFile, uint32_t uiLine);
/** In debugging mode the resized block takes this call's file and line and
 * becomes the newest. A pointer that is not a good tracked block (null, or one
 * whose guards are broken) is handed to realloc as it is. When the resize
 * fails, the old block stays valid for the caller but is off the leak list. */
OSTREL_API void *Ostrel_Realloc_D(void *pvMem, uint64_t ullSize, const char *szFile, uint32_t uiLine);
/** In debugging mode a pointer whose guards are broken is released without
 * being taken off the leak list; a null pointer is ignored. */
OSTREL_API void Ostrel_Free(void *pvMem);

/** Writes the live blocks to the text file at szFilePath (appended, created if
 * missing). Does nothing while debugging is off. The summary is
 *   "[New summary]\n"
 * then "No memory block existed.\n" for an empty list, or one line per block,
 * newest first:
 *   "Memory block: <size> bytes allocated at <file> - <line>.\n"
 * A block whose head magic or tail guard is broken stops the walk with
 *   "Crashed memory block: <address of its header>.\n"
 * and the walk resumes from the oldest block towards the newer ones, up to
 * the broken block (reported once more) or back to the newest. Takes no lock:
 * call it while no other thread allocates. */
OSTREL_API void Ostrel_MemorySummary(const char *szFilePath);

/** Copies iSrcLen bytes of pvSrc to the caller's buffer pvDst, whose room is in
 * *piDstLen; *piDstLen receives the length needed in every case.
 *  - pvDst null: a size query, returns 0;
 *  - iSrcLen above the room: nothing copied, returns 0x90006;
 *  - null piDstLen, negative iSrcLen, or null pvSrc with iSrcLen above 0:
 *    0x9000F (the last error is then left as it was).
 * Otherwise returns 0. */
OSTREL_API uint32_t Ostrel_OutputBuffer(const void *pvSrc, int32_t iSrcLen, void *pvDst, int32_t *piDstLen);

/** Sets a library option. OSL_OPTION_MEMORY_DEBUG with the value (void *)1
 * switches memory debugging on, for good; it must be done before any of the
 * allocation functions above has been called, by any thread (else 0x90016,
 * and debugging stays off). Once on, setting it again returns 0 whatever the
 * value. Another value while off, or an unknown index: 0x9000F. The result is
 * also the last error.
 * In debugging mode a block costs 100 bytes more; every allocating call and
 * Ostrel_Free update the one leak list, which is not serialised between
 * threads. */
OSTREL_API uint32_t Ostrel_SetOption(int32_t iIndex, void *pvValue);

/** The process's last-error cell once the allocation functions are the
 * system's for good: an allocation function has run while memory debugging
 * was off, so it can never be switched on. Null before that and in debugging
 * mode. The inline forms below use it to reach malloc, calloc, realloc and
 * free without a call into the library, setting the last error as the
 * functions do (relaxed atomic stores); applications need not call it. */
OSTREL_API uint32_t *Ostrel_MemoryPlainCell(void);

/** Convenience forms that record the caller's own file and line. */
#define OSTREL_MALLOC(size) Ostrel_Malloc_D((size), __FILE__, __LINE__)
#define OSTREL_CALLOC(count, size) Ostrel_Calloc_D((count), (size), __FILE__, __LINE__)
#define OSTREL_REALLOC(p, size) Ostrel_Realloc_D((p), (size), __FILE__, __LINE__)

/* With GCC or Clang, calls of the four allocation functions go through the
 * inline forms below: once Ostrel_MemoryPlainCell has answered (the first
 * call of each source file asks it), a call is the system function and the
 * last-error store, as cheap as calling malloc or free directly. Until then,
 * and always in debugging mode, they call the library. Taking a function's
 * address, or writing its name in parentheses, still names the library's
 * function. Define OSTREL_NO_INLINE_ALLOC before including this header to
 * call the library every time. */
#if (defined(__GNUC__) || defined(__clang__)) && !defined(OSTREL_NO_INLINE_ALLOC)

/* A size the caller computes may be any 64-bit value; a huge one fails with
 * 0x90006 like any other failed allocation, so GCC's warning about constant
 * huge sizes reaching malloc stays quiet for these forms. */
#if defined(__GNUC__) && !defined(__clang__) && __GNUC__ >= 7
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Walloc-size-larger-than="
#define OSTREL_INLINE_ALLOC_POP_ 1
#endif

/* This source file's copy of the answer of Ostrel_MemoryPlainCell. */
static __inline__ uint32_t **ostrel_plain_slot_(void) {
    static uint32_t *slot;
    return &slot;
}
static __inline__ uint32_t *ostrel_plain_cell_(void) { return __atomic_load_n(ostrel_plain_slot_(), __ATOMIC_RELAXED); }
static __inline__ void ostrel_plain_ask_(void) {
    __atomic_store_n(ostrel_plain_slot_(), Ostrel_MemoryPlainCell(), __ATOMIC_RELAXED);
}
static __inline__ void *ostrel_plain_result_(uint32_t *cell, void *p) {
    __atomic_store_n(cell, p != NULL ? 0u : OSL_ERR_NO_MEMORY, __ATOMIC_RELAXED);
    return p;
}

static __inline__ void *ostrel_malloc_inline_(uint64_t ullSize, const char *szFile, uint32_t uiLine) {
    uint32_t *cell = ostrel_plain_cell_();
    void *p;
    if (__builtin_expect(cell != NULL, 1)) return ostrel_plain_result_(cell, malloc((size_t)ullSize));
    p = (Ostrel_Malloc_D)(ullSize, szFile, uiLine);
    ostrel_plain_ask_();
    return p;
}
static __inline__ void *ostrel_calloc_inline_(uint64_t ullCount, uint64_t ullSize, const char *szFile, uint32_t uiLine) {
    uint32_t *cell = ostrel_plain_cell_();
    void *p;
    if (__builtin_expect(cell != NULL, 1)) return ostrel_plain_result_(cell, calloc((size_t)ullCount, (size_t)ullSize));
    p = (Ostrel_Calloc_D)(ullCount, ullSize, szFile, uiLine);
    ostrel_plain_ask_();
    return p;
}
static __inline__ void *ostrel_realloc_inline_(void *pvMem, uint64_t ullSize, const char *szFile, uint32_t uiLine) {
    uint32_t *cell = ostrel_plain_cell_();
    void *p;
    if (__builtin_expect(cell != NULL, 1)) return ostrel_plain_result_(cell, realloc(pvMem, (size_t)ullSize));
    p = (Ostrel_Realloc_D)(pvMem, ullSize, szFile, uiLine);
    ostrel_plain_ask_();
    return p;
}
static __inline__ void ostrel_free_inline_(void *pvMem) {
    if (__builtin_expect(ostrel_plain_cell_() != NULL, 1)) {
        free(pvMem);
        return;
    }
    (Ostrel_Free)(pvMem);
    ostrel_plain_ask_();
}

#ifdef OSTREL_INLINE_ALLOC_POP_
#pragma GCC diagnostic pop
#undef OSTREL_INLINE_ALLOC_POP_
#endif

#define Ostrel_Malloc_D(size, file, line) ostrel_malloc_inline_((size), (file), (line))
#define Ostrel_Calloc_D(count, size, file, line) ostrel_calloc_inline_((count), (size), (file), (line))
#define Ostrel_Realloc_D(p, size, file, line) ostrel_realloc_inline_((p), (size), (file), (line))
#define Ostrel_Free(p) ostrel_free_inline_(p)
#endif

OSTREL_EXTERN_C_END

#endif /* OSTREL_MEMORY_H */
