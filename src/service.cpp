// Service wrappers: run a service's start callback as a daemon or in the
// foreground, under a pid file that is write-locked for the life of the
// process so that only one instance of a service runs. On success the
// calling thread sleeps for ever; the wrappers return only on failure.
#define OSL_SRC_PATH "src/service"
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "osl_frame.h"
#include "ostrel_service.h"

// Directory of foreground pid files when the caller names none.
#define PID_FILE_DIR "./"

namespace {

// The pid file's path and descriptor, written once by the process's single
// wrapper call. The descriptor stays open so that the lock lasts.
char l_pid_file_path[256];
int l_pid_file_fd = -1;

// Creates, locks and fills the pid file; returns its descriptor or -1. After
// a successful open the descriptor is never closed, not even on failure:
// closing any descriptor of the file would drop every lock this process holds
// on it.
int _create_pid_file(const char *szPath) {
    OSL_TRACE_ENTER();
    int fd = open(szPath, O_RDWR | O_CREAT, 0777);
    if (fd < 0) {
        OSL_LOG(LOG_LEVEL_ERROR, "Cannot open pid file %s: %d", szPath, errno);
        OSL_TRACE_EXIT(-1);
        return -1;
    }
    // World-writable whatever the umask.
    if (chmod(szPath, 0777) != 0) OSL_LOG(LOG_LEVEL_ERROR, "Cannot chmod 777 pid file %s: %d", szPath, errno);
    int flags = fcntl(fd, F_GETFD);
    if (flags < 0) {
        OSL_LOG(LOG_LEVEL_ERROR, "Cannot get flags for pid file %s: %d", szPath, errno);
        OSL_TRACE_EXIT(-1);
        return -1;
    }
    if (fcntl(fd, F_SETFD, flags | FD_CLOEXEC) < 0) {
        OSL_LOG(LOG_LEVEL_ERROR, "Cannot set flags for pid file %s: %d", szPath, errno);
        OSL_TRACE_EXIT(-1);
        return -1;
    }
    struct flock lock;
    memset(&lock, 0, sizeof lock);
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    lock.l_start = 0;
    lock.l_len = 0; // the whole file, however long it grows
    if (fcntl(fd, F_SETLK, &lock) < 0) {
        int err = errno;
        if (err == EAGAIN || err == EACCES)
            OSL_LOG(LOG_LEVEL_ERROR, "PID file %s is locked.", szPath);
        else
            OSL_LOG(LOG_LEVEL_ERROR, "Unable to lock pid file %s: %d", szPath, err);
        OSL_TRACE_EXIT(-1);
        return -1;
    }
    if (ftruncate(fd, 0) != 0) {
        OSL_LOG(LOG_LEVEL_ERROR, "Cannot truncate pid file %s: %d", szPath, errno);
        OSL_TRACE_EXIT(-1);
        return -1;
    }
    char buf[256];
    int len = snprintf(buf, sizeof buf, "%ld\n", static_cast<long>(getpid()));
    ssize_t written = write(fd, buf, static_cast<size_t>(len));
    if (written < len) {
        OSL_LOG(LOG_LEVEL_ERROR, "Writ to pid file %s failed: %d", szPath, errno);
        OSL_TRACE_EXIT(-1);
        return -1;
    }
    OSL_TRACE_EXIT(fd);
    return fd;
}

// The start callback of a wrapper: exactly one of the two forms is set.
struct StartCallback {
    OstrelServiceStart pfnStart;
    OstrelServiceStartEx pfnStartEx;
    void *pParam;
};

// The part both mains share once the pid file path is known: the pid file,
// the callback, and on success the endless sleep. Returns only a failure,
// logged with the calling main's name.
uint32_t run_under_pid_file(const char *szFunc, const StartCallback &cb) {
    OSL_LOG(LOG_LEVEL_TRACE, "pid file path=(%s)", l_pid_file_path);
    int fd = _create_pid_file(l_pid_file_path);
    if (fd < 0) {
        OSL_LOG(LOG_LEVEL_ERROR, "Create pid file failed.");
        return OSL_ERR_UNKNOWN;
    }
    l_pid_file_fd = fd;

    const char *label = cb.pfnStart != nullptr ? "cb_service_main()" : "cb_service_main_ex(param)";
    OSL_TRACE_CALL(label);
    uint32_t rc = cb.pfnStart != nullptr ? cb.pfnStart() : cb.pfnStartEx(cb.pParam);
    OSL_TRACE_CALL_RESULT(label, rc);
    if (rc != 0) {
        OSL_LOG(LOG_LEVEL_ERROR, "Error in %s, %s=0x%x, [%s]%s", szFunc, label, rc, Local_GetErrModule(rc),
                Ostrel_GetErrorText(rc));
        return rc;
    }
    // The service lives on the threads its callback started; this thread
    // sleeps an hour at a time, for ever.
    for (;;) {
        timespec hour = {3600, 0};
        (void)nanosleep(&hour, nullptr);
    }
}

// Fills the pid file path; false (logged) when it does not fit.
__attribute__((format(printf, 1, 2))) bool set_pid_file_path(const char *szFormat, ...) {
    va_list ap;
    va_start(ap, szFormat);
    int n = vsnprintf(l_pid_file_path, sizeof l_pid_file_path, szFormat, ap);
    va_end(ap);
    if (n >= 0 && static_cast<size_t>(n) < sizeof l_pid_file_path) return true;
    OSL_LOG(LOG_LEVEL_ERROR, "Pid file path too long (%d bytes, at most %d).", n,
            static_cast<int>(sizeof l_pid_file_path) - 1);
    OSL_LOG(LOG_LEVEL_ERROR, "Create pid file failed.");
    return false;
}

uint32_t _service_main(const char *szName, const StartCallback &cb) {
    OSL_TRACE_ENTER();
    // Keep the working directory (the pid file is relative to it); standard
    // input, output and error go to the null device.
    if (daemon(1, 0) != 0) {
        OSL_LOG(LOG_LEVEL_ERROR, "daemon failed! errno=%d", errno);
        OSL_TRACED_RETURN(OSL_ERR_UNKNOWN);
    }
    if (!set_pid_file_path("./qmv_sv_%s.pid", szName)) OSL_TRACED_RETURN(OSL_ERR_UNKNOWN);
    OSL_TRACED_RETURN(run_under_pid_file(__func__, cb));
}

uint32_t _nonservice_main(const char *szName, const char *szDir, const StartCallback &cb) {
    OSL_TRACE_ENTER();
    if (!set_pid_file_path("%s/qmv_ns_%s.pid", szDir, szName)) OSL_TRACED_RETURN(OSL_ERR_UNKNOWN);
    OSL_TRACED_RETURN(run_under_pid_file(__func__, cb));
}

} // namespace

