/**
 * @file ostrel_service.h
 *
 * Ostrel: service wrappers. They turn a program's main function into a
 * long-running process guarded by a write-locked pid file.
 *
 * Each wrapper (in service mode after detaching with daemon(), keeping the
 * working directory) creates the pid file, write-locks all of it without
 * waiting, truncates it and writes the process id as "%ld\n"; the file is
 * made world-writable (mode 0777) and stays open and locked for the life of
 * the process. It then calls the start callback once. If the callback returns
 * 0 the calling thread sleeps for ever while the threads the callback started
 * do the work; the process is stopped by a signal.
 *
 * A wrapper returns only when starting failed: with the callback's own
 * nonzero code, 0x90001 when daemonising or the pid file failed (a second
 * instance finds the file locked), or 0x9000F for a null name, directory or
 * callback. Pid files:
 *   service mode:      "./qmv_sv_<name>.pid"
 *   non-service mode:  "<directory>/qmv_ns_<name>.pid" (directory "./" when
 *                      none is given, which yields ".//qmv_ns_<name>.pid")
 * The whole path must fit in 255 characters. The library never deletes it.
 * argc and argv are accepted for the family's compatibility and not used.
 */
#ifndef OSTREL_SERVICE_H
#define OSTREL_SERVICE_H

#include "ostrel_common.h"

OSTREL_EXTERN_C_BEGIN

/** Start callbacks: 0 means the service has started. */
typedef uint32_t (*OstrelServiceStart)(void);
typedef uint32_t (*OstrelServiceStartEx)(void *pParam);

/** Service mode: daemon, "./qmv_sv_<name>.pid", callback(). */
OSTREL_API uint32_t Ostrel_Service_Wrapper(const char *szServiceName, int argc, char **argv,
                                           OstrelServiceStart pfnStart);
/** Service mode: daemon, "./qmv_sv_<name>.pid", callback(pParam). */
OSTREL_API uint32_t Ostrel_Service_Wrapper_Ex(const char *szServiceName, int argc, char **argv,
                                              OstrelServiceStartEx pfnStart, void *pParam);
/** Foreground: ".//qmv_ns_<name>.pid", callback(). */
OSTREL_API uint32_t Ostrel_NonService_Wrapper(const char *szServiceName, OstrelServiceStart pfnStart);
/** Foreground: ".//qmv_ns_<name>.pid", callback(pParam). */
OSTREL_API uint32_t Ostrel_NonService_Wrapper_Ex(const char *szServiceName, OstrelServiceStartEx pfnStart,
                                                 void *pParam);
/** Foreground: "<szPath>/qmv_ns_<name>.pid", callback(NULL). */
OSTREL_API uint32_t Ostrel_NonService_Wrapper_CustomPath(const char *szServiceName, const char *szPath,
                                                         OstrelServiceStartEx pfnStart);
/** Foreground: "<szPath>/qmv_ns_<name>.pid", callback(pParam). */
OSTREL_API uint32_t Ostrel_NonService_Wrapper_CustomPath_Ex(const char *szServiceName, const char *szPath,
                                                            OstrelServiceStartEx pfnStart, void *pParam);

OSTREL_EXTERN_C_END

#endif /* OSTREL_SERVICE_H */
