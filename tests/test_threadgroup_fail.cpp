// Thread-group failure paths: no descriptors for the control pair (or only
// ones beyond select's reach), no memory, and a thread that cannot start.
// Each failure is logged as the group's callers expect and leaves the group,
// the descriptors and the heap as they were. The allocator and
// pthread_create are interposed in builds without a sanitizer runtime only.
#include <gtest/gtest.h>

#include <dlfcn.h>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <regex>
#include <string>
#include <vector>

#include "test_util.h"
#include "osl_internal.h"
#include "ostrel_threadgroup.h"

#if OSTREL_TEST_SANITIZED
#define OSTREL_TG_INTERPOSED 0
#else
#define OSTREL_TG_INTERPOSED 1

extern "C" void *__libc_calloc(size_t, size_t);
extern "C" void __libc_free(void *);

namespace {
int g_callocs_before_failure = -1; // negative: never fail
bool g_fail_thread_start = false;
// While tracking, the blocks calloc hands out and free has not taken back
// (the library allocates its records with calloc).
bool g_tracking = false;
std::vector<void *> *g_live = nullptr;
} // namespace

extern "C" void *calloc(size_t a, size_t b) {
    if (g_callocs_before_failure >= 0 && g_callocs_before_failure-- == 0) return nullptr;
    void *p = __libc_calloc(a, b);
    if (g_tracking && p != nullptr) {
        g_tracking = false; // the vector's own growth is not tracked
        g_live->push_back(p);
        g_tracking = true;
    }
    return p;
}

extern "C" void free(void *p) {
    if (g_tracking && p != nullptr) {
        auto it = std::find(g_live->begin(), g_live->end(), p);
        if (it != g_live->end()) g_live->erase(it);
    }
    __libc_free(p);
}

namespace {
// Runs fn and returns how many blocks it calloc'd and did not free.
template <class Fn> size_t blocks_left_by(Fn fn) {
    std::vector<void *> live;
    live.reserve(64);
    g_live = &live;
    g_tracking = true;
    fn();
    g_tracking = false;
    g_live = nullptr;
    return live.size();
}
} // namespace

extern "C" int pthread_create(pthread_t *t, const pthread_attr_t *attr, void *(*fn)(void *), void *arg) {
    if (g_fail_thread_start) return EAGAIN;
    using Real = int (*)(pthread_t *, const pthread_attr_t *, void *(*)(void *), void *);
    static Real real = reinterpret_cast<Real>(dlsym(RTLD_NEXT, "pthread_create"));
    return real(t, attr, fn, arg);
}
#endif

namespace {

constexpr const char *kPath = "src/tdctl";

uint32_t never_runs(void *, OstrelThreadNodeHandle) { return 0; }

[[maybe_unused]] bool has_matching(LogCapture &cap, int level, const std::string &pattern) {
    std::regex re(pattern);
    for (const auto &l : cap.lines())
        if (l.level == level && l.path == kPath && std::regex_match(l.text, re)) return true;
    return false;
}

// Holds every free descriptor below `limit` (after lowering the soft limit
// to it, when asked), so the next socket pair cannot be made below it.
class DescriptorHog {
public:
    DescriptorHog(rlim_t limit, bool lower_limit) {
        getrlimit(RLIMIT_NOFILE, &saved_);
        if (lower_limit) {
            rlimit low = saved_;
            low.rlim_cur = limit;
            ok_ = setrlimit(RLIMIT_NOFILE, &low) == 0;
        } else if (saved_.rlim_cur < limit + 16) {
            rlimit high = saved_;
            high.rlim_cur = std::min<rlim_t>(limit + 16, saved_.rlim_max);
            ok_ = high.rlim_cur >= limit + 16 && setrlimit(RLIMIT_NOFILE, &high) == 0;
        }
        for (rlim_t n = 0; n < limit; ++n) {
            int fd = dup(2);
            if (fd < 0) break;
            fds_.push_back(fd);
            if (!lower_limit && static_cast<rlim_t>(fd) >= limit - 1) break;
        }
        // A lowered limit must really stop a socket pair (a tool such as
        // valgrind may apply the limit to some calls only).
        if (lower_limit && ok_) {
            int sv[2];
            ok_ = socketpair(AF_UNIX, SOCK_STREAM, 0, sv) != 0 && errno == EMFILE;
            if (!ok_) {
                close(sv[0]);
                close(sv[1]);
            }
        }
    }
    ~DescriptorHog() {
        for (int fd : fds_) close(fd);
        setrlimit(RLIMIT_NOFILE, &saved_);
    }
    bool ok() const { return ok_; }

private:
    rlimit saved_{};
    std::vector<int> fds_;
    bool ok_ = true;
};

class ThreadGroupFailure : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(Ostrel_ThreadGroup_Create(&group_), 0u);
        fds_before_ = tgtest::open_fds();
    }
    void TearDown() override {
        // Nothing was added: the group's status has no line and Destroy
        // finds it empty.
        LogCapture cap;
        EXPECT_EQ(Ostrel_ThreadGroup_OutputStatus(group_), 0u);
        for (const auto &l : cap.lines()) EXPECT_EQ(l.text.find("[TID:"), std::string::npos);
        EXPECT_EQ(Ostrel_ThreadGroup_Destroy(group_), 0u);
        EXPECT_EQ(tgtest::open_fds(), fds_before_);
    }
    OstrelThreadGroupHandle group_ = nullptr;
    int fds_before_ = 0;
};

