// Debug memory allocator.
#define OSL_SRC_PATH "src/memory"
#include <cstdlib>

#include "osl_frame.h"
#include "ostrel_memory.h"

void OSL_Mem_LeakMutexInit(void) {}

extern "C" {

OSTREL_API void *Ostrel_Malloc_D(uint64_t ullSize, const char *szFile, uint32_t uiLine) {
    (void)szFile;
    (void)uiLine;
    void *p = malloc(static_cast<size_t>(ullSize));
    g_OSL_errno = p ? 0 : OSL_ERR_NO_MEMORY;
    return p;
}

OSTREL_API void *Ostrel_Calloc_D(uint64_t ullCount, uint64_t ullSize, const char *szFile, uint32_t uiLine) {
    (void)szFile;
    (void)uiLine;
    void *p = calloc(static_cast<size_t>(ullCount), static_cast<size_t>(ullSize));
    g_OSL_errno = p ? 0 : OSL_ERR_NO_MEMORY;
    return p;
}

OSTREL_API void *Ostrel_Realloc_D(void *pvMem, uint64_t ullSize, const char *szFile, uint32_t uiLine) {
    (void)szFile;
    (void)uiLine;
    void *p = realloc(pvMem, static_cast<size_t>(ullSize));
    g_OSL_errno = p ? 0 : OSL_ERR_NO_MEMORY;
    return p;
}

OSTREL_API void Ostrel_Free(void *pvMem) { free(pvMem); }

} // extern "C"
