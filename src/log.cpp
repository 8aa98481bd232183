// The library's log context, the raw file-append helper, the tail-keeping
// string copy and the version string.
#define OSL_SRC_PATH "src/log"
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "osl_frame.h"

uint64_t _hErvix_LogContext = 0;
const char g_Ostrel_VersionString[] = "1.0.5.11";

int OSL_Log_Init(void) {
    LogFileSettings settings;
    settings.iBackupCount = 3;
    settings.szModuleName = "ostrel";
    settings.iEnabled = 1;
    settings.iMaxLineLength = 2048;
    settings.iMaxFileSize = 8388608;
    settings.iSyncEachLine = 0;
    settings.iReserved1 = 0;
    settings.ullReserved2 = 0;
    settings.iShowThreadId = 1;
    settings.iShowMilliseconds = 1;
    settings.ullReserved3 = 0;
    settings.iReserved4 = 0;
    return ZurnGeneral_IsNeedLogFile(&settings, &_hErvix_LogContext, 1);
}

// Appends formatted text to a file as it is: no line end, no time stamp. A
// file that cannot be opened is passed over silently.
void OSL_Log_RecordToFile_Raw_V(const char *szPath, const char *szFormat, ...) {
    FILE *fp = fopen(szPath, "a+");
    if (fp == nullptr) return;
    va_list ap;
    va_start(ap, szFormat);
    (void)vfprintf(fp, szFormat, ap);
    va_end(ap);
    (void)fclose(fp);
}

// Bounded copy that keeps the tail: when the text does not fit in n bytes the
// last n - 1 characters and the NUL are copied, so the end of a long path
// (its file name) survives.
char *strrncpy(char *szDst, const char *szSrc, size_t n) {
    if (szDst == nullptr || szSrc == nullptr || n == 0) return szDst;
    size_t len = strlen(szSrc);
    if (n < len + 1)
        memcpy(szDst, szSrc + (len - n + 1), n);
    else
        memcpy(szDst, szSrc, len + 1);
    return szDst;
}
