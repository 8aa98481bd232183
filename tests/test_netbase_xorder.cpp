// Byte order for real: two processes, one writing big-endian headers and the
// other little-endian, exchange packets of several sizes in both directions
// and compare every byte.
#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <vector>

#include "test_netbase_util.h"

using namespace nbtest;

extern uint32_t g_netbase_endian; // the library's process-wide setting

namespace {

const int32_t kSizes[] = {1, 12, 255, 1428, 1429, 65536, 70001, 1 << 20};

// Deterministic contents, different for each size and direction.
std::string pattern(int32_t n, int direction) {
    std::string s(static_cast<size_t>(n), '\0');
    uint32_t x = static_cast<uint32_t>(n) * 2654435761u + static_cast<uint32_t>(direction);
    for (auto &c : s) {
        x = x * 1103515245u + 12345u;
        c = static_cast<char>(x >> 16);
    }
    return s;
}

// The client process: sends each size, expects the other pattern back.
// Returns the number of failures as its exit status.
int client_process(uint32_t port, int big) {
    int failures = netbase_set_big_endian(big) != 0;
    NetbaseCtx *c = nullptr;
    if (netbase_client_tcp_connect("127.0.0.1", static_cast<int32_t>(port), &kTimeout, &c) != 0) return 100;
    for (int32_t n : kSizes) {
        std::string out = pattern(n, 1);
        void *mem = nullptr;
        int32_t size = 0;
        if (netbase_send_packet(c, out.data(), n, kTimeout) != 0 || netbase_receive_packet(c, &mem, &size, kTimeout) != 0 ||
            std::string(static_cast<char *>(mem), static_cast<size_t>(size)) != pattern(n, 2))
            ++failures;
    }
    netbase_close(c);
    return failures;
}

void exchange_across_processes(int client_big) {
    uint32_t port = 0;
    NetbaseCtx *listen = make_listen(&port);
    ASSERT_EQ(netbase_set_big_endian(!client_big), 0u);
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) _exit(client_process(port, client_big));

    NetbaseCtx *s = nullptr;
    ASSERT_EQ(netbase_accept(listen, &s, kTimeout), 0u);
    {
        LogCapture cap; // the handshake only: data lines would hex-dump megabytes
        ASSERT_EQ(netbase_server_handshake(s, kTimeout), 0u);
        EXPECT_TRUE(cap.has(LOG_LEVEL_TRACE, kPath, client_big ? "Finish handshake with client(big endian)."
                                                                : "Finish handshake with client(little endian)."));
    }
    std::vector<char> buf(1 << 20);
    for (int32_t n : kSizes) {
        int32_t size = static_cast<int32_t>(buf.size());
        ASSERT_EQ(netbase_receive_packet_buf(s, buf.data(), &size, kTimeout), 0u) << n;
        EXPECT_EQ(std::string(buf.data(), static_cast<size_t>(size)), pattern(n, 1)) << n;
        std::string back = pattern(n, 2);
        ASSERT_EQ(netbase_send_packet(s, back.data(), n, kTimeout), 0u) << n;
    }
    int status = -1;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0) << "failures in the client process";
    netbase_close(s);
    netbase_close(listen);
}

TEST(NetbaseByteOrder, BigEndianClientProcessWithLittleEndianServer) { exchange_across_processes(1); }

TEST(NetbaseByteOrder, LittleEndianClientProcessWithBigEndianServer) { exchange_across_processes(0); }

TEST(NetbaseByteOrder, SettingOnlyTakesZeroOrOne) {
    LogCapture cap;
    ASSERT_EQ(netbase_set_big_endian(1), 0u);
    EXPECT_EQ(netbase_set_big_endian(2), OSL_ERR_INVALID_PARAMETER);
    EXPECT_EQ(netbase_set_big_endian(-1), OSL_ERR_INVALID_PARAMETER);
    EXPECT_EQ(g_netbase_endian, 1u);
    ASSERT_EQ(netbase_set_big_endian(0), 0u);
    EXPECT_EQ(g_netbase_endian, 0u);
    EXPECT_EQ(cap.texts(LOG_LEVEL_TRACE),
              (std::vector<std::string>{
                  "src/netbase_api|===>Enter netbase_set_big_endian", "src/netbase_api|Set netbase to big endian",
                  "src/netbase_api|<===Exit netbase_set_big_endian with 0x0", "src/netbase_api|===>Enter netbase_set_big_endian",
                  "src/netbase_api|<===Exit netbase_set_big_endian with 0x9000f", "src/netbase_api|===>Enter netbase_set_big_endian",
                  "src/netbase_api|<===Exit netbase_set_big_endian with 0x9000f", "src/netbase_api|===>Enter netbase_set_big_endian",
                  "src/netbase_api|Set netbase to little endian", "src/netbase_api|<===Exit netbase_set_big_endian with 0x0"}));
}

} // namespace
