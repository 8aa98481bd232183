// Log files of the example tools: none unless the user names a directory.
//
// The library and its support library write "<module>.log" in the directory
// ZURN_LOG_DIR names, and the library fixes that path as it is loaded, before
// main() runs. A tool given `--log-dir DIR` therefore sets ZURN_LOG_DIR to DIR
// and starts itself once more, unless it already runs with that directory.
// Without the option every line is dropped, so no file appears wherever the
// user happens to stand.
#ifndef OSTREL_EXAMPLES_TOOL_LOG_H
#define OSTREL_EXAMPLES_TOOL_LOG_H

#include <limits.h>
#include <stdlib.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "zurn_general.h"

namespace tool_log {

constexpr int kLevelNothing = 16;

// Applies the choice of directory (null: no log files). Returns 0 to go on, or
// the exit status 2 after printing why DIR cannot be used.
inline int start(const char *tool, const char *dir, char **argv) {
    if (dir == nullptr) {
        ZurnGeneral_SetLogLevel(kLevelNothing);
        return 0;
    }
    char want[PATH_MAX], have[PATH_MAX];
    if (realpath(dir, want) == nullptr || access(want, W_OK | X_OK) != 0) {
        fprintf(stderr, "%s: cannot log in %s: %s\n", tool, dir, strerror(errno));
        return 2;
    }
    const char *env = getenv("ZURN_LOG_DIR");
    if (env != nullptr && *env != '\0' && realpath(env, have) != nullptr && strcmp(have, want) == 0) return 0;
    setenv("ZURN_LOG_DIR", want, 1);
    execv("/proc/self/exe", argv);
    fprintf(stderr, "%s: cannot start again to log in %s: %s\n", tool, want, strerror(errno));
    return 2;
}

} // namespace tool_log

#endif
