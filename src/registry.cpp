// Error-info registry: per-module blocks of English and Chinese error texts.
#define OSL_SRC_PATH "src/registry"
#include <pthread.h>

#include "osl_frame.h"
#include "ostrel_ervix.h"

namespace {
pthread_mutex_t l_registry_lock;
} // namespace

extern "C" OSTREL_API int Ervix_Init(void) { return pthread_mutex_init(&l_registry_lock, nullptr); }
