// Load-time initialisation, run once when the library is loaded: the
// registry's lock, the log context, the leak-list lock and the thread-group
// subsystem, in that order. No result is checked; nothing runs at unload.
#define OSL_SRC_PATH "src/init"
#include "osl_frame.h"
#include "ostrel_ervix.h"

namespace {

__attribute__((constructor)) void _Ostrel_LoadInit(void) {
    (void)Ervix_Init();
    (void)OSL_Log_Init();
    OSL_Mem_LeakMutexInit();
    _Ostrel_ThreadGroup_Init();
}

} // namespace