// A wrapper's inner step: traced with trace_label; a failure is logged with
// error_label (the same text except in the two wrappers that use the default
// directory, whose error line names PID_FILE_DIR).
#define SVC_RUN_MAIN(trace_label, error_label, step)                  \
    do {                                                              \
        OSL_TRACE_CALL(trace_label);                                  \
        uint32_t svc_rc_ = (step);                                    \
        OSL_TRACE_CALL_RESULT(trace_label, svc_rc_);                  \
        if (svc_rc_ != 0) OSL_LOG_CALL_FAILED(error_label, svc_rc_);  \
        OSL_TRACED_RETURN(svc_rc_);                                   \
    } while (0)

extern "C" {

OSTREL_API uint32_t Ostrel_Service_Wrapper(const char *szServiceName, int argc, char **argv,
                                           OstrelServiceStart pfnStart) {
    OSL_TRACE_ENTER();
    (void)argc;
    (void)argv;
    OSL_ASSERT_ARG(NULL != szServiceName);
    OSL_ASSERT_ARG(NULL != pfnStart);
    const char *label = "_service_main(info,argc,argv,cb_service_main,0,0)";
    SVC_RUN_MAIN(label, label, _service_main(szServiceName, StartCallback{pfnStart, nullptr, nullptr}));
}

OSTREL_API uint32_t Ostrel_Service_Wrapper_Ex(const char *szServiceName, int argc, char **argv,
                                              OstrelServiceStartEx pfnStart, void *pParam) {
    OSL_TRACE_ENTER();
    (void)argc;
    (void)argv;
    OSL_ASSERT_ARG(NULL != szServiceName);
    OSL_ASSERT_ARG(NULL != pfnStart);
    const char *label = "_service_main(info,argc,argv,0,cb_service_main,param)";
    SVC_RUN_MAIN(label, label, _service_main(szServiceName, StartCallback{nullptr, pfnStart, pParam}));
}

OSTREL_API uint32_t Ostrel_NonService_Wrapper(const char *szServiceName, OstrelServiceStart pfnStart) {
    OSL_TRACE_ENTER();
    OSL_ASSERT_ARG(NULL != szServiceName);
    OSL_ASSERT_ARG(NULL != pfnStart);
    SVC_RUN_MAIN("_nonservice_main(name,\"./\",cb_service_main,0,0)",
                 "_nonservice_main(name,PID_FILE_DIR,cb_service_main,0,0)",
                 _nonservice_main(szServiceName, PID_FILE_DIR, StartCallback{pfnStart, nullptr, nullptr}));
}

OSTREL_API uint32_t Ostrel_NonService_Wrapper_Ex(const char *szServiceName, OstrelServiceStartEx pfnStart,
                                                 void *pParam) {
    OSL_TRACE_ENTER();
    OSL_ASSERT_ARG(NULL != szServiceName);
    OSL_ASSERT_ARG(NULL != pfnStart);
    SVC_RUN_MAIN("_nonservice_main(name,\"./\",0,cb_service_main,param)",
                 "_nonservice_main(name,PID_FILE_DIR,0,cb_service_main,param)",
                 _nonservice_main(szServiceName, PID_FILE_DIR, StartCallback{nullptr, pfnStart, pParam}));
}

OSTREL_API uint32_t Ostrel_NonService_Wrapper_CustomPath(const char *szServiceName, const char *szPath,
                                                         OstrelServiceStartEx pfnStart) {
    OSL_TRACE_ENTER();
    OSL_ASSERT_ARG(NULL != szServiceName);
    OSL_ASSERT_ARG(NULL != szPath);
    OSL_ASSERT_ARG(NULL != pfnStart);
    const char *label = "_nonservice_main(name,path,0,cb_service_main,0)";
    SVC_RUN_MAIN(label, label, _nonservice_main(szServiceName, szPath, StartCallback{nullptr, pfnStart, nullptr}));
}

OSTREL_API uint32_t Ostrel_NonService_Wrapper_CustomPath_Ex(const char *szServiceName, const char *szPath,
                                                            OstrelServiceStartEx pfnStart, void *pParam) {
    OSL_TRACE_ENTER();
    OSL_ASSERT_ARG(NULL != szServiceName);
    OSL_ASSERT_ARG(NULL != szPath);
    OSL_ASSERT_ARG(NULL != pfnStart);
    const char *label = "_nonservice_main(name,path,0,cb_service_main,param)";
    SVC_RUN_MAIN(label, label, _nonservice_main(szServiceName, szPath, StartCallback{nullptr, pfnStart, pParam}));
}

} // extern "C"
