/*
 * libZurn_general: the product family's support library.
 *
 * Logging
 * -------
 * Each module opens one log context with ZurnGeneral_IsNeedLogFile(); its lines
 * go to "<module>.log" in the directory named by the environment variable
 * ZURN_LOG_DIR (the current directory when unset or empty). Every line reads
 *
 *   2026-11-21 04:50:01.123 INFO  [pid:tid] src/list:123 message
 *
 * Lines below the level threshold are dropped before any formatting. The
 * threshold is read from ZURN_LOG_LEVEL when the first context opens
 * ("TRACE", "INFO", "WARN", "ERROR", "OFF", or a number 1, 2, 4, 8, 16;
 * default INFO) and can be changed at run time with ZurnGeneral_SetLogLevel().
 * A context handle of 0 makes every log call a harmless no-op.
 *
 * When a file grows past the settings' size limit it is renamed to
 * "<module>.log.1" (older ones shift to .2, .3, ... up to the settings' backup
 * count) and a new file is started. All calls are thread-safe: a line is
 * written with one write() under the context's lock, so lines never interleave.
 *
 * An application (or a test) can also receive every line that passes the
 * threshold through ZurnGeneral_SetLogSink(); with ZURN_LOG_SINK_ONLY the
 * files are not written while the sink is set.
 */
#ifndef ZURN_GENERAL_H
#define ZURN_GENERAL_H

#include <stdint.h>

#if defined(__GNUC__)
#define ZURN_API __attribute__((visibility("default")))
#else
#define ZURN_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* How a module wants its log file kept. Field order and widths are fixed. */
typedef struct LogFileSettings {
    int32_t iBackupCount;       /* rotated files kept beside the live one */
    const char *szModuleName;   /* log name: "<name>.log" */
    int32_t iEnabled;           /* 0: open no file, the handle stays 0 */
    int32_t iMaxLineLength;     /* longest formatted message kept, in bytes */
    int32_t iMaxFileSize;       /* rotate when the file passes this size; <= 0: never */
    int32_t iSyncEachLine;      /* nonzero: fdatasync() after every line */
    int32_t iReserved1;
    uint64_t ullReserved2;
    int32_t iShowThreadId;      /* nonzero: write "[pid:tid]" */
    int32_t iShowMilliseconds;  /* nonzero: milliseconds in the time stamp */
    uint64_t ullReserved3;
    int32_t iReserved4;
} LogFileSettings;

/* Open (or find) the log context of pSettings->szModuleName and store its
 * handle in *phContext (0 when logging is disabled for it). iFlag is kept for
 * the family's compatibility and must be 1. Returns 1 when a context was
 * stored, 0 otherwise. Contexts live as long as the process. */
ZURN_API int ZurnGeneral_IsNeedLogFile(const LogFileSettings *pSettings, uint64_t *phContext, int iFlag);

/* Write one printf-formatted line at iLevel, tagged with the source path and
 * line of the logging statement. Returns 1 when written, 0 when filtered. */
ZURN_API int ZurnGeneral_RecordAppLogToFileEx2_V(uint64_t hContext, int iLevel, const char *szSrcPath,
                                                 int iLine, const char *szFormat, ...)
#if defined(__GNUC__)
    __attribute__((format(printf, 5, 6)))
#endif
    ;

/* Write szCaption followed by a hex dump of pData (16 bytes a line). */
ZURN_API int ZurnGeneral_RecordBinaryLogInfoEx2(uint64_t hContext, int iLevel, const char *szSrcPath,
                                                int iLine, const char *szCaption, const void *pData,
                                                int iLength);

/* Lowest level written (1 TRACE, 2 INFO, 4 WARN, 8 ERROR, 16 nothing).
 * Returns the previous threshold. */
ZURN_API int ZurnGeneral_SetLogLevel(int iLevel);
ZURN_API int ZurnGeneral_GetLogLevel(void);

/* Receives each line that passes the threshold: the module's log name, the
 * level, the source path and line, and the formatted text (for a hex dump:
 * the caption followed by the dump lines). Called on the logging thread. */
typedef void (*ZurnLogSinkFn)(void *pUser, const char *szModule, int iLevel, const char *szSrcPath,
                              int iLine, const char *szText);

#define ZURN_LOG_SINK_AND_FILE 0
#define ZURN_LOG_SINK_ONLY 1

/* Install (or, with a null function, remove) the process-wide sink. */
ZURN_API void ZurnGeneral_SetLogSink(ZurnLogSinkFn pfnSink, void *pUser, int iMode);

#ifdef __cplusplus
}
#endif

#endif /* ZURN_GENERAL_H */
