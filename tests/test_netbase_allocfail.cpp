// Netbase when handle memory runs out: a client handle, a listen and an
// accepted copy each fail with 0x90006 and their messages. The allocator is
// interposed here, so this suite runs only in builds without a sanitizer
// runtime.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "test_netbase_util.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define NB_ALLOC_INTERPOSED 0
#else
#define NB_ALLOC_INTERPOSED 1
extern "C" void *__libc_calloc(size_t, size_t);
namespace {
bool g_fail_calloc = false;
size_t g_calloc_limit = SIZE_MAX; // larger requests fail
} // namespace
extern "C" void *calloc(size_t a, size_t b) {
    if (g_fail_calloc || (b != 0 && a > g_calloc_limit / b)) return nullptr;
    return __libc_calloc(a, b);
}
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

void limit_calloc(size_t bytes) {
#if NB_ALLOC_INTERPOSED
    g_calloc_limit = bytes;
#else
    (void)bytes;
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

// A header may announce up to 4 GiB of extension: it is read through a block
// of at most 64 KiB, and a block that cannot be had is reported with its size.
TEST(NetbaseAllocFailure, ExtendedContextIsReadThroughABoundedBlock) {
    if (!NB_ALLOC_INTERPOSED) GTEST_SKIP() << "allocator owned by the sanitizer runtime";
    uint32_t port = 0;
    NetbaseCtx *listen = make_listen(&port);
    int fd = raw_connect(port);
    NetbaseCtx *server = nullptr;
    ASSERT_EQ(netbase_accept(listen, &server, kTimeout), 0u);
    const uint32_t exLen = (1u << 20) + 7;
    ASSERT_TRUE(send_all(fd, header(0xA6, 0, 0)));
    ASSERT_EQ(netbase_server_handshake(server, kTimeout), 0u);
    const std::string stream = header(0xA6, exLen, 2) + std::string(exLen, 'e') + "ok" + header(0xA6, 100000, 1) +
                               std::string(100000, 'e') + "!";
    // More than the socket buffers hold: written while the receiver reads.
    // Its end may stay unread, so whether all of it went out is not checked.
    std::thread writer([&] { (void)send_all(fd, stream); });
    LogCapture cap;
    char buf[16];
    int32_t size = sizeof buf;
    limit_calloc(65536);
    uint32_t bounded_rc = netbase_receive_packet_buf(server, buf, &size, kTimeout);
    limit_calloc(SIZE_MAX);
    EXPECT_EQ(bounded_rc, 0u);
    EXPECT_EQ(std::string(buf, static_cast<size_t>(size)), "ok");
    size = sizeof buf;
    fail_calloc(true);
    uint32_t failed_rc = netbase_receive_packet_buf(server, buf, &size, kTimeout);
    fail_calloc(false);
    EXPECT_EQ(failed_rc, OSL_ERR_NO_MEMORY);
    EXPECT_EQ(size, static_cast<int32_t>(sizeof buf));
    EXPECT_EQ(cap.texts(LOG_LEVEL_ERROR),
              (std::vector<std::string>{"src/netbase_api|Error in local_netbase_receive_packet_ctx, alloc(65536) failed.",
                                        "src/netbase_api|Receive packet CTX failed."}));
    // The rest is not read: closing this side ends the peer's write.
    netbase_close(server);
    writer.join();
    close(fd);
    netbase_close(listen);
}

} // namespace
