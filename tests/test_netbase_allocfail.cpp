// Netbase when handle memory runs out: a client handle, a listen and an
// accepted copy each fail with 0x90006 and their messages. The allocator is
// interposed here, so this suite runs only in builds without a sanitizer
// runtime.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "test_netbase_util.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define NB_ALLOC_INTERPOSED 0
#else
#define NB_ALLOC_INTERPOSED 1
extern "C" void *__libc_calloc(size_t, size_t);
namespace {
bool g_fail_calloc = false;
}
extern "C" void *calloc(size_t a, size_t b) { return g_fail_calloc ? nullptr : __libc_calloc(a, b); }
#endif

using namespace nbtest;

namespace {

void fail_calloc(bool on) {
#if NB_ALLOC_INTERPOSED
    g_fail_calloc = on;
#else
    (void)on;
#endif
}

TEST(NetbaseAllocFailure, EachHandleKindReportsItsOwnMessages) {
    if (!NB_ALLOC_INTERPOSED) GTEST_SKIP() << "allocator owned by the sanitizer runtime";
    uint32_t port = 0;
    NetbaseCtx *listen = make_listen(&port);
    int fd = raw_connect(port);
    LogCapture cap;
    NetbaseCtx *h = nullptr;
    fail_calloc(true);
    uint32_t connect_rc = netbase_client_tcp_connect("127.0.0.1", static_cast<int32_t>(port), &kTimeout, &h);
    uint32_t listen_rc = netbase_tcp_establish_listen("127.0.0.1", 0, &h);
    uint32_t accept_rc = netbase_accept(listen, &h, kTimeout);
    fail_calloc(false);
    EXPECT_EQ(connect_rc, OSL_ERR_NO_MEMORY);
    EXPECT_EQ(listen_rc, OSL_ERR_NO_MEMORY);
    EXPECT_EQ(accept_rc, OSL_ERR_NO_MEMORY);
    std::vector<std::string> errors = cap.texts(LOG_LEVEL_ERROR);
    ASSERT_EQ(errors.size(), 6u);
    EXPECT_EQ(errors[0].rfind("src/netbase_api|Error in local_netbase_client_init, alloc(", 0), 0u) << errors[0];
    EXPECT_EQ(errors[1], "src/netbase_api|Create socket failed.");
    EXPECT_EQ(errors[2].rfind("src/netbase_api|Alloc memory (size=", 0), 0u) << errors[2];
    EXPECT_EQ(errors[3], "src/netbase_api|Create netbase CTX failed.");
    EXPECT_EQ(errors[4], errors[2]); // the copy is the listen's size
    EXPECT_EQ(errors[5], "src/netbase_api|Duplicate netbase CTX failed.");
    // The connection still waits in the backlog and is accepted normally.
    ASSERT_EQ(netbase_accept(listen, &h, kTimeout), 0u);
    close(fd);
    netbase_close(h);
    netbase_close(listen);
}

} // namespace
