// Captures the lines the library logs, with their level, source path, line
// and text, through the support library's sink. One capture at a time.
#ifndef OSTREL_TEST_LOG_CAPTURE_H
#define OSTREL_TEST_LOG_CAPTURE_H

#include <mutex>
#include <string>
#include <vector>

#include "zurn_general.h"

struct LogLine {
    std::string module;
    int level;
    std::string path;
    int line;
    std::string text;
};

class LogCapture {
public:
    explicit LogCapture(int threshold = 1) {
        prev_level_ = ZurnGeneral_SetLogLevel(threshold);
        ZurnGeneral_SetLogSink(&LogCapture::sink, this, ZURN_LOG_SINK_ONLY);
    }
    ~LogCapture() {
        ZurnGeneral_SetLogSink(nullptr, nullptr, ZURN_LOG_SINK_AND_FILE);
        ZurnGeneral_SetLogLevel(prev_level_);
    }
    LogCapture(const LogCapture &) = delete;
    LogCapture &operator=(const LogCapture &) = delete;

    std::vector<LogLine> lines() {
        std::lock_guard<std::mutex> lk(mu_);
        return lines_;
    }
    void clear() {
        std::lock_guard<std::mutex> lk(mu_);
        lines_.clear();
    }
    // Lines of one level, as "path|text" for compact comparisons.
    std::vector<std::string> texts(int level) {
        std::vector<std::string> out;
        for (const auto &l : lines())
            if (l.level == level) out.push_back(l.path + "|" + l.text);
        return out;
    }
    bool has(int level, const std::string &path, const std::string &text) {
        for (const auto &l : lines())
            if (l.level == level && l.path == path && l.text == text) return true;
        return false;
    }

private:
    static void sink(void *user, const char *module, int level, const char *path, int line, const char *text) {
        auto *self = static_cast<LogCapture *>(user);
        std::lock_guard<std::mutex> lk(self->mu_);
        self->lines_.push_back({module ? module : "", level, path ? path : "", line, text ? text : ""});
    }
    std::mutex mu_;
    std::vector<LogLine> lines_;
    int prev_level_;
};

#endif
