// Library-internal globals and helpers shared by every subsystem (and by the
// unit tests of internal functions).
#ifndef OSL_INTERNAL_H
#define OSL_INTERNAL_H

#include <cstddef>
#include <cstdint>

// Process-wide last error; written without a lock by every exported function.
extern uint32_t g_OSL_errno;
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