TEST_F(ThreadGroupFailure, NoDescriptorsForTheControlPair) {
    LogCapture cap;
    uint32_t rc;
    {
        DescriptorHog hog(64, true);
        if (!hog.ok()) GTEST_SKIP() << "the descriptor limit cannot be lowered here";
        rc = Ostrel_ThreadGroup_NewThread(group_, never_runs, nullptr);
    }
    EXPECT_EQ(rc, 0x90001u);
    EXPECT_EQ(g_OSL_errno, 0x90001u);
    EXPECT_TRUE(cap.has(LOG_LEVEL_TRACE, kPath, "<---socketpair(AF_UNIX,SOCK_STREAM,0,node->control_unit)=0xffffffff"));
    EXPECT_TRUE(cap.has(LOG_LEVEL_TRACE, kPath, "socketpair failed! errno=24"));
    EXPECT_TRUE(cap.has(LOG_LEVEL_ERROR, kPath,
                        "Error in _control_unit_init. Errno=0x00090001. ErrInfo=[ostrel]Unknown error."));
    EXPECT_TRUE(cap.has(LOG_LEVEL_TRACE, kPath, "<---_control_unit_init(node)=0x90001"));
    EXPECT_TRUE(cap.has(LOG_LEVEL_ERROR, kPath,
                        "Error in Ostrel_ThreadGroup_NewThread, _control_unit_init(node)=0x90001, "
                        "[ostrel]Unknown error."));
    EXPECT_TRUE(cap.has(LOG_LEVEL_TRACE, kPath, "<===Exit Ostrel_ThreadGroup_NewThread with 0x90001"));
}

// A control socket numbered FD_SETSIZE or above could never be waited on
// with select; such a pair is refused like a missing one.
TEST_F(ThreadGroupFailure, ControlPairBeyondSelectsReachIsRefused) {
    LogCapture cap;
    uint32_t rc;
    {
        DescriptorHog hog(FD_SETSIZE, false);
        if (!hog.ok()) GTEST_SKIP() << "descriptor limit too low to reach FD_SETSIZE";
        rc = Ostrel_ThreadGroup_NewThread(group_, never_runs, nullptr);
    }
    EXPECT_EQ(rc, 0x90001u);
    EXPECT_TRUE(cap.has(LOG_LEVEL_TRACE, kPath, "<---socketpair(AF_UNIX,SOCK_STREAM,0,node->control_unit)=0x0"));
    EXPECT_TRUE(cap.has(LOG_LEVEL_TRACE, kPath, "socketpair failed! errno=24"));
    EXPECT_TRUE(cap.has(LOG_LEVEL_ERROR, kPath,
                        "Error in Ostrel_ThreadGroup_NewThread, _control_unit_init(node)=0x90001, "
                        "[ostrel]Unknown error."));
}

class ThreadGroupInterposed : public ThreadGroupFailure {
protected:
    void SetUp() override {
        if (!OSTREL_TG_INTERPOSED) GTEST_SKIP() << "allocator and threads owned by the sanitizer runtime";
        ThreadGroupFailure::SetUp();
    }
    void TearDown() override {
        if (OSTREL_TG_INTERPOSED) ThreadGroupFailure::TearDown();
    }
};

