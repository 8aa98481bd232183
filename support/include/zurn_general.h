/**
 * @file zurn_general.h
 *
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

/** How a module wants its log file kept. Field order and widths are fixed. */
typedef struct LogFileSettings {
    int32_t iBackupCount;       /**< rotated files kept beside the live one */
    const char *szModuleName;   /**< log name: "<name>.log" */
    int32_t iEnabled;           /**< 0: open no file, the handle stays 0 */
    int32_t iMaxLineLength;     /**< longest formatted message kept, in bytes */
    int32_t iMaxFileSize;       /**< rotate when the file passes this size; <= 0: never */
    int32_t iSyncEachLine;      /**< nonzero: fdatasync() after every line */
    int32_t iReserved1;
    uint64_t ullReserved2;
    int32_t iShowThreadId;      /**< nonzero: write "[pid:tid]" */
    int32_t iShowMilliseconds;  /**< nonzero: milliseconds in the time stamp */
    uint64_t ullReserved3;
    int32_t iReserved4;
} LogFileSettings;

/** Open (or find) the log context of pSettings->szModuleName and store its
 * handle in *phContext (0 when logging is disabled for it). iFlag is kept for
 * the family's compatibility and must be 1. Returns 1 when a context was
 * stored, 0 otherwise. Contexts live as long as the process. */
ZURN_API int ZurnGeneral_IsNeedLogFile(const LogFileSettings *pSettings, uint64_t *phContext, int iFlag);

/** Write one printf-formatted line at iLevel, tagged with the source path and
 * line of the logging statement. Returns 1 when written, 0 when filtered. */
ZURN_API int ZurnGeneral_RecordAppLogToFileEx2_V(uint64_t hContext, int iLevel, const char *szSrcPath,
                                                 int iLine, const char *szFormat, ...)
#if defined(__GNUC__)
    __attribute__((format(printf, 5, 6)))
#endif
    ;

/** Write szCaption followed by a hex dump of pData (16 bytes a line). */
ZURN_API int ZurnGeneral_RecordBinaryLogInfoEx2(uint64_t hContext, int iLevel, const char *szSrcPath,
                                                int iLine, const char *szCaption, const void *pData,
                                                int iLength);

/** Lowest level written (1 TRACE, 2 INFO, 4 WARN, 8 ERROR, 16 nothing).
 * Returns the previous threshold. */
ZURN_API int ZurnGeneral_SetLogLevel(int iLevel);
/** The current threshold (a level of ZurnGeneral_SetLogLevel). */
ZURN_API int ZurnGeneral_GetLogLevel(void);

/** Receives each line that passes the threshold: the module's log name, the
 * level, the source path and line, and the formatted text (for a hex dump:
 * the caption followed by the dump lines). Called on the logging thread. */
typedef void (*ZurnLogSinkFn)(void *pUser, const char *szModule, int iLevel, const char *szSrcPath,
                              int iLine, const char *szText);

#define ZURN_LOG_SINK_AND_FILE 0
#define ZURN_LOG_SINK_ONLY 1

/** Install (or, with a null function, remove) the process-wide sink. */
ZURN_API void ZurnGeneral_SetLogSink(ZurnLogSinkFn pfnSink, void *pUser, int iMode);

#ifdef __cplusplus
}
#endif

/* ======================================================================
 * Sockets and worker threads
 * ======================================================================
 *
 * IPv4 TCP sockets kept in a fixed 48-byte record (ZurnSocket) whose first
 * field is the operating system's descriptor. Descriptors are close-on-exec;
 * listening ones are non-blocking, connected ones blocking with their wait
 * limits kept as socket options (changed only when a call asks for a
 * different limit), and they have TCP_NODELAY set. Every call
 * returns 1 on success and another value on failure; after a failure,
 * NetWork_GetErrorText() describes it, e.g. "connect: Connection refused".
 * That text is kept per thread, so it always belongs to the calling thread's
 * own last failed call.
 *
 * Time-outs are in milliseconds and bound the whole call; 0 means no limit
 * (wait for as long as it takes). S_SendEx and S_ReceiveEx move exactly the
 * bytes asked, resuming after partial transfers and interrupted calls; they
 * never raise SIGPIPE. A peer that closes the connection, a reset, and a
 * time-out with the transfer unfinished are all failures, after which the
 * stream is no longer on a known boundary.
 *
 * One thread may send while another receives on the same record; anything
 * else on one record is one thread at a time.
 */

