// Thread groups.
#define OSL_SRC_PATH "src/tdctl"
#include "osl_frame.h"

// The thread-group subsystem needs no load-time work.
void _Ostrel_ThreadGroup_Init(void) {}
