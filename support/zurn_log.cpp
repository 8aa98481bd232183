// libZurn_general logging: one append-only file per module, a level threshold
// checked before any formatting, size-based rotation and an optional sink.
#include "zurn_general.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>

namespace {

constexpr int kLevelOff = 16;

struct LogContext {
    std::string module;
    std::string path;
    LogFileSettings settings{};
    std::mutex mu;
    int fd = -1;
    long long size = 0;
};

// Lowest level written; read by every log call before anything else.
std::atomic<int> g_threshold{2};

struct Sink {
    ZurnLogSinkFn fn = nullptr;
    void *user = nullptr;
    int mode = ZURN_LOG_SINK_AND_FILE;
};
std::shared_mutex g_sink_mu;
Sink g_sink;
std::atomic<bool> g_sink_set{false};

std::mutex g_contexts_mu;
std::map<std::string, std::unique_ptr<LogContext>> &contexts() {
    static auto *m = new std::map<std::string, std::unique_ptr<LogContext>>();
    return *m;
}

int parse_level(const char *s) {
    if (s == nullptr || *s == '\0') return 2;
    if (strcasecmp(s, "TRACE") == 0) return 1;
    if (strcasecmp(s, "INFO") == 0) return 2;
    if (strcasecmp(s, "WARN") == 0 || strcasecmp(s, "WARNING") == 0) return 4;
    if (strcasecmp(s, "ERROR") == 0) return 8;
    if (strcasecmp(s, "OFF") == 0 || strcasecmp(s, "NONE") == 0) return kLevelOff;
    char *end = nullptr;
    long v = strtol(s, &end, 10);
    if (end != s && *end == '\0' && v >= 0 && v <= kLevelOff) return static_cast<int>(v);
    return 2;
}

__attribute__((constructor)) void zurn_log_load() { g_threshold.store(parse_level(getenv("ZURN_LOG_LEVEL"))); }

const char *level_name(int level) {
    switch (level) {
    case 1: return "TRACE";
    case 2: return "INFO ";
    case 4: return "WARN ";
    case 8: return "ERROR";
    default: return "?????";
    }
}

void open_file(LogContext &c) {
    c.fd = open(c.path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    struct stat st {};
    c.size = (c.fd >= 0 && fstat(c.fd, &st) == 0) ? static_cast<long long>(st.st_size) : 0;
}

void rotate(LogContext &c) {
    close(c.fd);
    c.fd = -1;
    int keep = c.settings.iBackupCount > 0 ? c.settings.iBackupCount : 1;
    for (int i = keep - 1; i >= 1; --i) {
        std::string from = c.path + "." + std::to_string(i);
        std::string to = c.path + "." + std::to_string(i + 1);
        (void)rename(from.c_str(), to.c_str()); // an older file may not exist yet
    }
    (void)rename(c.path.c_str(), (c.path + ".1").c_str());
    open_file(c);
}

// Writes one finished record (one or more lines) to the context's file.
void write_record(LogContext &c, const std::string &rec) {
    std::lock_guard<std::mutex> lk(c.mu);
    if (c.fd < 0) open_file(c);
    if (c.fd < 0) return;
    const char *p = rec.data();
    size_t left = rec.size();
    while (left > 0) {
        ssize_t n = write(c.fd, p, left);
        if (n < 0) {
            if (errno == EINTR) continue;
            return;
        }
        p += n;
        left -= static_cast<size_t>(n);
    }
    c.size += static_cast<long long>(rec.size());
    if (c.settings.iSyncEachLine) fdatasync(c.fd);
    if (c.settings.iMaxFileSize > 0 && c.size >= c.settings.iMaxFileSize) rotate(c);
}

std::string prefix(const LogContext &c, int level, const char *src, int line) {
    struct timespec ts {};
    clock_gettime(CLOCK_REALTIME, &ts);
    struct tm tmv {};
    localtime_r(&ts.tv_sec, &tmv);
    char buf[160];
    int n = static_cast<int>(strftime(buf, sizeof buf, "%Y-%m-%d %H:%M:%S", &tmv));
    if (c.settings.iShowMilliseconds)
        n += snprintf(buf + n, sizeof buf - static_cast<size_t>(n), ".%03ld", ts.tv_nsec / 1000000L);
    n += snprintf(buf + n, sizeof buf - static_cast<size_t>(n), " %s ", level_name(level));
    if (c.settings.iShowThreadId)
        n += snprintf(buf + n, sizeof buf - static_cast<size_t>(n), "[%ld:%ld] ", static_cast<long>(getpid()),
                      static_cast<long>(syscall(SYS_gettid)));
    std::string s(buf, static_cast<size_t>(n));
    s += src ? src : "?";
    s += ':';
    s += std::to_string(line);
    s += ' ';
    return s;
}

// Hands a formatted message to the sink and/or the file.
void emit(LogContext &c, int level, const char *src, int line, const std::string &text) {
    bool to_file = true;
    if (g_sink_set.load(std::memory_order_acquire)) {
        std::shared_lock<std::shared_mutex> lk(g_sink_mu);
        if (g_sink.fn != nullptr) {
            g_sink.fn(g_sink.user, c.module.c_str(), level, src, line, text.c_str());
            to_file = g_sink.mode != ZURN_LOG_SINK_ONLY;
        }
    }
    if (!to_file) return;
    std::string rec = prefix(c, level, src, line);
    rec += text;
    rec += '\n';
    write_record(c, rec);
}

inline LogContext *ctx_of(uint64_t h) { return reinterpret_cast<LogContext *>(static_cast<uintptr_t>(h)); }

// Formats one message and hands it on. Kept out of line so that the exported
// entry point stays small for the calls the threshold filters.
__attribute__((noinline)) int record_line(LogContext &c, int level, const char *src, int line, const char *fmt,
                                          va_list ap) {
    size_t cap = c.settings.iMaxLineLength > 0 ? static_cast<size_t>(c.settings.iMaxLineLength) : 65536;
    std::string text;
    char small[1024];
    va_list again;
    va_copy(again, ap);
    int n = vsnprintf(small, sizeof small, fmt, ap);
    if (n >= 0 && static_cast<size_t>(n) < sizeof small) {
        text.assign(small, static_cast<size_t>(n));
    } else if (n >= 0) {
        text.resize(static_cast<size_t>(n));
        // The length is known from the first pass: this one cannot be cut short.
        (void)vsnprintf(text.data(), text.size() + 1, fmt, again);
    }
    va_end(again);
    if (n < 0) return 0;
    if (text.size() > cap) text.resize(cap);
    emit(c, level, src, line, text);
    return 1;
}

} // namespace

extern "C" {

int ZurnGeneral_IsNeedLogFile(const LogFileSettings *pSettings, uint64_t *phContext, int iFlag) {
    (void)iFlag;
    if (phContext == nullptr) return 0;
    *phContext = 0;
    if (pSettings == nullptr || pSettings->szModuleName == nullptr || pSettings->szModuleName[0] == '\0' ||
        !pSettings->iEnabled)
        return 0;
    std::lock_guard<std::mutex> lk(g_contexts_mu);
    auto &slot = contexts()[pSettings->szModuleName];
    if (!slot) {
        slot = std::make_unique<LogContext>();
        slot->module = pSettings->szModuleName;
        slot->settings = *pSettings;
        slot->settings.szModuleName = nullptr; // the caller's text need not outlive the call
        const char *dir = getenv("ZURN_LOG_DIR");
        std::string d = (dir != nullptr && *dir != '\0') ? dir : ".";
        // Fixed now: a later chdir() of the process must not move the log.
        if (d[0] != '/') {
            char cwd[4096];
            if (getcwd(cwd, sizeof cwd) != nullptr) d = std::string(cwd) + "/" + d;
        }
        slot->path = d + "/" + slot->module + ".log";
    }
    *phContext = static_cast<uint64_t>(reinterpret_cast<uintptr_t>(slot.get()));
    return 1;
}

int ZurnGeneral_RecordAppLogToFileEx2_V(uint64_t hContext, int iLevel, const char *szSrcPath, int iLine,
                                        const char *szFormat, ...) {
    // Filtered calls return here, before the formatting frame is set up.
    if (hContext == 0 || iLevel < g_threshold.load(std::memory_order_relaxed) || szFormat == nullptr) return 0;
    va_list ap;
    va_start(ap, szFormat);
    int written = record_line(*ctx_of(hContext), iLevel, szSrcPath, iLine, szFormat, ap);
    va_end(ap);
    return written;
}

int ZurnGeneral_RecordBinaryLogInfoEx2(uint64_t hContext, int iLevel, const char *szSrcPath, int iLine,
                                       const char *szCaption, const void *pData, int iLength) {
    if (hContext == 0 || iLevel < g_threshold.load(std::memory_order_relaxed)) return 0;
    std::string text = szCaption ? szCaption : "";
    char buf[16]; // room for any int, sign included
    (void)snprintf(buf, sizeof buf, "%d", iLength);
    text += " (";
    text += buf;
    text += " bytes)";
    const auto *p = static_cast<const unsigned char *>(pData);
    LogContext &c = *ctx_of(hContext);
    // The dump stops at the context's line limit: a large buffer costs no
    // more than the text that is kept.
    const size_t cap = c.settings.iMaxLineLength > 0 ? static_cast<size_t>(c.settings.iMaxLineLength) : 65536;
    if (p != nullptr) {
        for (int off = 0; off < iLength; off += 16) {
            if (text.size() >= cap) {
                text += "\n...";
                break;
            }
            char line[96];
            int n = snprintf(line, sizeof line, "\n%08x:", off);
            for (int i = off; i < off + 16 && i < iLength; ++i)
                n += snprintf(line + n, sizeof line - static_cast<size_t>(n), " %02x", p[i]);
            text.append(line, static_cast<size_t>(n));
        }
    }
    emit(c, iLevel, szSrcPath, iLine, text);
    return 1;
}

int ZurnGeneral_SetLogLevel(int iLevel) { return g_threshold.exchange(iLevel); }

int ZurnGeneral_GetLogLevel(void) { return g_threshold.load(); }

void ZurnGeneral_SetLogSink(ZurnLogSinkFn pfnSink, void *pUser, int iMode) {
    std::unique_lock<std::shared_mutex> lk(g_sink_mu);
    g_sink.fn = pfnSink;
    g_sink.user = pUser;
    g_sink.mode = iMode;
    g_sink_set.store(pfnSink != nullptr, std::memory_order_release);
}

} // extern "C"