#ifdef __cplusplus
extern "C" {
#endif

struct sockaddr_in;

/** The socket record: 48 bytes, the descriptor first. A zero-filled record
 * holds no socket (its state is ZURN_SOCKET_CLOSED). */
typedef struct ZurnSocket {
    int iFd;                /**< the descriptor; -1 once closed */
    int32_t iState;         /**< one of ZURN_SOCKET_* */
    uint32_t uiPeerAddr;    /**< connected sockets: peer IPv4 address, network order */
    uint16_t usPeerPort;    /**< connected sockets: peer port, network order */
    uint16_t usLocalPort;   /**< bound, listening or connected sockets: local port, host order */
    uint32_t uiSendWaitMs;  /**< connected sockets: send wait limit now set on the descriptor, 0 none */
    uint32_t uiRecvWaitMs;  /**< connected sockets: receive wait limit now set on the descriptor, 0 none */
    uint8_t aucReserved[24];
} ZurnSocket;

#define ZURN_SOCKET_CLOSED 0    /**< no descriptor */
#define ZURN_SOCKET_OPEN 1      /**< made by S_Open, possibly bound */
#define ZURN_SOCKET_LISTENING 2 /**< S_Listen succeeded */
#define ZURN_SOCKET_CONNECTED 3 /**< S_Client or S_Accept succeeded */

/** S_CanAccept results besides 0 (failure). */
#define ZURN_ACCEPT_READY 1 /**< a connection is waiting; S_Accept will not block */
#define ZURN_ACCEPT_IDLE 2  /**< the wait ended with nothing pending */

/** Makes a new TCP socket in the record, replacing whatever it held without
 * closing it. The three further arguments are reserved and must be 0. */
ZURN_API int S_Open(ZurnSocket *pSocket, int iReserved1, int iReserved2, int iReserved3);

/** Binds to a local address (dotted IPv4 or a host name; "0.0.0.0" for every
 * interface) and port (0..65535; 0 lets the system choose). SO_REUSEADDR is
 * set first, so a port in TIME_WAIT can be bound again at once. */
ZURN_API int S_Bind(ZurnSocket *pSocket, const char *szAddr, int iPort);

/** Starts listening with the given backlog. */
ZURN_API int S_Listen(ZurnSocket *pSocket, int iBacklog);

/** Waits on a listening socket for at most iWait tenths of a second (0: only
 * look). Returns ZURN_ACCEPT_READY when a connection is waiting,
 * ZURN_ACCEPT_IDLE when the wait ended without one (or was interrupted),
 * 0 on failure. Serving loops call it with 2: an idle listen then wakes five
 * times a second, which costs next to nothing and lets the loop notice a
 * stop request within a fifth of a second. */
ZURN_API int S_CanAccept(ZurnSocket *pSocket, int iWait);

/** Accepts one connection from the listening socket (given by value) into
 * *pNew, waiting at most uiTimeoutMs. The whole of *pNew is rewritten on
 * success and left as it was on failure. */
ZURN_API int S_Accept(ZurnSocket stListen, ZurnSocket *pNew, uint32_t uiTimeoutMs);

/** Connects an opened socket to szAddr (dotted IPv4 or a host name) and
 * iPort within uiTimeoutMs. */
ZURN_API int S_Client(ZurnSocket *pSocket, const char *szAddr, int iPort, uint32_t uiTimeoutMs);

/** Sends / receives exactly uiLength bytes within uiTimeoutMs (see above).
 * A length of 0 succeeds at once without touching the socket. */
ZURN_API int S_SendEx(ZurnSocket *pSocket, const void *pBuffer, uint32_t uiLength, uint32_t uiTimeoutMs);
/** Receives exactly uiLength bytes within uiTimeoutMs (see S_SendEx). */
ZURN_API int S_ReceiveEx(ZurnSocket *pSocket, void *pBuffer, uint32_t uiLength, uint32_t uiTimeoutMs);

/** Closes the socket and marks the record closed. With iFlag nonzero the
 * connection is shut down in both directions first, which also wakes any
 * other thread still waiting on it. Closing a closed record does nothing
 * and succeeds. */
ZURN_API int S_Close(ZurnSocket *pSocket, int iFlag);

/** Fills *pAddr with the socket's local IPv4 address and port. */
ZURN_API int S_GetSocketInfo(ZurnSocket stSocket, struct sockaddr_in *pAddr);

/** The calling thread's last socket failure as "<call>: <reason>", or
 * "Success" when it has had none. Valid until its next socket call. */
ZURN_API const char *NetWork_GetErrorText(void);

/** Entry function of a worker thread. */
typedef void *(*ZurnThreadEntry)(void *pArg);
/** Starts a thread running pfnEntry(pArg). Its identifier is stored in
 * *puiThread before pfnEntry starts, so the new thread may already find it
 * there. The thread is joinable until ZurnGeneral_DetachWorkingThread.
 * Returns 1 on success; any other value on failure, with errno set. */
ZURN_API int ZurnGeneral_CreateWorkingThread(ZurnThreadEntry pfnEntry, void *pArg, uint64_t *puiThread);

/** Detaches a thread started by ZurnGeneral_CreateWorkingThread. Only the
 * first call for a thread detaches it; later calls for the same thread, and
 * calls with identifiers this library did not start, do nothing. Returns 1
 * when it detached the thread, 0 otherwise. */
ZURN_API int ZurnGeneral_DetachWorkingThread(uint64_t uiThread);

#ifdef __cplusplus
}
#endif

#endif /* ZURN_GENERAL_H */
