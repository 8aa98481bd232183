// Library-internal globals and helpers shared by every subsystem (and by the
// unit tests of internal functions).
#ifndef OSL_INTERNAL_H
#define OSL_INTERNAL_H

#include <atomic>
#include <cstddef>
#include <cstdint>

// The process-wide last error: one unsigned 32-bit cell written without a lock
// by every exported function on every thread. Plain assignments and reads are
// relaxed atomic operations, so concurrent writers are well defined and cost
// no more than ordinary stores; a reader sees the latest value written by
// any thread.
class OslLastError {
public:
    OslLastError &operator=(uint32_t v) {
        __atomic_store_n(&value_, v, __ATOMIC_RELAXED);
        return *this;
    }
    operator uint32_t() const { return __atomic_load_n(&value_, __ATOMIC_RELAXED); }
    // The cell itself, for the allocation header's inline forms, which store
    // into it with the same relaxed atomic stores.
    uint32_t *cell() { return &value_; }

private:
    uint32_t value_ = 0;
};
static_assert(sizeof(OslLastError) == 4, "the last error is one 32-bit cell");
extern OslLastError g_OSL_errno;
// The library's log context, opened once at load time.
extern uint64_t _hErvix_LogContext;
extern const char g_Ostrel_VersionString[];

// Name of the module a code belongs to ("???" when unknown).
const char *Local_GetErrModule(uint32_t uiCode);
int OSL_Log_Init(void);
void OSL_Log_RecordToFile_Raw_V(const char *szPath, const char *szFormat, ...) __attribute__((format(printf, 2, 3)));
char *strrncpy(char *szDst, const char *szSrc, size_t n);
void OSL_Mem_LeakMutexInit(void);
void _Ostrel_ThreadGroup_Init(void);

#endif // OSL_INTERNAL_H
