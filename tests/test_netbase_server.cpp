// Netbase servers: a worker-served listen stopped from another thread,
// serving on the caller's thread, the single-listen server, the multi-listen
// server (a listen without a callback, an address that cannot be bound) and
// accepting one connection at a time.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <thread>
#include <vector>

#include "ostrel_error.h"
#include "test_netbase_util.h"

using namespace nbtest;

namespace {

// How many connections a callback serves before it fails, and with what.
struct Plan {
    std::atomic<int> successes;
    uint32_t code;
};

// Connected callback: handshake, echo one packet, close; then 0, or the
// plan's code once its successes are used up.
uint32_t echo_once(NetbaseCtx *h, void *arg) {
    EXPECT_EQ(netbase_server_handshake(h, kTimeout), 0u);
    void *mem = nullptr;
    int32_t size = 0;
    if (netbase_receive_packet(h, &mem, &size, kTimeout) == 0) {
        EXPECT_EQ(netbase_send_packet(h, mem, size, kTimeout), 0u);
    }
    EXPECT_EQ(netbase_close(h), 0u);
    auto *plan = static_cast<Plan *>(arg);
    return plan != nullptr && plan->successes-- <= 0 ? plan->code : 0u;
}

// A client round trip through an echo service.
bool ping(uint32_t port, const std::string &msg) {
    NetbaseCtx *c = nullptr;
    if (netbase_client_tcp_connect("127.0.0.1", static_cast<int32_t>(port), &kTimeout, &c) != 0) return false;
    std::string echo(msg.size() + 1, '\0');
    int32_t size = static_cast<int32_t>(echo.size());
    bool ok = netbase_send_packet(c, msg.data(), static_cast<int32_t>(msg.size()), kTimeout) == 0 &&
              netbase_receive_packet_buf(c, &echo[0], &size, kTimeout) == 0 &&
              echo.substr(0, static_cast<size_t>(size)) == msg;
    netbase_close(c);
    return ok;
}

bool refused(uint32_t port) {
    int fd = raw_connect(port);
    if (fd >= 0) close(fd);
    return fd < 0;
}

// The ports of the listens made so far, from "Establish TCP listen" lines.
std::vector<uint32_t> logged_ports(LogCapture &cap) {
    std::vector<uint32_t> ports;
    for (const auto &l : cap.lines()) {
        unsigned p = 0;
        if (l.path == kPath && sscanf(l.text.c_str(), "Establish TCP listen @127.0.0.1:%u.", &p) == 1) ports.push_back(p);
    }
    return ports;
}

TEST(NetbaseWorker, ServesUntilCloseFromAnotherThreadThenReleasesTheListen) {
    LogCapture cap;
    uint32_t port = 0;
    NetbaseCtx *listen = make_listen(&port);
    EXPECT_TRUE(cap.has(LOG_LEVEL_TRACE, kPath, "Establish TCP listen @127.0.0.1:" + std::to_string(port) + "."));
    ASSERT_EQ(netbase_wait_connection(listen, echo_once, nullptr, 1), 0u);
    EXPECT_TRUE(ping(port, "first"));
    EXPECT_TRUE(ping(port, "second")); // each close of an accepted copy detaches the same worker again
    NetbaseCtx *conn = nullptr;
    EXPECT_EQ(netbase_accept(listen, &conn, 1), OSL_ERR_INVALID_STATUS);
    EXPECT_TRUE(cap.has(LOG_LEVEL_ERROR, kPath, "API netbase_tcp_establish_listen() must be invoked before this."));

    uint32_t rc = 1;
    std::thread([&] { rc = netbase_close(listen); }).join();
    EXPECT_EQ(rc, 0u);
    std::string shutdown = "Shutdown TCP server @127.0.0.1:" + std::to_string(port) + ".";
    ASSERT_TRUE(eventually([&] { return cap.has(LOG_LEVEL_TRACE, kPath, shutdown); }));
    // The worker closed the listen itself after noticing the stop.
    ASSERT_TRUE(eventually([&] { return refused(port); }));
    EXPECT_FALSE(cap.has(LOG_LEVEL_ERROR, kPath, "Waiting for connection failed."));
}

TEST(NetbaseWorker, CallerThreadServingReturnsZeroWhetherStoppedOrFailed) {
    LogCapture cap;
    uint32_t port = 0;
    NetbaseCtx *listen = make_listen(&port);
    std::thread helper([&] {
        EXPECT_TRUE(ping(port, "hello"));
        EXPECT_EQ(netbase_close(listen), 0u);
    });
    EXPECT_EQ(netbase_wait_connection(listen, echo_once, nullptr, 0), 0u);
    helper.join();
    EXPECT_TRUE(refused(port)); // stopped and released before returning

    // A callback failure ends serving too, still with 0; the listen stays
    // marked serving, so closing it only requests a stop again.
    Plan plan{{0}, 7};
    listen = make_listen(&port);
    std::thread client([&] { EXPECT_TRUE(ping(port, "x")); });
    EXPECT_EQ(netbase_wait_connection(listen, echo_once, &plan, 0), 0u);
    client.join();
    EXPECT_TRUE(cap.has(LOG_LEVEL_ERROR, kPath, "Call connected callback fail: 7."));
    EXPECT_TRUE(cap.has(LOG_LEVEL_ERROR, kPath, "Waiting for connection failed."));
    cap.clear();
    EXPECT_EQ(netbase_close(listen), 0u);
    EXPECT_FALSE(cap.has(LOG_LEVEL_TRACE, kPath, "Connection closed."));
    leaked_by_design(listen);
}

TEST(NetbaseTcpServer, ServesOnTheCallerThreadUntilACallbackFails) {
    LogCapture cap;
    Plan plan{{1}, 7};
    uint32_t result = 1;
    std::thread server([&] { result = netbase_tcp_server("127.0.0.1", 0, echo_once, &plan); });
    ASSERT_TRUE(eventually([&] { return !logged_ports(cap).empty(); }));
    uint32_t port = logged_ports(cap)[0];
    EXPECT_TRUE(ping(port, "one"));
    EXPECT_TRUE(ping(port, "two"));
    server.join();
    EXPECT_EQ(result, 7u);
    EXPECT_TRUE(cap.has(LOG_LEVEL_ERROR, kPath, "Call connected callback fail: 7."));
    EXPECT_TRUE(cap.has(LOG_LEVEL_TRACE, kPath, "Begin moniter port."));
    EXPECT_TRUE(refused(port));

    EXPECT_EQ(netbase_tcp_server("", 0, echo_once, nullptr), OSL_ERR_INVALID_PARAMETER);
    EXPECT_EQ(netbase_tcp_server("127.0.0.1", -1, echo_once, nullptr), OSL_ERR_INVALID_PARAMETER);
    EXPECT_TRUE(cap.has(LOG_LEVEL_ERROR, kPath, "Error in local_netbase_tcp_create_listen, assert(ip_port >= 0) failed."));
    EXPECT_TRUE(cap.has(LOG_LEVEL_ERROR, kPath, "Create listen failed."));
}

TEST(NetbaseMulti, DropsAListenWithoutCallbackAndServesTheOthersUntilNoneIsLeft) {
    LogCapture cap;
    Plan plan{{1}, 9};
    NetbaseServerInfo info[] = {{"127.0.0.1", 0, nullptr, nullptr}, {"127.0.0.1", 0, echo_once, &plan}};
    uint32_t result = 1;
    std::thread server([&] { result = netbase_tcp_server_multi(info, 2); });
    ASSERT_TRUE(eventually([&] { return logged_ports(cap).size() == 2; }));
    std::vector<uint32_t> ports = logged_ports(cap);

    int fd = raw_connect(ports[0]); // not accepted: the listen is dropped
    ASSERT_TRUE(eventually([&] { return refused(ports[0]); }));
    close(fd);
    EXPECT_TRUE(cap.has(LOG_LEVEL_ERROR, kPath, "No callback function to process incoming connection"));
    // select goes on with the remaining listen only.
    EXPECT_TRUE(ping(ports[1], "still here"));
    EXPECT_TRUE(ping(ports[1], "last"));
    server.join();
    EXPECT_EQ(result, 0u);
    EXPECT_TRUE(cap.has(LOG_LEVEL_TRACE, kPath, "All the listens terminated."));
    EXPECT_FALSE(has_prefix(cap, LOG_LEVEL_ERROR, "Invoke select failed"));
    EXPECT_TRUE(refused(ports[1]));
}

TEST(NetbaseMulti, AnAddressThatCannotBeBoundClosesTheListensMadeBefore) {
    LogCapture cap;
    NetbaseServerInfo info[] = {{"127.0.0.1", 0, echo_once, nullptr},
                                {"192.0.2.1", 0, echo_once, nullptr}, // TEST-NET-1: never a local address
                                {"127.0.0.1", 0, echo_once, nullptr}};
    EXPECT_EQ(netbase_tcp_server_multi(info, 3), OSL_ERR_UNKNOWN);
    EXPECT_TRUE(cap.has(LOG_LEVEL_TRACE, kPath, "Launch TCP server @192.0.2.1:0."));
    EXPECT_TRUE(cap.has(LOG_LEVEL_ERROR, kPath, "Invoke S_Bind failed: bind: Cannot assign requested address"));
    EXPECT_TRUE(cap.has(LOG_LEVEL_ERROR, kPath, "Create listen on 192.0.2.1:0 failed."));
    EXPECT_FALSE(cap.has(LOG_LEVEL_TRACE, kPath, "Begin moniter port."));
    std::vector<uint32_t> ports = logged_ports(cap);
    ASSERT_EQ(ports.size(), 1u); // the third was never made
    EXPECT_TRUE(refused(ports[0]));

    EXPECT_EQ(netbase_tcp_server_multi(info, 0), OSL_ERR_INVALID_PARAMETER);
    EXPECT_TRUE(cap.has(LOG_LEVEL_ERROR, kPath, "Error in netbase_tcp_server_multi, assert(number > 0) failed."));
}

TEST(NetbaseAccept, AcceptsOneAtATimeAndTimesOut) {
    LogCapture cap;
    uint32_t port = 0;
    NetbaseCtx *listen = make_listen(&port);
    NetbaseCtx *conn = nullptr;
    EXPECT_EQ(netbase_accept(listen, &conn, 30), OSL_ERR_UNKNOWN);
    EXPECT_TRUE(cap.has(LOG_LEVEL_ERROR, kPath, "Invoke S_Accept failed: accept: Timed out after 30 ms"));
    EXPECT_EQ(netbase_accept(listen, nullptr, 30), OSL_ERR_INVALID_PARAMETER);
    EXPECT_EQ(netbase_wait_connection(listen, nullptr, nullptr, 1), OSL_ERR_INVALID_PARAMETER);
    EXPECT_TRUE(cap.has(LOG_LEVEL_ERROR, kPath, "Error in netbase_wait_connection, assert(NULL != cb) failed."));

    std::thread client([&] { EXPECT_TRUE(ping(port, "accepted")); });
    ASSERT_EQ(netbase_accept(listen, &conn, kTimeout), 0u);
    EXPECT_TRUE(cap.has(LOG_LEVEL_TRACE, kPath, "Connection Accepted."));
    echo_once(conn, nullptr);
    client.join();
    EXPECT_EQ(netbase_close(listen), 0u);
}

} // namespace
