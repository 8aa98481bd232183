// The call frame every exported function follows, written once: handle
// checks, argument checks that log the condition's own source text, entry and
// exit traces, and the last error. Each source file defines OSL_SRC_PATH (its
// path without extension, e.g. "src/list") before including this header.
#ifndef OSL_FRAME_H
#define OSL_FRAME_H

#include <cerrno>
#include <cstdint>

#include "ostrel_common.h"
#include "ostrel_error.h"
#include "osl_internal.h"
#include "zurn_general.h"

#ifndef OSL_SRC_PATH
#error "define OSL_SRC_PATH before including osl_frame.h"
#endif

// One log line at a level, tagged with this file's path and the line of the
// statement. The support library filters; the library always makes the call.
#define OSL_LOG(level, ...) \
    ZurnGeneral_RecordAppLogToFileEx2_V(_hErvix_LogContext, (level), OSL_SRC_PATH, __LINE__, __VA_ARGS__)
#define OSL_LOG_BIN(level, caption, data, len) \
    ZurnGeneral_RecordBinaryLogInfoEx2(_hErvix_LogContext, (level), OSL_SRC_PATH, __LINE__, (caption), (data), (len))

// Stores the process-wide last error (a relaxed atomic store, see OslLastError).
#define OSL_SET_LAST_ERROR(code) (g_OSL_errno = (uint32_t)(code))

// True when h is non-null and its first 32-bit field is the kind's magic.
inline bool OSL_HandleOk(const void *h, uint32_t magic) {
    return h != nullptr && *static_cast<const uint32_t *>(h) == magic;
}

// Handle check: on a bad handle the last error is 0x90010 before and after the
// message; on a good one it is cleared.
#define OSL_CHECK_HANDLE(h, magic, msg)                 \
    do {                                                \
        if (!OSL_HandleOk((h), (magic))) {              \
            OSL_SET_LAST_ERROR(OSL_ERR_INVALID_HANDLE); \
            OSL_LOG(LOG_LEVEL_ERROR, msg);              \
            OSL_SET_LAST_ERROR(OSL_ERR_INVALID_HANDLE); \
            return OSL_ERR_INVALID_HANDLE;              \
        }                                               \
        OSL_SET_LAST_ERROR(0);                          \
    } while (0)

#define OSL_TRACE_ENTER() OSL_LOG(LOG_LEVEL_TRACE, "===>Enter %s", __func__)
#define OSL_TRACE_EXIT(code) OSL_LOG(LOG_LEVEL_TRACE, "<===Exit %s with 0x%x", __func__, (unsigned)(code))

// Argument check: logs the condition exactly as written here and returns
// 0x9000F without storing it in the last error (callers use the result).
#define OSL_ASSERT_ARG(cond)                                                           \
    do {                                                                               \
        if (!(cond)) {                                                                 \
            OSL_LOG(LOG_LEVEL_ERROR, "Error in %s, assert(%s) failed.", __func__, #cond); \
            OSL_TRACE_EXIT(OSL_ERR_INVALID_PARAMETER);                                 \
            return OSL_ERR_INVALID_PARAMETER;                                          \
        }                                                                              \
    } while (0)

// Failed allocation of a function's own record: logged, traced, returned
// without storing it.
#define OSL_ALLOC_FAILED(size)                                                          \
    do {                                                                                \
        OSL_LOG(LOG_LEVEL_ERROR, "Error in %s, alloc(%d) failed.", __func__, (int)(size)); \
        OSL_TRACE_EXIT(OSL_ERR_NO_MEMORY);                                              \
        return OSL_ERR_NO_MEMORY;                                                       \
    } while (0)

// Stores a result as the last error and returns it.
#define OSL_RETURN(code)                      \
    do {                                      \
        uint32_t osl_rc_ = (code);            \
        OSL_SET_LAST_ERROR(osl_rc_);          \
        return osl_rc_;                       \
    } while (0)

// For traced functions (transport, thread group, service): traces the exit
// with the result, stores it and returns it.
#define OSL_TRACED_RETURN(code)               \
    do {                                      \
        uint32_t osl_rc_ = (code);            \
        OSL_TRACE_EXIT(osl_rc_);              \
        OSL_SET_LAST_ERROR(osl_rc_);          \
        return osl_rc_;                       \
    } while (0)

// Failure of an inner call, in the two forms the library logs:
//   "Error in %s, %s=0x%x, [%s]%s"  (service wrapper, thread group)
//   "Error in %s. Errno=0x%08x. ErrInfo=[%s]%s"  (transport, thread group)
#define OSL_LOG_CALL_FAILED(calltext, code)                                                             \
    OSL_LOG(LOG_LEVEL_ERROR, "Error in %s, %s=0x%x, [%s]%s", __func__, (calltext), (unsigned)(code),   \
            Local_GetErrModule(code), Ostrel_GetErrorText(code))
#define OSL_LOG_ERRNO(code)                                                                             \
    OSL_LOG(LOG_LEVEL_ERROR, "Error in %s. Errno=0x%08x. ErrInfo=[%s]%s", __func__, (unsigned)(code),  \
            Local_GetErrModule(code), Ostrel_GetErrorText(code))

// Inner-call traces (thread group, service wrapper): "--->" with the call's
// source text before it, "<---" with the text and its result after it.
#define OSL_TRACE_CALL(calltext) OSL_LOG(LOG_LEVEL_TRACE, "--->%s", (calltext))
#define OSL_TRACE_CALL_RESULT(calltext, code) \
    OSL_LOG(LOG_LEVEL_TRACE, "<---%s=0x%x", (calltext), (unsigned)(code))
// Runs `call`, traced by its own source text, and stores its result in rc.
// errno is what the call left, whatever the logging did after it.
#define OSL_TRACED_CALL(rc, call)                   \
    do {                                            \
        OSL_TRACE_CALL(#call);                      \
        (rc) = (call);                              \
        int osl_call_errno_ = errno;                \
        OSL_TRACE_CALL_RESULT(#call, (rc));         \
        errno = osl_call_errno_;                    \
    } while (0)

#endif // OSL_FRAME_H
