/** @file ostrel_error.h
 *
 * Ostrel: error texts and the last error. */
#ifndef OSTREL_ERROR_H
#define OSTREL_ERROR_H

#include "ostrel_common.h"

OSTREL_EXTERN_C_BEGIN

/** The process-wide last error (not per thread: a thread may see another
 * thread's code). Takes no lock and changes nothing. */
OSTREL_API uint32_t Ostrel_GetLastError(void);

/** The constant text of a code; never null, never to be freed.
 *  - module id (bits 31..16) above 1023: "Unregisted errno."
 *  - bit 15 set: the module-specific text of the whole code, or
 *    "Unregisted errno." when the code has none;
 *  - otherwise the generic text selected by bits 7..0 (bits 14..8 and the
 *    module id play no part); 0 and numbers above 52 give "Unregisted errno.".
 * Never fails and never changes the last error. */
OSTREL_API const char *Ostrel_GetErrorText(uint32_t uiCode);

/** Ostrel_GetErrorText(Ostrel_GetLastError()). */
OSTREL_API const char *Ostrel_GetLastErrorText(void);

OSTREL_EXTERN_C_END

#endif /* OSTREL_ERROR_H */
