// Netbase at the socket-layer boundary: this program puts its own S_SendEx
// and worker-thread starter in front of the support library's, records the
// sends and forwards them, so the number and sizes of socket-layer sends per
// packet can be checked, and a worker that cannot start can be simulated.
#include <gtest/gtest.h>

#include <dlfcn.h>

#include <future>
#include <mutex>
#include <vector>

#include "ostrel_error.h"
#include "test_netbase_util.h"

using namespace nbtest;

namespace {
std::mutex g_mu;
std::vector<uint32_t> g_sends;
bool g_fail_thread_start = false;
} // namespace

extern "C" int S_SendEx(ZurnSocket *pSocket, const void *pBuffer, uint32_t uiLength, uint32_t uiTimeoutMs) {
    using Fn = int (*)(ZurnSocket *, const void *, uint32_t, uint32_t);
    static Fn real = reinterpret_cast<Fn>(dlsym(RTLD_NEXT, "S_SendEx"));
    {
        std::lock_guard<std::mutex> lk(g_mu);
        g_sends.push_back(uiLength);
    }
    return real(pSocket, pBuffer, uiLength, uiTimeoutMs);
}

extern "C" int ZurnGeneral_CreateWorkingThread(ZurnThreadEntry pfnEntry, void *pArg, uint64_t *puiThread) {
    using Fn = int (*)(ZurnThreadEntry, void *, uint64_t *);
    static Fn real = reinterpret_cast<Fn>(dlsym(RTLD_NEXT, "ZurnGeneral_CreateWorkingThread"));
    if (g_fail_thread_start) {
        errno = EAGAIN;
        return 0;
    }
    return real(pfnEntry, pArg, puiThread);
}

namespace {

std::vector<uint32_t> take_sends() {
    std::lock_guard<std::mutex> lk(g_mu);
    std::vector<uint32_t> out;
    out.swap(g_sends);
    return out;
}

TEST(NetbaseSegments, HeaderTravelsWithUpTo1428DataBytesAndTheRestInOneMoreSend) {
    uint32_t port = 0;
    NetbaseCtx *listen = make_listen(&port);
    auto server = std::async(std::launch::async, [listen] {
        NetbaseCtx *s = nullptr;
        EXPECT_EQ(netbase_accept(listen, &s, kTimeout), 0u);
        EXPECT_EQ(netbase_server_handshake(s, kTimeout), 0u);
        return s;
    });
    NetbaseCtx *client = nullptr;
    ASSERT_EQ(netbase_client_tcp_connect("127.0.0.1", static_cast<int32_t>(port), &kTimeout, &client), 0u);
    NetbaseCtx *srv = server.get();
    EXPECT_EQ(take_sends(), (std::vector<uint32_t>{12, 12})); // the two handshake headers

    std::string data(100000, 'd');
    for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<char>(i * 7);
    struct Case {
        int32_t size;
        std::vector<uint32_t> sends;
    };
    const Case cases[] = {{1, {13}},         {1428, {1440}},         {1429, {1440, 1}},
                          {0, {}},           {100000, {1440, 98572}}, {2, {14}}};
    std::vector<char> buf(data.size());
    for (const Case &c : cases) {
        ASSERT_EQ(netbase_send_packet(client, data.data(), c.size, kTimeout), 0u);
        EXPECT_EQ(take_sends(), c.sends) << c.size;
        if (c.size == 0) continue; // nothing to receive
        int32_t size = static_cast<int32_t>(buf.size());
        ASSERT_EQ(netbase_receive_packet_buf(srv, buf.data(), &size, kTimeout), 0u);
        EXPECT_EQ(std::string(buf.data(), static_cast<size_t>(size)), data.substr(0, static_cast<size_t>(c.size)));
    }
    netbase_close(client);
    netbase_close(srv);
    netbase_close(listen);
}

TEST(NetbaseSegments, AWorkerThatCannotStartReturnsTheSystemErrorAndLeavesTheListenServing) {
    LogCapture cap;
    uint32_t port = 0;
    NetbaseCtx *listen = make_listen(&port);
    g_fail_thread_start = true;
    auto cb = [](NetbaseCtx *, void *) -> uint32_t { return 0; };
    EXPECT_EQ(netbase_wait_connection(listen, cb, nullptr, 1), static_cast<uint32_t>(EAGAIN));
    g_fail_thread_start = false;
    EXPECT_TRUE(cap.has(LOG_LEVEL_TRACE, kPath, "Create worker thread."));
    EXPECT_TRUE(cap.has(LOG_LEVEL_ERROR, kPath, "Can't create worker thread."));
    EXPECT_EQ(Ostrel_GetLastError(), static_cast<uint32_t>(EAGAIN));
    // Still marked serving: neither serving again nor accepting is allowed.
    NetbaseCtx *conn = nullptr;
    EXPECT_EQ(netbase_accept(listen, &conn, 1), OSL_ERR_INVALID_STATUS);
    EXPECT_EQ(netbase_wait_connection(listen, cb, nullptr, 1), OSL_ERR_INVALID_STATUS);
    // Closing it only requests a stop that nothing will ever see: the listen
    // is never released, as designed.
    EXPECT_EQ(netbase_close(listen), 0u);
    EXPECT_FALSE(cap.has(LOG_LEVEL_TRACE, kPath, "Connection closed."));
    leaked_by_design(listen);
}

} // namespace