#if OSTREL_TG_INTERPOSED
TEST_F(ThreadGroupInterposed, GroupRecordAllocationFails) {
    LogCapture cap;
    OstrelThreadGroupHandle g = nullptr;
    g_OSL_errno = 0x12345;
    g_callocs_before_failure = 0;
    EXPECT_EQ(Ostrel_ThreadGroup_Create(&g), 0x90006u);
    g_callocs_before_failure = -1;
    EXPECT_EQ(g, nullptr);
    EXPECT_EQ(g_OSL_errno, 0x12345u); // reported, not stored
    const std::string msg = "Error in Ostrel_ThreadGroup_Create, alloc(" +
                            std::to_string(sizeof(pthread_mutex_t) + sizeof(void *)) + ") failed.";
    EXPECT_TRUE(cap.has(LOG_LEVEL_ERROR, kPath, msg));
    EXPECT_TRUE(cap.has(LOG_LEVEL_TRACE, kPath, "<===Exit Ostrel_ThreadGroup_Create with 0x90006"));
}

TEST_F(ThreadGroupInterposed, NodeOrStartRecordAllocationFails) {
    for (int which : {0, 1}) {
        SCOPED_TRACE(which == 0 ? "node" : "start record");
        LogCapture cap;
        uint32_t rc = 0;
        size_t left = blocks_left_by([&] {
            g_callocs_before_failure = which;
            rc = Ostrel_ThreadGroup_NewThread(group_, never_runs, nullptr);
            g_callocs_before_failure = -1;
        });
        EXPECT_EQ(rc, 0x90006u);
        EXPECT_EQ(left, 0u); // the node is not lost when its start record fails
        EXPECT_TRUE(has_matching(cap, LOG_LEVEL_ERROR,
                                 "Error in Ostrel_ThreadGroup_NewThread, alloc\\(\\d+\\) failed\\."));
        EXPECT_TRUE(cap.has(LOG_LEVEL_TRACE, kPath, "<===Exit Ostrel_ThreadGroup_NewThread with 0x90006"));
        EXPECT_FALSE(cap.has(LOG_LEVEL_TRACE, kPath, "--->_control_unit_init(node)"));
    }
}

TEST_F(ThreadGroupInterposed, ThreadThatCannotStartIsTakenBackOut) {
    LogCapture cap;
    uint32_t rc = 0;
    size_t left = blocks_left_by([&] {
        g_fail_thread_start = true;
        rc = Ostrel_ThreadGroup_NewThread(group_, never_runs, nullptr);
        g_fail_thread_start = false;
    });
    EXPECT_EQ(rc, 0x90001u);
    EXPECT_EQ(g_OSL_errno, 0x90001u);
    EXPECT_EQ(left, 0u);                         // node and start record freed
    EXPECT_EQ(tgtest::open_fds(), fds_before_); // control pair closed
    const std::vector<std::string> expected = {
        "===>Enter Ostrel_ThreadGroup_NewThread",
        "--->_control_unit_init(node)",
        "--->socketpair(AF_UNIX,SOCK_STREAM,0,node->control_unit)",
        "<---socketpair(AF_UNIX,SOCK_STREAM,0,node->control_unit)=0x0",
        "<---_control_unit_init(node)=0x0",
        "--->_create_thread(_thread_function_wrapper,thread_param)",
        "--->pthread_create(&tid,&attr,func,param)",
        "<---pthread_create(&tid,&attr,func,param)=0xb",
        "Error in _create_thread. Errno=0x00090001. ErrInfo=[ostrel]Unknown error.",
        "<---_create_thread(_thread_function_wrapper,thread_param)=0x90001",
        "Error in Ostrel_ThreadGroup_NewThread. Errno=0x00090001. ErrInfo=[ostrel]Unknown error.",
        "<===Exit Ostrel_ThreadGroup_NewThread with 0x90001",
    };
    std::vector<std::string> got;
    for (const auto &l : cap.lines()) {
        EXPECT_EQ(l.path, kPath);
        EXPECT_EQ(l.level, l.text.rfind("Error", 0) == 0 ? LOG_LEVEL_ERROR : LOG_LEVEL_TRACE) << l.text;
        got.push_back(l.text);
    }
    EXPECT_EQ(got, expected);
}
#endif

} // namespace
