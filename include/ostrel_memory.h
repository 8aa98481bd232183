/*
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

OSTREL_EXTERN_C_BEGIN

/* Index of the memory-debug option of Ostrel_SetOption. */
#define OSL_OPTION_MEMORY_DEBUG 1

/* Allocation functions: null on failure (last error 0x90006), last error 0 on
 * success. They do not log. */
OSTREL_API void *Ostrel_Malloc_D(uint64_t ullSize, const char *szFile, uint32_t uiLine);
OSTREL_API void *Ostrel_Calloc_D(uint64_t ullCount, uint64_t ullSize, const char *szFile, uint32_t uiLine);
OSTREL_API void *Ostrel_Realloc_D(void *pvMem, uint64_t ullSize, const char *szFile, uint32_t uiLine);
/* In debugging mode the pointer must not be null. */
OSTREL_API void Ostrel_Free(void *pvMem);

/* Convenience forms that record the caller's own file and line. */
#define OSTREL_MALLOC(size) Ostrel_Malloc_D((size), __FILE__, __LINE__)
#define OSTREL_CALLOC(count, size) Ostrel_Calloc_D((count), (size), __FILE__, __LINE__)
#define OSTREL_REALLOC(p, size) Ostrel_Realloc_D((p), (size), __FILE__, __LINE__)

OSTREL_EXTERN_C_END

#endif /* OSTREL_MEMORY_H */
