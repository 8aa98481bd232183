// Netbase connections with both ends in the library: connect and handshake,
// packets both ways into both kinds of buffer, argument checks and their
// last-error rules, handle information, the magic rule, closing.
#include <gtest/gtest.h>

#include <future>
#include <memory>
#include <random>
#include <vector>

#include "ostrel_error.h"
#include "test_netbase_util.h"

using namespace nbtest;

namespace {

// A connected pair over loopback: client and accepted server handle, both
// past their handshake.
struct Pair {
    NetbaseCtx *listen = nullptr, *client = nullptr, *server = nullptr;
    uint32_t port = 0;
    Pair() {
        listen = make_listen(&port);
        auto accepted = std::async(std::launch::async, [this] {
            NetbaseCtx *s = nullptr;
            EXPECT_EQ(netbase_accept(listen, &s, kTimeout), 0u);
            if (s != nullptr) {
                EXPECT_EQ(netbase_server_handshake(s, kTimeout), 0u);
            }
            return s;
        });
        EXPECT_EQ(netbase_client_tcp_connect("127.0.0.1", static_cast<int32_t>(port), &kTimeout, &client), 0u);
        server = accepted.get();
    }
    ~Pair() {
        for (NetbaseCtx *h : {client, server, listen}) {
            if (h != nullptr) {
                EXPECT_EQ(netbase_close(h), 0u);
            }
        }
    }
};

std::string random_bytes(size_t n, unsigned seed) {
    std::mt19937 rng(seed);
    std::string s(n, '\0');
    for (auto &c : s) c = static_cast<char>(rng());
    return s;
}

TEST(NetbaseConnect, HandshakeLogsAndBothReceiveFormsDeliverEverySize) {
    auto cap = std::make_unique<LogCapture>();
    Pair p;
    ASSERT_NE(p.client, nullptr);
    ASSERT_NE(p.server, nullptr);
    EXPECT_TRUE(cap->has(LOG_LEVEL_TRACE, kPath, "Connect to 127.0.0.1:" + std::to_string(p.port) + ", timeout=10000."));
    for (const char *t : {"Begin handshake with server", "Finish handshake with server", "Begin handshake with client",
                          "Finish handshake with client(little endian).", "Connection established.",
                          "Connection Accepted.", "===>Enter netbase_client_tcp_connect",
                          "<===Exit netbase_client_tcp_connect with 0x0"})
        EXPECT_TRUE(cap->has(LOG_LEVEL_TRACE, kPath, t)) << t;
    cap.reset(); // data lines would hex-dump megabytes

    // Sizes around the one-send boundary, the 64 KiB mark and a megabyte;
    // client to server into the caller's buffer, back into handle memory.
    std::vector<char> buf(1 << 20);
    for (size_t n : {size_t{1}, size_t{1427}, size_t{1428}, size_t{1429}, size_t{65536}, size_t{1} << 20}) {
        std::string data = random_bytes(n, static_cast<unsigned>(n));
        ASSERT_EQ(netbase_send_packet(p.client, data.data(), static_cast<int32_t>(n), kTimeout), 0u);
        int32_t size = static_cast<int32_t>(buf.size());
        ASSERT_EQ(netbase_receive_packet_buf(p.server, buf.data(), &size, kTimeout), 0u);
        ASSERT_EQ(std::string(buf.data(), static_cast<size_t>(size)), data) << n;

        ASSERT_EQ(netbase_send_packet(p.server, data.data(), static_cast<int32_t>(n), kTimeout), 0u);
        void *mem = nullptr;
        size = 0;
        ASSERT_EQ(netbase_receive_packet(p.client, &mem, &size, kTimeout), 0u);
        ASSERT_EQ(std::string(static_cast<char *>(mem), static_cast<size_t>(size)), data) << n;
    }
    EXPECT_EQ(Ostrel_GetLastError(), 0u);
}

TEST(NetbaseReceive, LargePacketsIntoHandleMemoryWarnOnAllocationAndGrowth) {
    Pair p;
    LogCapture cap(LOG_LEVEL_WARN);
    for (size_t n : {size_t{8} << 20, (size_t{8} << 20) + 1}) {
        std::string data = random_bytes(n, 3);
        auto sent = std::async(std::launch::async, [&] {
            return netbase_send_packet(p.client, data.data(), static_cast<int32_t>(n), kTimeout);
        });
        void *mem = nullptr;
        int32_t size = 0;
        ASSERT_EQ(netbase_receive_packet(p.server, &mem, &size, kTimeout), 0u);
        ASSERT_EQ(sent.get(), 0u);
        EXPECT_TRUE(std::string(static_cast<char *>(mem), static_cast<size_t>(size)) == data);
    }
    EXPECT_EQ(cap.texts(LOG_LEVEL_WARN),
              (std::vector<std::string>{"src/netbase_api|Large malloc in netbase_receive_packet, size=8388608.",
                                        "src/netbase_api|Large realloc in netbase_receive_packet, size=8388609."}));
}

TEST(NetbaseSend, ZeroBytesPutNothingOnTheWireAndOversizeIsRefusedFirst) {
    LogCapture cap;
    Pair p;
    char byte = 'x';
    EXPECT_EQ(netbase_send_packet(p.client, &byte, 0, kTimeout), 0u);
    EXPECT_EQ(netbase_send_packet(p.client, &byte, NETBASE_PACKET_LENGTH_MAX + 1, kTimeout), OSL_ERR_INVALID_PARAMETER);
    EXPECT_EQ(netbase_send_packet(p.client, &byte, -1, kTimeout), OSL_ERR_INVALID_PARAMETER);
    EXPECT_EQ(netbase_send_packet(p.client, nullptr, 1, kTimeout), OSL_ERR_INVALID_PARAMETER);
    EXPECT_EQ(netbase_send_packet(nullptr, &byte, 1, kTimeout), OSL_ERR_INVALID_PARAMETER);
    for (const char *cond : {"size <= NETBASE_PACKET_LENGTH_MAX", "size >= 0", "NULL != buffer", "NULL != handle"})
        EXPECT_TRUE(cap.has(LOG_LEVEL_ERROR, kPath,
                            std::string("Error in netbase_send_packet, assert(") + cond + ") failed."));
    // Only this packet arrives: nothing of the refused or empty ones.
    ASSERT_EQ(netbase_send_packet(p.client, "yz", 2, kTimeout), 0u);
    char buf[8];
    int32_t size = sizeof buf;
    ASSERT_EQ(netbase_receive_packet_buf(p.server, buf, &size, kTimeout), 0u);
    EXPECT_EQ(std::string(buf, static_cast<size_t>(size)), "yz");
}

TEST(NetbaseFrame, FailedAssertionsKeepTheLastErrorOtherFailuresStoreIt) {
    LogCapture cap;
    uint32_t port = 0;
    NetbaseCtx *l = make_listen(&port);
    NetbaseCtx *h = nullptr;
    // A refused connection: socket-layer text in the log, 0x90001 stored.
    ASSERT_EQ(netbase_close(l), 0u);
    EXPECT_EQ(netbase_client_tcp_connect("127.0.0.1", static_cast<int32_t>(port), &kTimeout, &h), OSL_ERR_UNKNOWN);
    EXPECT_TRUE(cap.has(LOG_LEVEL_ERROR, kPath, "Invoke S_Client failed: connect: Connection refused"));
    EXPECT_EQ(Ostrel_GetLastError(), OSL_ERR_UNKNOWN);
    EXPECT_STREQ(netbase_get_last_error_text(), "Success");
    EXPECT_STREQ(netbase_get_error_text(OSL_ERR_INVALID_DATA), "Invalid data content.");

    EXPECT_EQ(netbase_client_tcp_connect("", 1, &kTimeout, &h), OSL_ERR_INVALID_PARAMETER);
    EXPECT_TRUE(cap.has(LOG_LEVEL_ERROR, kPath, "Error in netbase_client_tcp_connect, assert('\\0' != *addr) failed."));
    EXPECT_EQ(netbase_client_tcp_connect("127.0.0.1", 1, nullptr, &h), OSL_ERR_INVALID_PARAMETER);
    EXPECT_EQ(netbase_set_big_endian(2), OSL_ERR_INVALID_PARAMETER);
    int32_t size = -1;
    char buf[4];
    EXPECT_EQ(netbase_receive_packet_buf(nullptr, buf, &size, 1), OSL_ERR_INVALID_PARAMETER);
    EXPECT_TRUE(cap.has(LOG_LEVEL_ERROR, kPath, "Error in netbase_receive_packet_buf, assert(*size >= 0) failed."));
    EXPECT_EQ(netbase_close(nullptr), OSL_ERR_INVALID_PARAMETER);
    EXPECT_TRUE(cap.has(LOG_LEVEL_ERROR, kPath, "Error in netbase_close, assert(NULL != pCtx) failed."));
    EXPECT_EQ(Ostrel_GetLastError(), OSL_ERR_UNKNOWN); // none of the above stored its code
    // A missing handle for a receive is caught by the context step.
    size = 4;
    EXPECT_EQ(netbase_receive_packet_buf(nullptr, buf, &size, 1), OSL_ERR_INVALID_PARAMETER);
    EXPECT_TRUE(cap.has(LOG_LEVEL_ERROR, kPath, "Receive packet CTX failed."));
    // The no-op entry points leave an exit trace only.
    cap.clear();
    EXPECT_EQ(netbase_duplicate_handle(nullptr, nullptr), 0u);
    EXPECT_EQ(netbase_get_duplicated_handle(nullptr, nullptr), 0u);
    EXPECT_EQ(cap.texts(LOG_LEVEL_TRACE), (std::vector<std::string>{"src/netbase_api|<===Exit netbase_duplicate_handle with 0x0",
                                                                  "src/netbase_api|<===Exit netbase_get_duplicated_handle with 0x0"}));
}

TEST(NetbaseHandle, OnlyTheUpper24MagicBitsCountAndABadMagicIsLoggedNotRefused) {
    LogCapture cap;
    Pair p;
    auto *magic = reinterpret_cast<uint32_t *>(p.client);
    *magic = 0xD0845C7Fu;
    ASSERT_EQ(netbase_send_packet(p.client, "a", 1, kTimeout), 0u);
    EXPECT_TRUE(cap.texts(LOG_LEVEL_ERROR).empty());
    *magic = 0;
    ASSERT_EQ(netbase_send_packet(p.client, "b", 1, kTimeout), 0u);
    EXPECT_TRUE(cap.has(LOG_LEVEL_ERROR, kPath, "Error in netbase_send_packet. Errno=0x00090010. ErrInfo=[ostrel]Invalid handle."));
    *magic = 0xD0845C00u;
    char buf[4];
    int32_t size = sizeof buf;
    ASSERT_EQ(netbase_receive_packet_buf(p.server, buf, &size, kTimeout), 0u);
    ASSERT_EQ(netbase_receive_packet_buf(p.server, buf + 1, &size, kTimeout), 0u);
    EXPECT_EQ(std::string(buf, 2), "ab");
    // A client handle is not accepted: no server handshake on it.
    EXPECT_EQ(netbase_server_handshake(p.client, 1), OSL_ERR_INVALID_STATUS);
    EXPECT_TRUE(cap.has(LOG_LEVEL_ERROR, kPath, "Error handle status, expect handle in accepted status."));
}

TEST(NetbaseInfo, ReportsSocketAddressAndPortAndRefusesUnknownTypes) {
    Pair p;
    unsigned char sock[NETBASE_SOCKET_INFO_SIZE];
    ASSERT_EQ(netbase_get_info(p.server, NETBASE_INFO_SOCKET, sock), 0u);
    int fd = -1;
    memcpy(&fd, sock, sizeof fd); // the descriptor leads the record
    sockaddr_in sa{};
    socklen_t len = sizeof sa;
    ASSERT_EQ(getsockname(fd, reinterpret_cast<sockaddr *>(&sa), &len), 0);
    EXPECT_EQ(ntohs(sa.sin_port), p.port);

    const char *addr = nullptr;
    uint32_t port = 0;
    ASSERT_EQ(netbase_get_info(p.server, NETBASE_INFO_ADDRESS, static_cast<void *>(&addr)), 0u);
    ASSERT_EQ(netbase_get_info(p.server, NETBASE_INFO_PORT, &port), 0u);
    EXPECT_STREQ(addr, "127.0.0.1");
    EXPECT_EQ(port, p.port);
    const char *listen_addr = nullptr;
    ASSERT_EQ(netbase_get_listening_info(p.listen, &listen_addr, nullptr), 0u);
    EXPECT_NE(listen_addr, addr); // the accepted copy has its own text
    EXPECT_EQ(netbase_get_info(p.server, 4, &port), OSL_ERR_INVALID_PARAMETER);
    EXPECT_EQ(netbase_get_info(p.server, NETBASE_INFO_PORT, nullptr), 0u);
    addr = "x";
    ASSERT_EQ(netbase_get_info(p.client, NETBASE_INFO_ADDRESS, static_cast<void *>(&addr)), 0u);
    EXPECT_EQ(addr, nullptr); // client handles have no listen address
}

TEST(NetbaseClose, WarnsWhenNoReceiveBufferWasEverUsed) {
    LogCapture cap;
    {
        Pair p;
        ASSERT_EQ(netbase_send_packet(p.server, "abc", 3, kTimeout), 0u);
        void *mem = nullptr;
        int32_t size = 0;
        ASSERT_EQ(netbase_receive_packet(p.client, &mem, &size, kTimeout), 0u);
        cap.clear();
    }
    // Client (with a buffer), server and listen (without): two warnings.
    EXPECT_EQ(cap.texts(LOG_LEVEL_WARN), (std::vector<std::string>{"src/netbase_api|Free null in netbase_close.",
                                                                 "src/netbase_api|Free null in netbase_close."}));
    EXPECT_EQ(cap.texts(LOG_LEVEL_TRACE).size(), 3u * 3u); // enter, "Connection closed.", exit
}

} // namespace
