/* Ostrel: the process-wide error-info registry, in which modules store the
 * English and Chinese texts of their own error codes. */
#ifndef OSTREL_ERVIX_H
#define OSTREL_ERVIX_H

#include "ostrel_common.h"

OSTREL_EXTERN_C_BEGIN

/* Creates the registry's lock; run by the library's load-time initialiser.
 * Returns the result of the mutex creation (0 on success). */
OSTREL_API int Ervix_Init(void);

OSTREL_EXTERN_C_END

#endif /* OSTREL_ERVIX_H */
