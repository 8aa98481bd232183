// Debug memory allocator.
#define OSL_SRC_PATH "src/memory"
#include "osl_frame.h"

void OSL_Mem_LeakMutexInit(void) {}
