// Load: 64 clients each send 1,000 packets of random sizes from 1 byte to
// 64 KiB to an echo service on a worker-served listen (one thread per
// connection) and compare every reply with what they sent.
#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

#include "test_netbase_util.h"

using namespace nbtest;

namespace {

constexpr int kClients = 64;
constexpr int kPackets = 1000;
constexpr int32_t kMaxSize = 64 * 1024;
constexpr uint32_t kLoadTimeout = 120000; // only a hang reaches it

struct EchoService {
    std::mutex mu;
    std::condition_variable cv;
    int active = 0;
    std::atomic<int> served{0};
    std::atomic<int> failures{0};
};

// Each connection gets a thread of its own that echoes until the client
// closes.
uint32_t on_connection(NetbaseCtx *h, void *arg) {
    auto *svc = static_cast<EchoService *>(arg);
    {
        std::lock_guard<std::mutex> lk(svc->mu);
        ++svc->active;
    }
    std::thread([h, svc] {
        if (netbase_server_handshake(h, kLoadTimeout) == 0) {
            void *mem = nullptr;
            int32_t size = 0;
            while (netbase_receive_packet(h, &mem, &size, 0) == 0) {
                if (netbase_send_packet(h, mem, size, kLoadTimeout) != 0) {
                    ++svc->failures;
                    break;
                }
                ++svc->served;
            }
        } else {
            ++svc->failures;
        }
        netbase_close(h);
        std::lock_guard<std::mutex> lk(svc->mu);
        --svc->active;
        svc->cv.notify_all();
    }).detach();
    return 0;
}

// Sizes spread evenly over the octaves from 1 byte to 64 KiB, so small
// packets (one send) and large ones (two sends, partial transfers) both
// come up often; the first two packets are the extremes.
int32_t packet_size(std::mt19937 &rng, int i) {
    if (i == 0) return 1;
    if (i == 1) return kMaxSize;
    std::uniform_real_distribution<double> octaves(0.0, 16.0);
    auto n = static_cast<int32_t>(std::exp2(octaves(rng)));
    return n < 1 ? 1 : (n > kMaxSize ? kMaxSize : n);
}

TEST(NetbaseLoad, SixtyFourClientsEchoAThousandPacketsEachWithoutLossOrCorruption) {
    ZurnGeneral_SetLogLevel(LOG_LEVEL_WARN);
    EchoService svc;
    uint32_t port = 0;
    NetbaseCtx *listen = make_listen(&port);
    ASSERT_EQ(netbase_wait_connection(listen, on_connection, &svc, 1), 0u);

    std::atomic<int> compared{0}, mismatches{0}, errors{0};
    std::vector<std::thread> clients;
    for (int c = 0; c < kClients; ++c) {
        clients.emplace_back([&, c] {
            NetbaseCtx *h = nullptr;
            if (netbase_client_tcp_connect("127.0.0.1", static_cast<int32_t>(port), &kLoadTimeout, &h) != 0) {
                ++errors;
                return;
            }
            std::mt19937 rng(static_cast<unsigned>(c) + 1);
            std::vector<uint32_t> out(kMaxSize / 4), in(kMaxSize / 4);
            for (int i = 0; i < kPackets; ++i) {
                int32_t n = packet_size(rng, i);
                for (size_t w = 0; w < (static_cast<size_t>(n) + 3) / 4; ++w) out[w] = rng();
                int32_t size = kMaxSize;
                if (netbase_send_packet(h, out.data(), n, kLoadTimeout) != 0 ||
                    netbase_receive_packet_buf(h, in.data(), &size, kLoadTimeout) != 0) {
                    ++errors;
                    break;
                }
                if (size != n || memcmp(out.data(), in.data(), static_cast<size_t>(n)) != 0) ++mismatches;
                ++compared;
            }
            netbase_close(h);
        });
    }
    for (auto &t : clients) t.join();
    {
        std::unique_lock<std::mutex> lk(svc.mu);
        svc.cv.wait(lk, [&] { return svc.active == 0; });
    }
    EXPECT_EQ(errors.load(), 0);
    EXPECT_EQ(mismatches.load(), 0);
    EXPECT_EQ(compared.load(), kClients * kPackets);
    EXPECT_EQ(svc.served.load(), kClients * kPackets);
    EXPECT_EQ(svc.failures.load(), 0);

    ASSERT_EQ(netbase_close(listen), 0u);
    EXPECT_TRUE(eventually([&] {
        int fd = raw_connect(port);
        if (fd >= 0) close(fd);
        return fd < 0;
    }));
}

} // namespace
