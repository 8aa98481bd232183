// Helpers shared by the netbase suites: plain blocking sockets for a peer
// that writes crafted bytes, headers built byte by byte, log look-ups.
#ifndef OSTREL_TEST_NETBASE_UTIL_H
#define OSTREL_TEST_NETBASE_UTIL_H

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <string>
#include <vector>
#include <thread>

#include "test_util.h"
#include "ostrel_netbase.h"

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

namespace nbtest {

// A listen that is never released (serving ended without a stop request);
// the leak checker is told so.
inline void leaked_by_design(void *handle) {
#if defined(__SANITIZE_ADDRESS__)
    __lsan_ignore_object(handle);
#endif
    // Kept reachable from a container that is never destroyed, so valgrind's
    // leak check (which runs after static destructors) does not count it lost.
    static auto *kept = new std::vector<void *>();
    kept->push_back(handle);
}

constexpr const char *kPath = "src/netbase_api";
constexpr uint32_t kTimeout = 10000; // generous: only a hang would reach it

// A 12-byte header with the lengths written in the order bit 0 announces
// (or in big-endian order when `big` is given explicitly).
inline std::string header(uint8_t b0, uint32_t ex_len, uint32_t data_len, uint8_t r1 = 0, uint8_t r2 = 0,
                          uint8_t version = 0) {
    bool big = (b0 & 1) != 0;
    std::string h{static_cast<char>(b0), static_cast<char>(r1), static_cast<char>(r2), static_cast<char>(version)};
    for (uint32_t v : {ex_len, data_len})
        for (int i = 0; i < 4; ++i) h += static_cast<char>(v >> (big ? 24 - 8 * i : 8 * i));
    return h;
}

inline int raw_connect(uint32_t port) {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_port = htons(static_cast<uint16_t>(port));
    sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(fd, reinterpret_cast<sockaddr *>(&sa), sizeof sa) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

// A listening plain socket on 127.0.0.1 with a system-chosen port.
inline int raw_listen(uint32_t *port) {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof sa;
    if (bind(fd, reinterpret_cast<sockaddr *>(&sa), sizeof sa) != 0 || listen(fd, 16) != 0 ||
        getsockname(fd, reinterpret_cast<sockaddr *>(&sa), &len) != 0)
        return -1;
    *port = ntohs(sa.sin_port);
    return fd;
}

inline bool send_all(int fd, const std::string &s) {
    size_t off = 0;
    while (off < s.size()) {
        ssize_t n = send(fd, s.data() + off, s.size() - off, MSG_NOSIGNAL);
        if (n <= 0) return false;
        off += static_cast<size_t>(n);
    }
    return true;
}

inline std::string recv_n(int fd, size_t n) {
    std::string s(n, '\0');
    size_t off = 0;
    while (off < n) {
        ssize_t r = recv(fd, &s[off], n - off, 0);
        if (r <= 0) break;
        off += static_cast<size_t>(r);
    }
    s.resize(off);
    return s;
}

inline uint32_t listen_port(NetbaseCtx *listen) {
    uint32_t port = 0;
    EXPECT_EQ(netbase_get_listening_info(listen, nullptr, &port), 0u);
    return port;
}

// A listen on 127.0.0.1 with a system-chosen port.
inline NetbaseCtx *make_listen(uint32_t *port) {
    NetbaseCtx *l = nullptr;
    EXPECT_EQ(netbase_tcp_establish_listen("127.0.0.1", 0, &l), 0u);
    if (l != nullptr) *port = listen_port(l);
    return l;
}

inline bool has_prefix(LogCapture &cap, int level, const std::string &prefix) {
    for (const auto &l : cap.lines())
        if (l.level == level && l.path == kPath && l.text.compare(0, prefix.size(), prefix) == 0) return true;
    return false;
}

// Waits (bounded, so a fault fails instead of hanging) until pred holds.
template <class Pred> bool eventually(Pred pred, int seconds = 20) {
    auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    while (!pred()) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

} // namespace nbtest

#endif
